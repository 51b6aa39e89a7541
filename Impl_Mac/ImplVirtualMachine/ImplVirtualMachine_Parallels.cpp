// Parallels Desktop: the registered VMs, what each one is (from its
// config.pvs and the files of its bundle), and starting or operating VMs
// through the system's "open", the Parallels client application and prlctl.
//
// A VM is named by its .pvm bundle (the 4.x methods) or by the config.pvs
// inside it (the 9.x methods).
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CStringUtils.h"
#include "MethodFrame.h"
#include "TextRules.h"

using KALDO::CAppleUtils;
using KALDO::CFileUtils;
using KALDO::CProcessUtils;
using KALDO::CStringUtils;
using KALDO::typeProperty;

namespace {

const std::wstring kDirectoryList = L"/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
const std::wstring kOpenTool = L"open";
const std::wstring kClientApp =
    L"/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app";
const std::wstring kClientAppProcess = L"prl_client_app";
const std::wstring kServiceProcess = L"Parallels Desktop.app/Contents/MacOS/prl_disp_service";
const std::wstring kPrlctl = L"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl";

constexpr int kServiceLookups = 40;
constexpr int kStartAttempts = 40;

using ImplVm::Where;

// prlctl's answers that decide a start attempt or an operation, on its
// error text...
constexpr ImplVm::TextRule<int> kRefusals[] = {
    {L"Login failed: Unable to connect to Parallels Service", Where::kAnywhere, ImplVm::kRefused},
    {L"Failed to start the VM: Unable to complete the operation", Where::kAnywhere,
     ImplVm::kRefused},
};
constexpr ImplVm::TextRule<int> kOperationRefusals[] = {
    {L"Login failed: Unable", Where::kAnywhere, ImplVm::kRefused},
};
// ... and on its output, once it said it is starting the VM.
const std::wstring kStarting = L"Starting the VM...";
constexpr ImplVm::TextRule<bool> kStartedAnswers[] = {
    {L"is not stopped", Where::kAnywhere, true},
    {L"The VM has been successfully started", Where::kAnywhere, true},
};

// <OsType> -> "OS"/"Type". Anything else is other.
constexpr ImplVm::TextRule<ImplVm::OsFamily> kOsTypes[] = {
    {L"9", Where::kWhole, ImplVm::kLinux},
    {L"7", Where::kWhole, ImplVm::kMacOs},
    {L"8", Where::kWhole, ImplVm::kWindows},
};

// <OsNumber> -> "OS"/"Distribution". Deliberately closed: every other number
// is reported as Linux, whatever the guest is.
constexpr ImplVm::TextRule<const wchar_t*> kDistributions[] = {
    {L"1794", Where::kWhole, L"Mac OS X Server 10.5"}, {L"2049", Where::kWhole, L"Windows 3.11"},
    {L"2050", Where::kWhole, L"Windows 95"},           {L"2051", Where::kWhole, L"Windows 98"},
    {L"2052", Where::kWhole, L"Windows ME"},           {L"2053", Where::kWhole, L"Windows NT"},
    {L"2054", Where::kWhole, L"Windows 2000"},         {L"2055", Where::kWhole, L"Windows XP"},
    {L"2056", Where::kWhole, L"Windows Server 2003"},  {L"2057", Where::kWhole, L"Windows Vista"},
    {L"2058", Where::kWhole, L"Windows Server 2008"},
};
constexpr const wchar_t* kOtherDistribution = L"Linux";

// <EmulatedType> -> "Networks"/"Type". Any other attachment gets no "Type".
constexpr ImplVm::TextRule<ImplVm::Attachment> kEmulatedTypes[] = {
    {L"0", Where::kWhole, ImplVm::kHostOnly},
    {L"1", Where::kWhole, ImplVm::kNat},
    {L"2", Where::kWhole, ImplVm::kBridged},
};

static_assert(ImplVm::FirstShadowedRule(kOsTypes) == std::size(kOsTypes));
static_assert(ImplVm::FirstShadowedRule(kDistributions) == std::size(kDistributions));
static_assert(ImplVm::FirstShadowedRule(kEmulatedTypes) == std::size(kEmulatedTypes));

bool Contains(const std::wstring& text, const std::wstring& part) {
    return text.find(part) != std::wstring::npos;
}

// The text between two markers of an element body (no section).
std::wstring ElementText(const std::wstring& body, const wchar_t* open, const wchar_t* close) {
    return CStringUtils::ParseSubstringFromString(body, L"", open, close, nullptr);
}

// A registered home may carry more after the bundle ("Win.pvm/",
// "Win.pvm/config.pvs"); the VM is named by the bundle itself.
void CutAfterBundle(std::wstring& home) {
    static const std::wstring kBundleSuffix = L".pvm";
    const size_t at = home.rfind(kBundleSuffix);
    if (at != std::wstring::npos && at + kBundleSuffix.size() < home.size())
        home.erase(at + kBundleSuffix.size());
}

// "State" from the names of the bundle's entries: a memory file means the VM
// is up; a saved configuration beside it means it is suspended.
ImplVm::VmState StateFromEntries(const std::vector<std::wstring>& entries) {
    bool memory = false;
    bool saved = false;
    for (const std::wstring& entry : entries) {
        if (CStringUtils::EndsWith(entry, L".mem", 0))
            memory = true;
        else if (entry == L"config.sav")
            saved = true;
    }
    if (!memory) return ImplVm::kStopped;
    return saved ? ImplVm::kSuspended : ImplVm::kRunning;
}

// One "Networks" element from a <NetworkAdapter> body; `number` is the
// adapter's 1-based place among all adapters, disabled ones included.
typeProperty AdapterRecord(const std::wstring& body, int number) {
    std::wstring name = ElementText(body, L"<UserFriendlyName>", L"</UserFriendlyName>");
    if (name.empty()) name = L"Network Adapter " + CStringUtils::I32ToStr(number);

    typeProperty adapter;
    adapter.addMapVal(L"Name", name);
    const std::wstring emulated = ElementText(body, L"<EmulatedType>", L"</EmulatedType>");
    const ImplVm::Attachment type =
        ImplVm::FirstMatch(kEmulatedTypes, emulated, ImplVm::kOtherAttachment);
    if (type != ImplVm::kOtherAttachment) adapter.addMapVal(L"Type", type);
    const std::wstring connected = ElementText(body, L"<Connected>", L"</Connected>");
    adapter.addMapVal(L"IsConnected", connected == L"0" ? 0 : 1);
    // The address is not taken from the configuration; the key is part of
    // the record all the same.
    adapter.addMapVal(L"MacAddress", std::wstring());
    return adapter;
}

// The VM's UUID, without its braces, from config.pvs text ("" when absent).
// The section marker is left open so that an <Identification> element with
// attributes matches too.
std::wstring VmUuid(const std::wstring& configText) {
    return CStringUtils::ParseSubstringFromString(configText, L"<Identification", L"<VmUuid>{",
                                                  L"}</VmUuid>", nullptr);
}

// prlctl and the Parallels GUI run wholly as the console user (ids, groups
// and home), switched in the tool's own process: the host's ids never
// change, so nothing else the host does meanwhile runs as that user.
// Every prlctl run here acts on a VM: an action's time limit.
const CProcessUtils::RunOptions kAsConsoleUser{.asConsoleUser = true, .isAction = true};
// The GUI is meant to keep running: no time limit ends it.
const CProcessUtils::RunOptions kGuiAsConsoleUser{.asConsoleUser = true, .noTimeLimit = true};

// The forked child of the 9.x start: it brings up the Parallels GUI as the
// console user and ends. It never returns into the host: no exit handlers,
// no flush of the stdio buffers it inherited, no exception past this frame.
[[noreturn]] void RunClientAppAndEnd() {
    close(1);
    close(2);
    try {
        int pid = -1;
        (void)CProcessUtils::GetProcessIdByName(kClientAppProcess, pid, false, true);
        int exitStatus = 0;
        (void)CProcessUtils::ExecuteSafeToText(kClientApp, {L""}, exitStatus, nullptr, nullptr,
                                               nullptr, kGuiAsConsoleUser);
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

// Waits for the Parallels service to show up in the process list, for a
// bounded number of looks; whether it came does not matter to the caller.
void WaitForService() {
    int pid = -1;
    for (int look = 0; look < kServiceLookups; ++look) {
        if (CProcessUtils::GetProcessIdByName(kServiceProcess, pid, false, true) < 0 || pid != -1)
            break;
    }
}

// One prlctl run as the console user: the run's result; its output and
// error texts. Its exit status decides nothing.
int RunPrlctl(const std::vector<std::wstring>& args, std::wstring& out, std::wstring& err) {
    int exitStatus = 0;
    std::wstring diagnostic;
    return CProcessUtils::ExecuteSafeToText(kPrlctl, args, exitStatus, &out, &err, &diagnostic,
                                            kAsConsoleUser);
}

// One "prlctl start" attempt: the run's result, turned into -4 by a refusal
// and into 0 by a start or by an already running VM. Progress texts count
// only after prlctl said it is starting the VM.
int StartAttempt(const std::vector<std::wstring>& args) {
    std::wstring out;
    std::wstring err;
    const int code = RunPrlctl(args, out, err);
    if (code < 0) return code;
    if (Contains(out, kStarting) && ImplVm::FirstMatch(kStartedAnswers, out, false))
        return ImplVm::kDone;
    return ImplVm::FirstMatch(kRefusals, err, code);
}

}  // namespace

// ---- Inventory ----

int VirtualMachineImpl_Parallels4_GetAllVms(std::vector<std::wstring>& vmHomes) try {
    std::wstring text;
    int rc = CFileUtils::ReadFromTextFile(kDirectoryList, text);
    if (rc < 0) return IMPLVM_FAIL(rc);

    std::vector<std::wstring> homes;
    rc = CStringUtils::ParseSubstringFromStringEx(text, homes, L"<VirtualMachine>", L"<VmHome>",
                                                  L"</VmHome>", 0, 1);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // A registered VM whose bundle is gone is simply not listed.
    for (std::wstring& home : homes) {
        CutAfterBundle(home);
        if (CFileUtils::IsFilePresent(home) >= 0) vmHomes.push_back(std::move(home));
    }
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty*, typeProperty* outputs) try {
    // An unreadable directory list is already recorded by the list builder;
    // the host sees it as no VMs.
    std::vector<std::wstring> homes;
    (void)VirtualMachineImpl_Parallels4_GetAllVms(homes);
    ImplVm::WriteVmList(outputs, std::move(homes));
    return 0;
}
IMPLVM_BOUNDARY

// ---- Configuration reader ----

int VirtualMachineImpl_Parallels4_GetInfoForVm(const std::wstring& vmHome,
                                               typeProperty* description) try {
    description->clear();

    std::wstring text;
    int rc = CFileUtils::ReadFromTextFile(vmHome + L"/config.pvs", text);
    if (rc < 0) return IMPLVM_FAIL(rc);

    const std::wstring name = CStringUtils::ParseSubstringFromString(
        text, L"<Identification>", L"<VmName>", L"</VmName>", nullptr);
    if (name.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    const std::wstring osType = CStringUtils::ParseSubstringFromString(
        text, L"<General>", L"<OsType>", L"</OsType>", nullptr);
    if (osType.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    const std::wstring osNumber = CStringUtils::ParseSubstringFromString(
        text, L"<General>", L"<OsNumber>", L"</OsNumber>", nullptr);
    if (osNumber.empty()) return IMPLVM_RECORD(ImplVm::kFailed);

    typeProperty os;
    os.addMapVal(L"Type", ImplVm::FirstMatch(kOsTypes, osType, ImplVm::kOtherOs));
    os.addMapVal(L"Distribution",
                 std::wstring(ImplVm::FirstMatch(kDistributions, osNumber, kOtherDistribution)));

    std::vector<std::wstring> entries;
    rc = CFileUtils::GetDirectoryList(vmHome, entries);
    if (rc < 0) return IMPLVM_FAIL(rc);
    const int state = StateFromEntries(entries);

    std::vector<std::wstring> adapters;
    rc = CStringUtils::ParseSubstringFromStringEx(text, adapters, L"", L"<NetworkAdapter>",
                                                  L"</NetworkAdapter>", 0, 1);
    if (rc < 0) return IMPLVM_FAIL(rc);
    typeProperty networks;
    networks.changeTypeToVec();  // no adapter at all is an empty list, not a missing one
    for (size_t i = 0; i < adapters.size(); ++i) {
        // A disabled adapter is left out but keeps its number.
        if (ElementText(adapters[i], L"<Enabled>", L"</Enabled>") == L"0") continue;
        networks.addVecVal(AdapterRecord(adapters[i], static_cast<int>(i) + 1));
    }

    description->addString(L"UserFriendlyName", name);
    description->addSubTree(L"OS", os);
    description->addInteger(L"State", state);
    description->addSubTree(L"Networks", networks);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_GetVMInfo(int, int, int, const KALDO::CSoftwareVersion*,
                                            const typeProperty* inputs, typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_Parallels4_GetInfoForVm,
                                     {L"UserFriendlyName", L"OS", L"State"}, outputs, __FILE__,
                                     __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_Parallels4_GetVMNetwork(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs,
                                               typeProperty* outputs) try {
    return ImplVm::DescribeToOutputs(inputs, &VirtualMachineImpl_Parallels4_GetInfoForVm,
                                     {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Control ----

int VirtualMachineImpl_Parallels4_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                          const typeProperty* inputs, typeProperty*) try {
    std::wstring vmHome;
    int rc = ImplVm::ReadInput(inputs, L"Name", vmHome);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // "open" hands the bundle to the Parallels application; the VM's state
    // is not looked at before or after.
    int exitStatus = 0;
    std::wstring out;
    rc = CProcessUtils::ExecuteSafeToText(kOpenTool, {vmHome}, exitStatus, &out, nullptr, nullptr,
                                          {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitStatus != 0) return IMPLVM_RECORD(ImplVm::kFailed);
    return 0;
}
IMPLVM_BOUNDARY

int ImplVirtualMachine_Parallels_9_X_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    std::wstring configPath;
    if (ImplVm::ReadInput(inputs, L"Name", configPath) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);

    // Both processes look up the console user; the child ends whatever it
    // finds, and only the parent answers the host.
    const pid_t child = fork();
    int consoleUser = 0;
    std::wstring consoleHome;
    const bool known =
        CAppleUtils::GetCurrentLoggedInUserInfo(consoleHome, &consoleUser, nullptr) >= 0;
    if (child == 0) {
        if (!known) _exit(1);
        RunClientAppAndEnd();
    }
    if (!known) return IMPLVM_RECORD(ImplVm::kRefused);
    if (child < 0) return IMPLVM_RECORD(ImplVm::kFailed);

    // The child is left to itself: it lives as long as the GUI it started.
    WaitForService();
    sleep(1);

    if (CFileUtils::IsFilePresent(configPath) < 0) return IMPLVM_RECORD(ImplVm::kNotFound);
    // An unreadable file leaves the path in place, which holds no UUID.
    std::wstring text = configPath;
    (void)CFileUtils::ReadFromTextFile(configPath, text);
    const std::wstring uuid = VmUuid(text);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kNotFound);

    const std::vector<std::wstring> args = {L"start", uuid};
    int code = 0;
    // The service may still be coming up: it refuses logins until it is.
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        sleep(1);
        code = StartAttempt(args);
        if (code >= 0) break;
    }
    return IMPLVM_RECORD(code);
}
IMPLVM_BOUNDARY

int ImplVirtualMachine_Parallels_9_X_OperateVM(int, int, int, const KALDO::CSoftwareVersion*,
                                               const typeProperty* inputs, typeProperty*) try {
    std::wstring configPath;
    if (ImplVm::ReadInput(inputs, L"Name", configPath) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring command;
    if (ImplVm::ReadInput(inputs, L"COMMAND", command) < 0) return IMPLVM_RECORD(ImplVm::kBadInput);
    std::wstring option;
    (void)ImplVm::ReadInput(inputs, L"OPTION", option);

    if (CFileUtils::IsFilePresent(configPath) < 0) return IMPLVM_RECORD(ImplVm::kNotFound);
    std::wstring text;
    if (CFileUtils::ReadFromTextFile(configPath, text) < 0) return IMPLVM_RECORD(ImplVm::kFailed);
    const std::wstring uuid = VmUuid(text);
    if (uuid.empty()) return IMPLVM_RECORD(ImplVm::kNotFound);

    std::vector<std::wstring> args = {command, uuid};
    if (!option.empty()) args.push_back(option);

    int consoleUser = 0;
    std::wstring consoleHome;
    if (CAppleUtils::GetCurrentLoggedInUserInfo(consoleHome, &consoleUser, nullptr) < 0)
        return IMPLVM_RECORD(ImplVm::kFailed);

    std::wstring out;
    std::wstring err;
    int code = RunPrlctl(args, out, err);
    if (code >= 0) code = ImplVm::FirstMatch(kOperationRefusals, err, code);
    return IMPLVM_RECORD(code);
}
IMPLVM_BOUNDARY
