// VirtualBox's texts: the global settings (VirtualBox.xml), a machine's
// settings (.vbox), the text report of `VBoxManage showvminfo` and what
// VBoxManage prints when an action fails. Every text is searched with
// literal markers, never parsed as XML: the reports and settings files of
// several VirtualBox generations only agree on these markers.
#include <algorithm>
#include <climits>
#include <iterator>
#include <unordered_map>

#include "KALDO/CStringUtils.h"
#include "Readers.h"
#include "TextRules.h"

namespace ImplVm::Readers {

namespace {

using KALDO::CStringUtils;
using KALDO::typeProperty;

// ---- Global settings ----

// VirtualBox 4 moved machines out of the settings folder and began writing
// absolute paths.
constexpr int kFirstAbsolutePathsMajor = 4;

// ---- Machine description ----

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

std::wstring CutOut(const std::wstring& text, const Cut& cut) {
    return CStringUtils::ParseSubstringFromString(text, cut.anchor, cut.begin, cut.end, nullptr);
}

// Classification tables: the first row whose text begins the value (ASCII
// letters in any case) wins; a value no row claims gets the fallback.
constexpr Where kBegins = Where::kStartAnyCase;

// "Xasndros" is spelt so on purpose: only a text with these very letters
// counts for it.
constexpr TextRule<OsFamily> kOsFamilies[] = {
    {L"Windows", kBegins, kWindows}, {L"Linux", kBegins, kLinux},    {L"Arch", kBegins, kLinux},
    {L"Debian", kBegins, kLinux},    {L"open", kBegins, kLinux},     {L"Gentoo", kBegins, kLinux},
    {L"Mandriva", kBegins, kLinux},  {L"Red", kBegins, kLinux},      {L"Turbo", kBegins, kLinux},
    {L"Ubuntu", kBegins, kLinux},    {L"Xasndros", kBegins, kLinux},
};

// Paused, saved, aborted, stuck, ...: suspended.
constexpr TextRule<VmState> kStates[] = {
    {L"powered off", kBegins, kStopped},
    {L"running", kBegins, kRunning},
};

struct AttachmentKind {
    Attachment type;
    int isConnected;
};
// Internal, generic, not attached: other, and not connected.
constexpr TextRule<AttachmentKind> kAttachments[] = {
    {L"NAT", kBegins, {kNat, 1}},
    {L"Bridged", kBegins, {kBridged, 1}},
    {L"Host-only", kBegins, {kHostOnly, 1}},
};
constexpr AttachmentKind kOtherKind{kOtherAttachment, 0};

static_assert(FirstShadowedRule(kOsFamilies) == std::size(kOsFamilies));
static_assert(FirstShadowedRule(kStates) == std::size(kStates));
static_assert(FirstShadowedRule(kAttachments) == std::size(kAttachments));

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
            const size_t p = NumberedKeyAt(text_, at, kNicWord, n);
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
            if ((c | 0x20) == L'a' && MatchesFoldedAt(text_, at, attachment))
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
// mention, whatever follows. False when a mentioned adapter has no value or
// an enabled one no attachment.
bool ReadAdapters(const std::wstring& report, typeProperty& networks) {
    const NicIndex nics(report);
    for (int number = 1;; ++number) {
        if (!nics.has(number)) return true;
        const std::wstring lineValue = nics.line(number);
        if (lineValue.empty()) return false;
        if (CStringUtils::Trim(lineValue) == L"disabled") continue;

        const std::wstring attachment = nics.attachment(number);
        if (attachment.empty()) return false;
        const AttachmentKind kind =
            FirstMatch(kAttachments, CStringUtils::Trim(attachment), kOtherKind);
        networks.addVecVal(AdapterRecord(L"Adapter " + CStringUtils::I32ToStr(number), kind.type,
                                         kind.isConnected != 0));
    }
}

// ---- Power actions ----

// How a failed exit of VBoxManage is judged from its printed text, in this
// order; the first rule that holds decides, none: failed. The tool's
// messages come on its standard error, which the run merges into the text.
// The search is case-sensitive: a text without a lower-case "error" counts
// as done.
constexpr TextRule<int> kAnswerRules[] = {
    {L"error", Where::kAbsent, kDone},
    {L"VBOX_E_INVALID_VM_STATE", Where::kAnywhere, kRefused},
    {L"Error: Cannot open VM", Where::kAnywhere, kNotFound},
    {L"Error: The virtual machine cannot be found", Where::kAnywhere, kNotFound},
    {L"Error: Cannot lock VM", Where::kAnywhere, kLocked},
};
static_assert(FirstShadowedRule(kAnswerRules) == std::size(kAnswerRules));

}  // namespace

// The value runs to the "/>" that closes the element, so only a src written
// as the element's last attribute comes out as a bare path.
int VBoxMachinePaths(const std::wstring& xml, int majorVersion, const std::wstring& settingsFolder,
                     std::vector<std::wstring>& paths) {
    std::vector<std::wstring> sources;
    const int rc = CStringUtils::ParseSubstringFromStringEx(xml, sources, L"<MachineEntry",
                                                            L"src=\"", L"\"/>", 0, 1);
    if (rc < 0) return rc;
    const bool relative = majorVersion < kFirstAbsolutePathsMajor;
    for (std::wstring& source : sources)
        paths.push_back(relative ? settingsFolder + source : std::move(source));
    return kDone;
}

std::wstring VBoxMachineUuid(const std::wstring& settings) {
    return CutOut(settings, kUuidCut);
}

int VBoxDescription(const std::wstring& report, typeProperty& description) {
    // Emptiness is judged on the raw cuts: a value of blanks passes and
    // trims to nothing.
    const std::wstring rawName = CutOut(report, kNameCut);
    if (rawName.empty()) return kFailed;
    const std::wstring name = CStringUtils::Trim(rawName);

    // A report without a guest-OS line is a machine of unknown family.
    const std::wstring guestOs = CStringUtils::Trim(CutOut(report, kGuestOsCut));
    typeProperty os;
    os.addMapVal(L"Type", FirstMatch(kOsFamilies, guestOs, kOtherOs));
    os.addMapVal(L"Distribution", guestOs);

    // "State:   running (since 2024-...)": the time stamp's "(" ends the word.
    const std::wstring rawState = CutOut(report, kStateCut);
    if (rawState.empty()) return kFailed;
    const int state = FirstMatch(kStates, CStringUtils::Trim(rawState), kSuspended);

    // Never typed explicitly: it becomes a vector with its first adapter.
    typeProperty networks;
    if (!ReadAdapters(report, networks)) return kFailed;

    FillDescription(description, name, os, state, networks);
    return kDone;
}

int VBoxManageAnswer(std::wstring_view printed) {
    return FirstMatch(kAnswerRules, printed, kFailed);
}

}  // namespace ImplVm::Readers
