// VMware Fusion: the VM library (preferences list or vmInventory), the .vmx
// reader with its guest-OS table and power-state rules, and the power and
// snapshot actions through vmrun.
#include <array>
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

constexpr std::wstring_view kConfigBegin = L"config = \"";
constexpr std::wstring_view kConfigEnd = L"\"";

// The vmInventory names each VM on a `vmlistN.config = "<path>"` line. After
// a value the scan resumes past the first occurrence of that value in what
// is left (not past its marker), and an empty `config = ""` is stepped over;
// a last entry without its closing quote ends the scan. Positions stand in
// for the remaining text, so the walk costs the file's length, not a copy
// of its tail per entry.
void ScanInventory(const std::wstring& text, std::vector<std::wstring>& vmxPaths) {
    size_t from = 0;
    for (;;) {
        size_t valuePos = npos;
        std::wstring value = CStringUtils::ExtractStringBetweenEnhance(text, kConfigBegin,
                                                                       kConfigEnd, from, &valuePos);
        if (valuePos == npos) return;
        if (value.empty()) {
            from = valuePos + kConfigEnd.size();
            continue;
        }
        from = text.find(value, from) + value.size();
        vmxPaths.push_back(std::move(value));
    }
}

// ---- .vmx reader ----

// A .vmx value: `key = "value"` up to the quote that ends its line. The
// search takes the first match anywhere in the text, as Fusion's own lookup
// of a key name does.
std::wstring VmxValue(const std::wstring& vmx, const std::wstring& key) {
    return CStringUtils::ParseSubstringFromString(vmx, L"", key + L" = \"", L"\"\n", nullptr);
}

struct GuestOs {
    const wchar_t* key;
    bool exact;  // else: the guestOS value begins with key
    const wchar_t* name;
    int type;  // 0 other, 1 Linux, 2 Mac OS X, 3 Windows
};

// Tested top to bottom, first match wins: the longer keys stand before the
// keys they begin with ("winxppro-64" before "winxp", "windows7srv" before
// "windows7").
constexpr GuestOs kGuestOsTable[] = {
    {L"win31", true, L"Windows 3.11", 3},
    {L"win95", true, L"Windows 95", 3},
    {L"win98", true, L"Windows 98", 3},
    {L"winme", true, L"Windows ME", 3},
    {L"winnt", true, L"Windows NT", 3},
    {L"win2000", false, L"Windows 2000", 3},
    {L"winxppro-64", false, L"Windows XP x64 Edition", 3},
    {L"winxp", false, L"Windows XP", 3},
    {L"winnet", false, L"Windows Server 2003", 3},
    {L"winvista", false, L"Windows Vista", 3},
    {L"longhorn", false, L"Windows Server 2008", 3},
    {L"windows7srv", false, L"Windows Server 2008 R2", 3},
    {L"winhyperv", false, L"Windows Hyper-V", 3},
    {L"windows8srv", false, L"Windows Server 2012", 3},
    {L"windows7", false, L"Windows 7", 3},
    {L"windows8", false, L"Windows 8", 3},
    {L"asianux", false, L"Asianux", 1},
    {L"centos", false, L"Cent OS", 1},
    {L"debian", false, L"Debian", 1},
    {L"fedora", false, L"Fedora", 1},
    {L"mandrake", false, L"Mandrake Linux", 1},
    {L"mandriva", false, L"Mandriva", 1},
    {L"nld", false, L"Novell Linux Desktop", 1},
    {L"opensuse", false, L"Open Suse", 1},
    {L"oraclelinux", false, L"Oracle Enterprise Linux", 1},
    {L"redhat", false, L"Red Hat Linux", 1},
    {L"rhel", false, L"Red Hat Enterprise Linux", 1},
    {L"sjds", false, L"Sun Java Desktop System", 1},
    {L"suse", false, L"SUSE Linux", 1},
    {L"sles", false, L"Suse Linux Enterprise", 1},
    {L"turbolinux", false, L"Turbolinux", 1},
    {L"ubuntu", false, L"Ubuntu Linux", 1},
    {L"other26xlinux", false, L"Linux 2.6", 1},
    {L"other24xlinux", false, L"Linux 2.4", 1},
    {L"other22xlinux", false, L"Linux 2.2", 1},
    {L"darwin", false, L"Mac OS X", 2},
    {L"netware", false, L"NetWare", 0},
    {L"solaris", false, L"Solaris", 0},
    {L"vmkernel", false, L"VMware ESX", 0},
};
constexpr GuestOs kUnknownGuest = {L"", false, L"Unknown OS", 0};

const GuestOs& LookUpGuest(const std::wstring& guestOs) {
    for (const GuestOs& row : kGuestOsTable) {
        if (row.exact ? guestOs == row.key : CStringUtils::BeginsWith(guestOs, row.key, 0))
            return row;
    }
    return kUnknownGuest;
}

struct Connection {
    const wchar_t* value;  // compared exactly
    int type;
};
constexpr Connection kConnectionTable[] = {{L"nat", 1}, {L"bridged", 2}, {L"hostonly", 3}};

constexpr int kRunning = 1;
constexpr int kSuspended = 2;
constexpr int kStopped = 3;

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
// matters; the power-change search starts at the FALSE match, so a TRUE
// without a later FALSE always reads as paused.
bool PausedByLog(const std::wstring& log) {
    const size_t pauseOn = FindLast(log, L"VMAutomation_Pause: pause = TRUE");
    if (pauseOn == npos) return false;
    const size_t pauseOff = log.find(L"VMAutomation_Pause: pause = FALSE", pauseOn);
    const bool resumed =
        pauseOff != npos || log.find(L"VMAutomationReportPowerStateChange", pauseOff) != npos;
    return !resumed;
}

// Fusion 4 and later: the .vmx's vmState names the suspend file while the VM
// is suspended; with no vmState a running VM shows in the process table and
// its log tells running from paused.
int StateFromVmxAndLog(const std::wstring& vmx, const std::wstring& vmPath, int fusionMajorVersion,
                       int& state) {
    const std::wstring vmState = VmxValue(vmx, L"vmState");
    if (!vmState.empty()) {
        state = vmState.find(L".vmss") != npos ? kSuspended : kStopped;
        return 0;
    }
    std::wstring listing;
    KALDO::CProcessUtils::GetProcessListing_MAC(listing, "wwax");
    if (listing.empty()) return IMPLVM_RECORD(-1);
    if (listing.find(vmPath) == npos) {
        state = kStopped;
        return 0;
    }
    // Fusion 4 names a VM by its bundle folder, later versions by its .vmx.
    const std::wstring vmFolder =
        fusionMajorVersion == 4 ? vmPath : vmPath.substr(0, vmPath.rfind(L'/'));
    std::wstring log;
    const int rc = KALDO::CFileUtils::ReadFromTextFile(vmFolder + L"/vmware.log", log);
    if (rc < 0) return IMPLVM_FAIL(rc);
    state = PausedByLog(log) ? kSuspended : kRunning;
    return 0;
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
    state = !memory ? kStopped : (lock ? kRunning : kSuspended);
    return 0;
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
    int type;  // 0: no "Type"
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
        int type = 0;
        for (const Connection& row : kConnectionTable) {
            if (values.value[kConnectionType] == row.value) {
                type = row.type;
                break;
            }
        }
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
        if (a.type != 0) adapter.addMapVal(kType, a.type);
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

// How vmrun's first words after a failing exit map to a result code; the
// first row that holds wins, no row means the action counts as done.
struct VmrunAnswer {
    const wchar_t* text;
    bool anywhere;  // else: the output begins with text
    int code;
};

constexpr VmrunAnswer kPowerAnswers[] = {
    {L"Error: Cannot open VM", false, -6},
    {L"Error: The virtual machine cannot be found", false, -6},
    {L"Error: Cannot lock VM", false, -32},
    {L"Error", false, -1},
};

constexpr VmrunAnswer kSnapshotAnswers[] = {
    {L"Error: The state of the virtual machine has not changed since the last snapshot "
     L"operation",
     true, -5},
    {L"Error: Cannot open VM", false, -6},
    {L"Error: A file by that name does not exist", false, -6},
    {L"Error: The snapshot does not exist", false, -6},
    {L"Error: The virtual machine cannot be found", false, -6},
    {L"Error: The name does not uniquely identify one snapshot", false, -4},
    {L"Error: Cannot lock VM", false, -32},
};

int RunVmrun(const std::vector<std::wstring>& args, std::span<const VmrunAnswer> answers) {
    int exitCode = 0;
    std::wstring out;
    // Every run here changes the VM (power, snapshots): an action's time limit.
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(kVmrun, args, exitCode, &out, nullptr,
                                                           nullptr, {.isAction = true});
    if (rc < 0) return IMPLVM_FAIL(rc);
    if (exitCode == 0) return 0;
    for (const VmrunAnswer& answer : answers) {
        const bool holds = answer.anywhere ? out.find(answer.text) != npos
                                           : CStringUtils::BeginsWith(out, answer.text, 1);
        if (holds) return IMPLVM_RECORD(answer.code);
    }
    return 0;
}

// StopVM and SuspendVM: nothing to do in `doneState`; in `startFirstState`
// the VM is started (resumed) before `action` is run on it.
int DriveVm(const KALDO::CSoftwareVersion* version, const typeProperty* inputs, int doneState,
            int startFirstState, const wchar_t* action) {
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
            ScanInventory(text, vmxPaths);
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
    if (displayName.empty()) return IMPLVM_RECORD(-1);
    const std::wstring guestOsKey = VmxValue(vmx, L"guestOS");
    if (guestOsKey.empty()) return IMPLVM_RECORD(-1);
    const GuestOs& guest = LookUpGuest(guestOsKey);
    typeProperty os;
    os.addMapVal(L"Type", guest.type);
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
    return DriveVm(version, inputs, kStopped, kSuspended, L"stop");
}
IMPLVM_BOUNDARY

int VirtualMachineImpl_VmWareFusion1_SuspendVM(int, int, int,
                                               const KALDO::CSoftwareVersion* version,
                                               const typeProperty* inputs, typeProperty*) try {
    // A stopped VM is started so that it can be suspended.
    return DriveVm(version, inputs, kSuspended, kStopped, L"suspend");
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
    if (CStringUtils::BeginsWith(out, L"Error: Cannot open VM", 1)) return IMPLVM_RECORD(-6);
    if (out.find(L"Total snapshots:") == npos) return IMPLVM_RECORD(-1);

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
