// The VirtualBox adapter. The machine list comes from the console user's
// VirtualBox.xml, a machine's description from the text report of
// `VBoxManage showvminfo`, and power actions from running VBoxManage once.
// Every text is searched with literal markers, never parsed as XML: the
// reports and settings files of several VirtualBox generations only agree on
// these markers.
#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/typeProperty.h"
#include "MethodFrame.h"
#include "TextRules.h"

namespace {

using KALDO::CStringUtils;
using KALDO::typeProperty;

// ---- Inventory ----

// Appended to the home folder as it is returned; the result is also the
// folder that VirtualBox 3 wrote its relative machine paths against.
constexpr wchar_t kSettingsFolder[] = L"/Library/VirtualBox/";
constexpr wchar_t kGlobalSettingsFile[] = L"VirtualBox.xml";
// VirtualBox 4 moved machines out of the settings folder and began writing
// absolute paths.
constexpr int kFirstAbsolutePathsMajor = 4;

// The major version from the version record's text ("4.3.12" gives 4). A
// host that passes no record gets the reading of empty text: 0, i.e. the
// oldest layout.
int MajorVersionOf(const KALDO::CSoftwareVersion* version) {
    std::string text;
    if (version != nullptr) {
        const KALDO::CSoftwareVersion copy(*version);
        text = copy.toCharStr();
    }
    return CStringUtils::StrToI32(CStringUtils::StringToWString(text));
}

// ---- Machine description ----

constexpr wchar_t kBundleId[] = L"org.virtualbox.app.VirtualBox";
constexpr wchar_t kToolInBundle[] = L"/Contents/MacOS/VBoxManage";

// One value cut out of a text: after `anchor` (empty: from the start), the
// text between `begin` and the next `end`.
struct Cut {
    const wchar_t* anchor;
    const wchar_t* begin;
    const wchar_t* end;
};
constexpr Cut kUuidCut{L"<Machine", L"uuid=\"{", L"}\""};
constexpr Cut kNameCut{L"", L"Name: ", L"\n"};
constexpr Cut kGuestOsCut{L"", L"Guest OS: ", L"\n"};
constexpr Cut kStateCut{L"", L"State: ", L"("};
constexpr wchar_t kAttachmentBegin[] = L"Attachment: ";
constexpr wchar_t kAttachmentEnd[] = L",";

std::wstring CutOut(const std::wstring& text, const std::wstring& anchor, const std::wstring& begin,
                    const std::wstring& end) {
    return CStringUtils::ParseSubstringFromString(text, anchor, begin, end, nullptr);
}
std::wstring CutOut(const std::wstring& text, const Cut& cut) {
    return CutOut(text, cut.anchor, cut.begin, cut.end);
}

// Classification tables: the first row whose text begins the value (ASCII
// letters in any case) wins; a value no row claims gets the fallback.
using ImplVm::Where;
constexpr Where kBegins = Where::kStartAnyCase;

// "Xasndros" is spelt so on purpose: only a text with these very letters
// counts for it.
constexpr ImplVm::TextRule<ImplVm::OsFamily> kOsFamilies[] = {
    {L"Windows", kBegins, ImplVm::kWindows}, {L"Linux", kBegins, ImplVm::kLinux},
    {L"Arch", kBegins, ImplVm::kLinux},      {L"Debian", kBegins, ImplVm::kLinux},
    {L"open", kBegins, ImplVm::kLinux},      {L"Gentoo", kBegins, ImplVm::kLinux},
    {L"Mandriva", kBegins, ImplVm::kLinux},  {L"Red", kBegins, ImplVm::kLinux},
    {L"Turbo", kBegins, ImplVm::kLinux},     {L"Ubuntu", kBegins, ImplVm::kLinux},
    {L"Xasndros", kBegins, ImplVm::kLinux},
};

// Paused, saved, aborted, stuck, ...: suspended.
constexpr ImplVm::TextRule<ImplVm::VmState> kStates[] = {
    {L"powered off", kBegins, ImplVm::kStopped},
    {L"running", kBegins, ImplVm::kRunning},
};

struct AttachmentKind {
    ImplVm::Attachment type;
    int isConnected;
};
// Internal, generic, not attached: other, and not connected.
constexpr ImplVm::TextRule<AttachmentKind> kAttachments[] = {
    {L"NAT", kBegins, {ImplVm::kNat, 1}},
    {L"Bridged", kBegins, {ImplVm::kBridged, 1}},
    {L"Host-only", kBegins, {ImplVm::kHostOnly, 1}},
};
constexpr AttachmentKind kOtherAttachment{ImplVm::kOtherAttachment, 0};

static_assert(ImplVm::FirstShadowedRule(kOsFamilies) == std::size(kOsFamilies));
static_assert(ImplVm::FirstShadowedRule(kStates) == std::size(kStates));
static_assert(ImplVm::FirstShadowedRule(kAttachments) == std::size(kAttachments));

// "NIC 1: ", "NIC 2: ", ...: the colon and blank keep the adapters' settings
// and rules lines ("NIC 1 Settings:", "NIC 1 Rule(0):") from counting.
constexpr size_t npos = std::wstring_view::npos;
constexpr std::wstring_view kNicWord = L"NIC ";
constexpr std::wstring_view kNicColon = L": ";

// Where each adapter's key "NIC n: " stands in a report, found in one pass:
// the first occurrence as written (which says the adapter exists) and the
// first in any letter case (where the support library's marker search,
// which the line and attachment cuts follow, finds it), with the positions
// of the line ends, "Attachment: " markers and commas those cuts end at.
// Cutting each adapter out of the whole report in turn would rescan it per
// adapter, and a guest can put any number of "NIC n: " texts into it.
class NicIndex {
public:
    explicit NicIndex(std::wstring_view report) : text_(report) {
        for (size_t at = text_.find_first_of(L"Nn"); at != npos;
             at = text_.find_first_of(L"Nn", at + 1)) {
            int n = 0;
            const size_t p = ImplVm::NumberedKeyAt(text_, at, kNicWord, n);
            if (p == npos || text_.substr(p, kNicColon.size()) != kNicColon) continue;
            Key& key = keys_[n];
            if (key.folded == npos) key.folded = at;
            if (!key.exact) key.exact = text_.substr(at, kNicWord.size()) == kNicWord;
            key.length = p + kNicColon.size() - at;
        }
        if (keys_.empty()) return;
        const std::wstring_view attachment = kAttachmentBegin;
        for (size_t at = 0; at < text_.size(); ++at) {
            const wchar_t c = text_[at];
            if (c == L'\n') lineEnds_.push_back(at);
            if (c == kAttachmentEnd[0]) commas_.push_back(at);  // a one-character marker
            if ((c | 0x20) == L'a' && ImplVm::MatchesFoldedAt(text_, at, attachment))
                attachments_.push_back(at);
        }
    }

    // Whether "NIC n: " stands in the report as written.
    bool has(int n) const {
        const auto key = keys_.find(n);
        return key != keys_.end() && key->second.exact;
    }

    // The rest of the key's line ("" when no line end follows).
    std::wstring line(int n) const {
        const Key& key = keys_.at(n);
        const size_t from = key.folded + key.length;
        const auto lf = std::lower_bound(lineEnds_.begin(), lineEnds_.end(), from);
        if (lf == lineEnds_.end()) return {};
        const size_t end = *lf > from && text_[*lf - 1] == L'\r' ? *lf - 1 : *lf;
        return std::wstring(text_.substr(from, end - from));
    }

    // The text after the first "Attachment: " from the key on, up to the
    // next comma ("" when either is missing).
    std::wstring attachment(int n) const {
        const size_t begin = std::wstring_view(kAttachmentBegin).size();
        const auto at =
            std::lower_bound(attachments_.begin(), attachments_.end(), keys_.at(n).folded);
        if (at == attachments_.end()) return {};
        const auto comma = std::lower_bound(commas_.begin(), commas_.end(), *at + begin);
        if (comma == commas_.end()) return {};
        return std::wstring(text_.substr(*at + begin, *comma - *at - begin));
    }

private:
    struct Key {
        size_t folded = npos;  // start of the first occurrence in any case
        size_t length = 0;
        bool exact = false;
    };
    std::wstring_view text_;
    std::unordered_map<int, Key> keys_;
    std::vector<size_t> lineEnds_, commas_, attachments_;  // positions, ascending
};

// Fills `networks` with one map per enabled adapter, numbered as the tool
// numbers them. The adapters end at the first number the report does not
// mention, whatever follows. Failures are recorded here.
int ReadAdapters(const std::wstring& report, typeProperty& networks) {
    const NicIndex nics(report);
    for (int number = 1;; ++number) {
        if (!nics.has(number)) return 0;
        const std::wstring lineValue = nics.line(number);
        if (lineValue.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
        if (CStringUtils::Trim(lineValue) == L"disabled") continue;

        typeProperty adapter;
        adapter.addMapVal(L"Name", L"Adapter " + CStringUtils::I32ToStr(number));
        const std::wstring attachment = nics.attachment(number);
        if (attachment.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
        const AttachmentKind kind =
            ImplVm::FirstMatch(kAttachments, CStringUtils::Trim(attachment), kOtherAttachment);
        adapter.addMapVal(L"Type", kind.type);
        adapter.addMapVal(L"IsConnected", kind.isConnected);
        adapter.addMapVal(L"MacAddress", std::wstring());
        networks.addVecVal(adapter);
    }
}

// ---- Power actions ----

// Unlike the description, actions use the tool at its standard place only.
constexpr wchar_t kVBoxManage[] = L"/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";
constexpr wchar_t kStartAction[] = L"startvm";

// How a failed exit of VBoxManage is judged from its printed text, in this
// order; the first rule that holds decides, none: failed. The tool's
// messages come on its standard error, which the run merges into the text.
// The search is case-sensitive: a text without a lower-case "error" counts
// as done.
constexpr ImplVm::TextRule<int> kAnswerRules[] = {
    {L"error", Where::kAbsent, ImplVm::kDone},
    {L"VBOX_E_INVALID_VM_STATE", Where::kAnywhere, ImplVm::kRefused},
    {L"Error: Cannot open VM", Where::kAnywhere, ImplVm::kNotFound},
    {L"Error: The virtual machine cannot be found", Where::kAnywhere, ImplVm::kNotFound},
    {L"Error: Cannot lock VM", Where::kAnywhere, ImplVm::kLocked},
};
static_assert(ImplVm::FirstShadowedRule(kAnswerRules) == std::size(kAnswerRules));

int RunPowerMethod(const typeProperty* inputs, const wchar_t* action) {
    std::wstring machine;
    const int rc = ImplVm::ReadInput(inputs, L"Name", machine);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return IMPLVM_RECORD(VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(action, machine));
}

}  // namespace

// ---- Inventory ----

int VirtualMachineImpl_VirtualBox2_GetAllVms(std::vector<std::wstring>* vms, int majorVersion) try {
    if (vms == nullptr) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring home;
    int rc = KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring settingsFolder = home + kSettingsFolder;

    std::wstring xml;
    rc = KALDO::CFileUtils::ReadFromTextFile(settingsFolder + kGlobalSettingsFile, xml);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // The value runs to the "/>" that closes the element, so only a src
    // written as the element's last attribute comes out as a bare path.
    std::vector<std::wstring> sources;
    rc = CStringUtils::ParseSubstringFromStringEx(xml, sources, L"<MachineEntry", L"src=\"",
                                                  L"\"/>", 0, 1);
    if (rc < 0) return IMPLVM_FAIL(rc);

    const bool relative = majorVersion < kFirstAbsolutePathsMajor;
    for (std::wstring& source : sources) {
        vms->push_back(relative ? settingsFolder + source : std::move(source));
    }
    return 0;
}
IMPLVM_BOUNDARY

// Never fails: a host learns of a missing installation from an empty list
// (and the error log).
int VirtualMachineImpl_VirtualBox2_EnumerateVMs(int, int, int,
                                                const KALDO::CSoftwareVersion* version,
                                                const typeProperty*, typeProperty* outputs) try {
    std::vector<std::wstring> vms;
    (void)VirtualMachineImpl_VirtualBox2_GetAllVms(&vms, MajorVersionOf(version));
    ImplVm::WriteVmList(outputs, std::move(vms));
    return 0;
}
IMPLVM_BOUNDARY

// ---- Machine description ----

int VirtualMachineImpl_VirtualBox2_GetInfoForVm(const std::wstring& settingsPath,
                                                typeProperty* description) try {
    if (description == nullptr) return IMPLVM_RECORD(ImplVm::kBadInput);
    description->clear();

    std::wstring appPath;
    int rc = KALDO::CAppleUtils::LS_GetAppPathByAppId(kBundleId, appPath);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring tool = appPath + kToolInBundle;

    std::wstring settings;
    rc = KALDO::CFileUtils::ReadFromTextFile(settingsPath, settings);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const std::wstring uuid = CutOut(settings, kUuidCut);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    int exitCode = 0;
    std::wstring report;
    rc = KALDO::CProcessUtils::ExecuteSafeToText(tool, {L"showvminfo", uuid}, exitCode, &report,
                                                 nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode != 0) return IMPLVM_RECORD(ImplVm::kFailed);

    // Emptiness is judged on the raw cuts: a value of blanks passes and
    // trims to nothing.
    const std::wstring rawName = CutOut(report, kNameCut);
    if (rawName.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    const std::wstring name = CStringUtils::Trim(rawName);

    // A report without a guest-OS line is a machine of unknown family.
    const std::wstring guestOs = CStringUtils::Trim(CutOut(report, kGuestOsCut));
    typeProperty os;
    os.addMapVal(L"Type", ImplVm::FirstMatch(kOsFamilies, guestOs, ImplVm::kOtherOs));
    os.addMapVal(L"Distribution", guestOs);

    // "State:   running (since 2024-...)": the time stamp's "(" ends the word.
    const std::wstring rawState = CutOut(report, kStateCut);
    if (rawState.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    const int state = ImplVm::FirstMatch(kStates, CStringUtils::Trim(rawState), ImplVm::kSuspended);

    // Never typed explicitly: it becomes a vector with its first adapter.
    typeProperty networks;
    rc = ReadAdapters(report, networks);
    if (rc < 0) return rc;

    description->addString(L"UserFriendlyName", name);
    description->addSubTree(L"OS", os);
    description->addInteger(L"State", state);
    description->addSubTree(L"Networks", networks);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox2_GetVMInfo(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs,
                                             typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_VirtualBox2_GetInfoForVm,
                                     {L"UserFriendlyName", L"OS", L"State"}, outputs, __FILE__,
                                     __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox2_GetVMNetwork(int, int, int, const KALDO::CSoftwareVersion*,
                                                const typeProperty* inputs,
                                                typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_VirtualBox2_GetInfoForVm,
                                     {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Power actions ----

int VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(const std::wstring& action,
                                                      const std::wstring& machine) try {
    // Built step by step: g++ 12 destroys the strings of a braced list in a
    // conditional expression a second time when one of them fails to
    // allocate.
    std::vector<std::wstring> args;
    if (action != kStartAction) args.emplace_back(L"controlvm");
    args.push_back(action == kStartAction ? action : machine);
    args.push_back(action == kStartAction ? machine : action);
    int exitCode = 0;
    std::wstring text;
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(kVBoxManage, args, exitCode, &text,
                                                           nullptr, nullptr, {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode == 0) return 0;
    return IMPLVM_RECORD(ImplVm::FirstMatch(kAnswerRules, text, ImplVm::kFailed));
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                              const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, kStartAction);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_StopVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"poweroff");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_PauseVM(int, int, int, const KALDO::CSoftwareVersion*,
                                              const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"pause");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VirtualBox_4_X_ResumeVM(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs, typeProperty*) try {
    return RunPowerMethod(inputs, L"resume");
}
IMPLVM_BOUNDARY
