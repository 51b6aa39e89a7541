// VMware Fusion: the VM library (preferences list or vmInventory), the .vmx
// reader with its guest-OS table and power-state rules, and the power and
// snapshot actions through vmrun.
#include <array>
#include <iterator>
#include <span>
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
#include "Readers.h"
#include "TextRules.h"

using KALDO::CStringUtils;
using KALDO::typeProperty;

namespace {

constexpr size_t npos = std::wstring::npos;

constexpr const wchar_t* kVmrun = L"/Applications/VMware Fusion.app/Contents/Library/vmrun";
constexpr const wchar_t* kPreferences = L"/Library/Preferences/com.vmware.fusion.plist";
constexpr const wchar_t* kInventory = L"/Library/Application Support/VMware Fusion/vmInventory";

// ---- Library ----

// Every key and string of the preferences tree carries the reader's two
// character type tag ("\s"); values are taken without it.
constexpr const wchar_t* kFavourites = L"\\sVMFavoritesListDefaults";
constexpr const wchar_t* kFavourites2 = L"\\sVMFavoritesListDefaults2";
constexpr const wchar_t* kFavouritePath = L"\\spath";

void AppendUntagged(std::vector<std::wstring>& vmxPaths, const std::wstring& tagged) {
    if (tagged.size() > 1) vmxPaths.push_back(tagged.substr(2));
}

// ---- .vmx reader ----

// A .vmx value: `key = "value"` up to the quote that ends its line. The
// search takes the first match anywhere in the text, as Fusion's own lookup
// of a key name does.
std::wstring VmxValue(const std::wstring& vmx, const std::wstring& key) {
    return CStringUtils::ParseSubstringFromString(vmx, L"", key + L" = \"", L"\"\n", nullptr);
}

// "OS" of a guestOS key: Fusion writes the keys in lower case; a key is
// either a whole value or the start of one, letters in any case.
struct GuestOs {
    const wchar_t* name;
    ImplVm::OsFamily family;
};

using ImplVm::Where;
constexpr Where kIs = Where::kWhole;
constexpr Where kBegins = Where::kStartAnyCase;

// First match wins: a longer key stands before a key it begins with
// ("winxppro-64" before "winxp", "windows7srv" before "windows7").
constexpr ImplVm::TextRule<GuestOs> kGuestOsTable[] = {
    {L"win31", kIs, {L"Windows 3.11", ImplVm::kWindows}},
    {L"win95", kIs, {L"Windows 95", ImplVm::kWindows}},
    {L"win98", kIs, {L"Windows 98", ImplVm::kWindows}},
    {L"winme", kIs, {L"Windows ME", ImplVm::kWindows}},
    {L"winnt", kIs, {L"Windows NT", ImplVm::kWindows}},
    {L"win2000", kBegins, {L"Windows 2000", ImplVm::kWindows}},
    {L"winxppro-64", kBegins, {L"Windows XP x64 Edition", ImplVm::kWindows}},
    {L"winxp", kBegins, {L"Windows XP", ImplVm::kWindows}},
    {L"winnet", kBegins, {L"Windows Server 2003", ImplVm::kWindows}},
    {L"winvista", kBegins, {L"Windows Vista", ImplVm::kWindows}},
    {L"longhorn", kBegins, {L"Windows Server 2008", ImplVm::kWindows}},
    {L"windows7srv", kBegins, {L"Windows Server 2008 R2", ImplVm::kWindows}},
    {L"winhyperv", kBegins, {L"Windows Hyper-V", ImplVm::kWindows}},
    {L"windows8srv", kBegins, {L"Windows Server 2012", ImplVm::kWindows}},
    {L"windows7", kBegins, {L"Windows 7", ImplVm::kWindows}},
    {L"windows8", kBegins, {L"Windows 8", ImplVm::kWindows}},
    {L"asianux", kBegins, {L"Asianux", ImplVm::kLinux}},
    {L"centos", kBegins, {L"Cent OS", ImplVm::kLinux}},
    {L"debian", kBegins, {L"Debian", ImplVm::kLinux}},
    {L"fedora", kBegins, {L"Fedora", ImplVm::kLinux}},
    {L"mandrake", kBegins, {L"Mandrake Linux", ImplVm::kLinux}},
    {L"mandriva", kBegins, {L"Mandriva", ImplVm::kLinux}},
    {L"nld", kBegins, {L"Novell Linux Desktop", ImplVm::kLinux}},
    {L"opensuse", kBegins, {L"Open Suse", ImplVm::kLinux}},
    {L"oraclelinux", kBegins, {L"Oracle Enterprise Linux", ImplVm::kLinux}},
    {L"redhat", kBegins, {L"Red Hat Linux", ImplVm::kLinux}},
    {L"rhel", kBegins, {L"Red Hat Enterprise Linux", ImplVm::kLinux}},
    {L"sjds", kBegins, {L"Sun Java Desktop System", ImplVm::kLinux}},
    {L"suse", kBegins, {L"SUSE Linux", ImplVm::kLinux}},
    {L"sles", kBegins, {L"Suse Linux Enterprise", ImplVm::kLinux}},
    {L"turbolinux", kBegins, {L"Turbolinux", ImplVm::kLinux}},
    {L"ubuntu", kBegins, {L"Ubuntu Linux", ImplVm::kLinux}},
    {L"other26xlinux", kBegins, {L"Linux 2.6", ImplVm::kLinux}},
    {L"other24xlinux", kBegins, {L"Linux 2.4", ImplVm::kLinux}},
    {L"other22xlinux", kBegins, {L"Linux 2.2", ImplVm::kLinux}},
    {L"darwin", kBegins, {L"Mac OS X", ImplVm::kMacOs}},
    {L"netware", kBegins, {L"NetWare", ImplVm::kOtherOs}},
    {L"solaris", kBegins, {L"Solaris", ImplVm::kOtherOs}},
    {L"vmkernel", kBegins, {L"VMware ESX", ImplVm::kOtherOs}},
};
static_assert(ImplVm::FirstShadowedRule(kGuestOsTable) == std::size(kGuestOsTable));
constexpr GuestOs kUnknownGuest = {L"Unknown OS", ImplVm::kOtherOs};

// "connectionType" values, compared exactly; any other gives no "Type".
constexpr ImplVm::TextRule<ImplVm::Attachment> kConnectionTable[] = {
    {L"nat", kIs, ImplVm::kNat},
    {L"bridged", kIs, ImplVm::kBridged},
    {L"hostonly", kIs, ImplVm::kHostOnly},
};

// vmx text of the VM; `vmPath` becomes the VM folder when the .vmx had to be
// searched for. Returns 0 with `searchGaveUp` set when the folder holds more
// than one .vmx: which of them is meant cannot be told.
int ReadVmx(std::wstring& vmPath, const std::wstring& fileName, bool isVmxPath, std::wstring& vmx,
            bool& searchGaveUp) {
    searchGaveUp = false;
    const std::wstring direct = isVmxPath ? vmPath : vmPath + L"/" + fileName + L".vmx";
    if (KALDO::CFileUtils::ReadFromTextFile(direct, vmx) >= 0) return 0;

    if (isVmxPath) vmPath = vmPath.substr(0, vmPath.rfind(L'/'));
    std::wstring folder = vmPath;
    typeProperty files;
    const int listed = KALDO::CFileUtils::POSIX_ListFilesInDirectory(folder, files, 0, 32, 0, 0);
    if (listed < 0) return 0;  // no text: the missing displayName reports it

    int count = 0;
    files.getVecSize(count);
    std::wstring baseName;
    bool found = false;
    for (int i = 0; i < count; ++i) {
        std::wstring entry;
        if (files.getVecVal(i, entry) < 0 || !CStringUtils::EndsWith(entry, L".vmx", 0)) continue;
        if (found) {
            searchGaveUp = true;
            return listed;
        }
        found = true;
        baseName = entry.substr(0, entry.size() - 4);
        baseName = baseName.substr(baseName.rfind(L'/') + 1);
    }
    if (!found) return 0;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(vmPath + L"/" + baseName + L".vmx", vmx);
    return rc < 0 ? IMPLVM_FAIL(rc) : 0;
}

// The start of the last occurrence of needle in text, or npos. rfind tries
// the whole needle at every position from the end; over a log of hundreds of
// megabytes a skipping search (Horspool's, mirrored) costs a fraction of
// that. shift[c]: how far the window may move left when the text character
// at its start is c, i.e. the nearest later position of c in the needle;
// characters share a slot by their low byte, keeping the smallest shift.
size_t FindLast(const std::wstring& text, std::wstring_view needle) {
    const size_t n = needle.size();
    if (n == 0 || n > text.size()) return n == 0 ? text.size() : npos;
    std::array<size_t, 256> shift;
    shift.fill(n);
    for (size_t i = n - 1; i > 0; --i) shift[needle[i] & 0xFF] = i;
    for (size_t start = text.size() - n;;) {
        if (text[start] == needle[0] && std::wstring_view(text).substr(start, n) == needle)
            return start;
        const size_t step = shift[text[start] & 0xFF];
        if (start < step) return npos;
        start -= step;
    }
}

// A VM that Fusion paused through its automation interface logs
// "pause = TRUE" and, once resumed, "pause = FALSE". Only the last TRUE
// matters: without a later FALSE the VM is paused.
bool PausedByLog(const std::wstring& log) {
    const size_t pauseOn = FindLast(log, L"VMAutomation_Pause: pause = TRUE");
    return pauseOn != npos && log.find(L"VMAutomation_Pause: pause = FALSE", pauseOn) == npos;
}

// Fusion 4 and later: the .vmx's vmState names the suspend file while the VM
// is suspended; with no vmState a running VM shows in the process table and
// its log tells running from paused.
int StateFromVmxAndLog(const std::wstring& vmx, const std::wstring& vmPath, int fusionMajorVersion,
                       int& state) {
    const std::wstring vmState = VmxValue(vmx, L"vmState");
    if (!vmState.empty()) {
        state = vmState.find(L".vmss") != npos ? ImplVm::kSuspended : ImplVm::kStopped;
        return ImplVm::kDone;
    }
    std::wstring listing;
    KALDO::CProcessUtils::GetProcessListing_MAC(listing, "wwax");
    if (listing.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    if (listing.find(vmPath) == npos) {
        state = ImplVm::kStopped;
        return ImplVm::kDone;
    }
    // Fusion 4 names a VM by its bundle folder, later versions by its .vmx.
    const std::wstring vmFolder =
        fusionMajorVersion == 4 ? vmPath : vmPath.substr(0, vmPath.rfind(L'/'));
    std::wstring log;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(vmFolder + L"/vmware.log", log);
    if (rc < 0) return IMPLVM_FAIL(rc);
    state = PausedByLog(log) ? ImplVm::kSuspended : ImplVm::kRunning;
    return ImplVm::kDone;
}

// Before Fusion 4: the memory file exists while the VM is running or
// suspended, its lock only while it runs.
int StateFromMemoryFiles(const std::wstring& vmFolder, int& state) {
    std::vector<std::wstring> names;
    const int rc = KALDO::CFileUtils::GetDirectoryList(vmFolder, names);
    if (rc < 0) return IMPLVM_FAIL(rc);
    bool memory = false;
    bool lock = false;
    for (const std::wstring& name : names) {
        if (CStringUtils::EndsWith(name, L".vmem", 0)) memory = true;
        if (CStringUtils::EndsWith(name, L".vmem.lck", 0)) lock = true;
    }
    state = !memory ? ImplVm::kStopped : (lock ? ImplVm::kRunning : ImplVm::kSuspended);
    return ImplVm::kDone;
}

// The adapter keys the reader uses, `ethernetN.<field> = "`.
enum AdapterField { kPresent, kConnectionType, kStartConnected, kAdapterFields };
constexpr std::wstring_view kAdapterFieldMarkers[kAdapterFields] = {
    L"present = \"", L"connectionType = \"", L"startConnected = \""};

struct AdapterValues {
    std::array<std::wstring_view, kAdapterFields> value;  // "" where missing or unterminated
    std::array<bool, kAdapterFields> seen{};
};

// Every adapter key of a .vmx in one pass, with the value VmxValue would
// give it: that of the key's first occurrence anywhere in the text (a longer
// key ending in it counts too), ASCII letters in any case, up to the quote
// that ends its line. Asking VmxValue for each key in turn would rescan the
// file per adapter, quadratic in the number of adapters. Indexed by adapter
// number; the values point into the text. Only numbers the reader can reach
// are kept: adapters 0 to n all need their own "present" key.
std::vector<AdapterValues> ScanAdapters(std::wstring_view vmx) {
    std::vector<AdapterValues> adapters;
    const size_t reachable =
        vmx.size() / (L"ethernet0." + std::wstring(kAdapterFieldMarkers[kPresent])).size();
    constexpr std::wstring_view kEthernet = L"ethernet";
    // The end of the value that starts at `from`: the next quote before a
    // line end (npos: none). Values start further on each time, so one
    // answer serves until a value starts past it.
    size_t valueEnd = 0;
    bool known = false;
    const auto endOfValueFrom = [&](size_t from) {
        if (known && (valueEnd == npos || valueEnd >= from)) return valueEnd;
        known = true;
        for (valueEnd = vmx.find(L'"', from); valueEnd != npos;
             valueEnd = vmx.find(L'"', valueEnd + 1)) {
            const std::wstring_view after = vmx.substr(valueEnd + 1, 2);
            if (after.starts_with(L'\n') || after == L"\r\n") break;
        }
        return valueEnd;
    };
    for (size_t at = 0; at + kEthernet.size() <= vmx.size(); ++at) {
        if ((vmx[at] | 0x20) != L'e') continue;
        int n = 0;
        size_t p = ImplVm::NumberedKeyAt(vmx, at, kEthernet, n);
        if (p == npos || p >= vmx.size() || vmx[p] != L'.' || static_cast<size_t>(n) >= reachable)
            continue;
        ++p;
        for (int f = 0; f < kAdapterFields; ++f) {
            if (!ImplVm::MatchesFoldedAt(vmx, p, kAdapterFieldMarkers[f])) continue;
            if (static_cast<size_t>(n) >= adapters.size())
                adapters.resize(static_cast<size_t>(n) + 1);
            AdapterValues& values = adapters[static_cast<size_t>(n)];
            if (values.seen[f]) break;
            values.seen[f] = true;
            const size_t start = p + kAdapterFieldMarkers[f].size();
            const size_t end = endOfValueFrom(start);
            if (end != npos) values.value[f] = vmx.substr(start, end - start);
            break;
        }
    }
    return adapters;
}

// An adapter the reader lists: its number and what its record says.
struct Adapter {
    size_t number;
    ImplVm::Attachment type;  // kOtherAttachment: no "Type"
    bool connected;
};

// ethernet0, ethernet1, ... up to the first index without a "present" key;
// a "FALSE" one is left out but keeps its number.
std::vector<Adapter> ListAdapters(std::wstring_view vmx) {
    const std::vector<AdapterValues> keys = ScanAdapters(vmx);
    std::vector<Adapter> adapters;
    for (size_t n = 0; n < keys.size(); ++n) {
        const AdapterValues& values = keys[n];
        const std::wstring_view present = values.value[kPresent];
        if (present.empty()) break;
        if (present == L"FALSE") continue;
        const ImplVm::Attachment type = ImplVm::FirstMatch(
            kConnectionTable, values.value[kConnectionType], ImplVm::kOtherAttachment);
        adapters.push_back({n, type, values.value[kStartConnected] != L"FALSE"});
    }
    return adapters;
}

// The "Networks" records of the listed adapters.
typeProperty AdapterRecords(const std::vector<Adapter>& adapters) {
    // The keys made once: a VM may have many thousands of adapters.
    static const std::wstring kName = L"Name", kType = L"Type", kIsConnected = L"IsConnected",
                              kMacAddress = L"MacAddress";
    typeProperty networks;
    std::wstring name = L"Network";  // "Network", then "Network 2", ...; made in place
    const size_t stem = name.size();
    for (const Adapter& a : adapters) {
        name.resize(stem);
        if (a.number > 0) (name += L' ') += CStringUtils::I32ToStr(static_cast<int>(a.number) + 1);
        typeProperty adapter;
        adapter.addMapVal(kName, name);
        if (a.type != ImplVm::kOtherAttachment) adapter.addMapVal(kType, a.type);
        adapter.addMapVal(kIsConnected, a.connected ? 1 : 0);
        adapter.addMapVal(kMacAddress, std::wstring());
        networks.addVecVal(std::move(adapter));
    }
    return networks;
}

// Reads "Name" and fills `description` for it; failures are recorded here.
int ReadDescription(const KALDO::CSoftwareVersion* version, const typeProperty* inputs,
                    std::wstring& name, typeProperty& description) {
    int rc = ImplVm::ReadInput(inputs, L"Name", name);
    if (rc < 0) return IMPLVM_FAIL(rc);
    rc = VirtualMachineImpl_VmWareFusion1_GetInfoForVm(
        name, &description, KALDO::CGeneralUtils::GetMajorVersion(version));
    if (rc < 0) return IMPLVM_FAIL(rc);
    return 0;
}

// ---- vmrun ----

// How vmrun's answer after a failing exit maps to a result code; no rule
// that holds means the action counts as done. vmrun's messages begin its
// output, letters as written.
using VmrunRule = ImplVm::TextRule<int>;
constexpr Where kOpens = Where::kStart;

constexpr VmrunRule kPowerAnswers[] = {
    {L"Error: Cannot open VM", kOpens, ImplVm::kNotFound},
    {L"Error: The virtual machine cannot be found", kOpens, ImplVm::kNotFound},
    {L"Error: Cannot lock VM", kOpens, ImplVm::kLocked},
    {L"Error", kOpens, ImplVm::kFailed},
};

constexpr VmrunRule kSnapshotAnswers[] = {
    {L"Error: The state of the virtual machine has not changed since the last snapshot "
     L"operation",
     Where::kAnywhere, ImplVm::kUnchanged},
    {L"Error: Cannot open VM", kOpens, ImplVm::kNotFound},
    {L"Error: A file by that name does not exist", kOpens, ImplVm::kNotFound},
    {L"Error: The snapshot does not exist", kOpens, ImplVm::kNotFound},
    {L"Error: The virtual machine cannot be found", kOpens, ImplVm::kNotFound},
    {L"Error: The name does not uniquely identify one snapshot", kOpens, ImplVm::kRefused},
    {L"Error: Cannot lock VM", kOpens, ImplVm::kLocked},
};

// What listSnapshots printed, whatever its exit status.
constexpr VmrunRule kSnapshotListAnswers[] = {
    {L"Error: Cannot open VM", kOpens, ImplVm::kNotFound},
    {L"Total snapshots:", Where::kAbsent, ImplVm::kFailed},
};

static_assert(ImplVm::FirstShadowedRule(kPowerAnswers) == std::size(kPowerAnswers));
static_assert(ImplVm::FirstShadowedRule(kSnapshotAnswers) == std::size(kSnapshotAnswers));

int RunVmrun(const std::vector<std::wstring>& args, std::span<const VmrunRule> answers) {
    int exitCode = 0;
    std::wstring out;
    // Every run here changes the VM (power, snapshots): an action's time limit.
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(kVmrun, args, exitCode, &out, nullptr,
                                                           nullptr, {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode == 0) return ImplVm::kDone;
    return IMPLVM_RECORD(ImplVm::FirstMatch(answers, out, ImplVm::kDone));
}

// StopVM and SuspendVM: nothing to do in `doneState`; in `startFirstState`
// the VM is started (resumed) before `action` is run on it.
int DriveVm(const KALDO::CSoftwareVersion* version, const typeProperty* inputs,
            ImplVm::VmState doneState, ImplVm::VmState startFirstState, const wchar_t* action) {
    std::wstring name;
    typeProperty description;
    int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    int state = 0;
    rc = description.getMapVal(L"State", state);
    if (rc < 0) return IMPLVM_FAIL(rc);

    if (state == doneState) return 0;
    if (state == startFirstState) {
        rc = IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(L"start", name));
        if (rc < 0) return rc;
    }
    return IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(action, name));
}

int ChangeSnapshot(const typeProperty* inputs, const wchar_t* action) {
    std::wstring name;
    int rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Name", name));
    if (rc < 0) return rc;
    std::wstring snapshot;
    rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Snapshot", snapshot));
    if (rc < 0) return rc;
    return IMPLVM_RECORD(ControlSnapshot(name, action, snapshot));
}

}  // namespace

// ---- Library ----

int VirtualMachineImpl_VmWareFusion1_GetAllVms(std::vector<std::wstring>& vmxPaths) try {
    std::wstring home;
    int rc = KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    std::wstring path = home + kPreferences;
    typeProperty preferences;
    rc = KALDO::CAppleUtils::ReadPlistFileToTypePropertyTree(path, preferences);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // Older Fusions keep a list of paths, newer ones a list of records; a
    // library in the older form is never merged with the newer one.
    std::vector<typeProperty> favourites;
    if (preferences.getMapVal(kFavourites, favourites) >= 0) {
        for (const typeProperty& entry : favourites) {
            std::wstring tagged;
            rc = entry.getString(tagged);
            if (rc < 0) return IMPLVM_FAIL(rc);
            AppendUntagged(vmxPaths, tagged);
        }
        return 0;
    }
    if (preferences.getMapVal(kFavourites2, favourites) < 0) return 0;
    for (const typeProperty& entry : favourites) {
        std::wstring tagged;
        rc = entry.lookupString(kFavouritePath, tagged);
        if (rc < 0) return IMPLVM_FAIL(rc);
        AppendUntagged(vmxPaths, tagged);
    }
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                                  const typeProperty*, typeProperty* outputs) try {
    // Whatever the library gave up to a failure is still worth publishing.
    std::vector<std::wstring> vmxPaths;
    VirtualMachineImpl_VmWareFusion1_GetAllVms(vmxPaths);
    ImplVm::WriteVmList(outputs, std::move(vmxPaths));
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs(int, int, int, const KALDO::CSoftwareVersion*,
                                                    const typeProperty*,
                                                    typeProperty* outputs) try {
    std::wstring home;
    const int rc =
        IMPLVM_RECORD(KALDO::CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr));
    if (rc < 0) return rc;
    // A user who never ran Fusion 5 has no inventory: an empty library.
    std::vector<std::wstring> vmxPaths;
    {
        // Let the text go before the output list is built: a large
        // inventory's text is several times the size of the list.
        std::wstring text;
        if (KALDO::CFileUtils::ReadFromTextFile(home + kInventory, text) >= 0)
            vmxPaths = ImplVm::Readers::VmInventoryPaths(text);
    }
    ImplVm::WriteVmList(outputs, std::move(vmxPaths));
    return 0;
}
IMPLVM_BOUNDARY

// ---- .vmx reader ----

int VirtualMachineImpl_VmWareFusion1_GetInfoForVm(const std::wstring& vmIdentifier,
                                                  typeProperty* description,
                                                  int fusionMajorVersion) try {
    description->clear();
    std::wstring drive, folder, fileName, extension;
    int rc = KALDO::rtSplitPath(vmIdentifier, drive, folder, fileName, extension);
    if (rc < 0) return IMPLVM_FAIL(rc);

    // The identifier is a .vmx path or a bundle folder.
    const bool isVmxPath = CStringUtils::EndsWith(vmIdentifier, L".vmx", 0);
    std::wstring vmPath = vmIdentifier;
    std::wstring vmx;
    bool searchGaveUp = false;
    rc = ReadVmx(vmPath, fileName, isVmxPath, vmx, searchGaveUp);
    if (rc < 0 || searchGaveUp) return rc;

    const std::wstring displayName = VmxValue(vmx, L"displayName");
    if (displayName.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    const std::wstring guestOsKey = VmxValue(vmx, L"guestOS");
    if (guestOsKey.empty()) return IMPLVM_RECORD(ImplVm::kFailed);
    const GuestOs guest = ImplVm::FirstMatch(kGuestOsTable, guestOsKey, kUnknownGuest);
    typeProperty os;
    os.addMapVal(L"Type", guest.family);
    os.addMapVal(L"Distribution", std::wstring(guest.name));

    int state = 0;
    rc = fusionMajorVersion >= 4 ? StateFromVmxAndLog(vmx, vmPath, fusionMajorVersion, state)
                                 : StateFromMemoryFiles(isVmxPath ? folder : vmPath, state);
    if (rc < 0) return rc;

    const std::vector<Adapter> adapters = ListAdapters(vmx);
    // The text goes before the records are made: a VM with many adapters
    // would hold both at once.
    std::wstring().swap(vmx);
    const typeProperty networks = AdapterRecords(adapters);
    description->addString(L"UserFriendlyName", displayName);
    description->addSubTree(L"OS", os);
    description->addInteger(L"State", state);
    description->addSubTree(L"Networks", networks);
    return 0;
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_GetVMInfo(int, int, int,
                                               const KALDO::CSoftwareVersion* version,
                                               const typeProperty* inputs,
                                               typeProperty* outputs) try {
    std::wstring name;
    typeProperty description;
    const int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    return ImplVm::CopyDescription(description, {L"UserFriendlyName", L"OS", L"State"}, outputs,
                                   __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_GetVMNetwork(int, int, int,
                                                  const KALDO::CSoftwareVersion* version,
                                                  const typeProperty* inputs,
                                                  typeProperty* outputs) try {
    std::wstring name;
    typeProperty description;
    const int rc = ReadDescription(version, inputs, name, description);
    if (rc < 0) return rc;
    return ImplVm::CopyDescription(description, {L"Networks"}, outputs, __FILE__, __LINE__);
}
IMPLVM_BOUNDARY

// ---- Power actions ----

int VirtualMachineImpl_VmwareFusion_PerformVMAction(const std::wstring& action,
                                                    const std::wstring& vmPath) try {
    return RunVmrun({action, vmPath}, kPowerAnswers);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_StartVM(int, int, int, const KALDO::CSoftwareVersion*,
                                             const typeProperty* inputs, typeProperty*) try {
    std::wstring name;
    const int rc = ImplVm::ReadInput(inputs, L"Name", name);
    if (rc < 0) return IMPLVM_FAIL(rc);
    return IMPLVM_RECORD(VirtualMachineImpl_VmwareFusion_PerformVMAction(L"start", name));
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_StopVM(int, int, int, const KALDO::CSoftwareVersion* version,
                                            const typeProperty* inputs, typeProperty*) try {
    // A suspended VM is resumed so that it can be shut down.
    return DriveVm(version, inputs, ImplVm::kStopped, ImplVm::kSuspended, L"stop");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_SuspendVM(int, int, int,
                                               const KALDO::CSoftwareVersion* version,
                                               const typeProperty* inputs, typeProperty*) try {
    // A stopped VM is started so that it can be suspended.
    return DriveVm(version, inputs, ImplVm::kSuspended, ImplVm::kStopped, L"suspend");
}
IMPLVM_BOUNDARY

// ---- Snapshots ----

int ControlSnapshot(const std::wstring& vmName, const std::wstring& action,
                    const std::wstring& snapshotName) try {
    return RunVmrun({action, vmName, snapshotName}, kSnapshotAnswers);
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_AddSnapshot(int, int, int, const KALDO::CSoftwareVersion*,
                                                 const typeProperty* inputs, typeProperty*) try {
    return ChangeSnapshot(inputs, L"snapshot");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_DeleteSnapshot(int, int, int, const KALDO::CSoftwareVersion*,
                                                    const typeProperty* inputs, typeProperty*) try {
    return ChangeSnapshot(inputs, L"deleteSnapshot");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion4_ListSnapshots(int, int, int, const KALDO::CSoftwareVersion*,
                                                   const typeProperty* inputs,
                                                   typeProperty* outputs) try {
    std::wstring name;
    int rc = IMPLVM_RECORD(ImplVm::ReadInput(inputs, L"Name", name));
    if (rc < 0) return rc;
    int exitCode = 0;
    std::wstring out;
    rc = KALDO::CProcessUtils::ExecuteSafeToText(kVmrun, {L"listSnapshots", name}, exitCode, &out,
                                                 nullptr, nullptr);
    if (rc < 0) return IMPLVM_FAIL(rc);
    rc = ImplVm::FirstMatch(kSnapshotListAnswers, out, ImplVm::kDone);
    if (rc < 0) return IMPLVM_RECORD(rc);

    // vmrun ends its lines with CR LF; the first line is the count.
    const std::vector<std::wstring> lines = CStringUtils::Separate(out, L"\r\n");
    typeProperty snapshots;
    snapshots.changeTypeToVec();
    typeProperty entry;
    for (size_t i = 1; i < lines.size(); ++i) {
        entry.addMapVal(L"Snapshot", lines[i]);
        snapshots.addVecVal(entry);
    }
    outputs->addSubTree(L"Snapshots", snapshots);
    return 0;
}
IMPLVM_BOUNDARY
