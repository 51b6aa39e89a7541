// VMware Fusion's texts: the VM library (vmInventory, the preferences
// tree), the .vmx with its guest-OS table and adapters, the signs of a VM's
// state (vmware.log, the memory files) and vmrun's answers.
#include <array>
#include <climits>
#include <iterator>

#include "KALDO/CStringUtils.h"
#include "Readers.h"
#include "TextRules.h"

using KALDO::CStringUtils;
using KALDO::typeProperty;

namespace ImplVm::Readers {

namespace {

constexpr size_t npos = std::wstring::npos;

// ---- Library ----

constexpr std::wstring_view kConfigBegin = L"config = \"";
constexpr std::wstring_view kConfigEnd = L"\"";

// Every key and string of the preferences tree carries the plist reader's
// two character type tag ("\s"); values are taken without it.
constexpr const wchar_t* kFavourites = L"\\sVMFavoritesListDefaults";
constexpr const wchar_t* kFavourites2 = L"\\sVMFavoritesListDefaults2";
constexpr const wchar_t* kFavouritePath = L"\\spath";

void AppendUntagged(std::vector<std::wstring>& vmxPaths, const std::wstring& tagged) {
    if (tagged.size() > 1) vmxPaths.push_back(tagged.substr(2));
}

// ---- .vmx ----

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
    OsFamily family;
};

constexpr Where kIs = Where::kWhole;
constexpr Where kBegins = Where::kStartAnyCase;

// First match wins: a longer key stands before a key it begins with
// ("winxppro-64" before "winxp", "windows7srv" before "windows7").
constexpr TextRule<GuestOs> kGuestOsTable[] = {
    {L"win31", kIs, {L"Windows 3.11", kWindows}},
    {L"win95", kIs, {L"Windows 95", kWindows}},
    {L"win98", kIs, {L"Windows 98", kWindows}},
    {L"winme", kIs, {L"Windows ME", kWindows}},
    {L"winnt", kIs, {L"Windows NT", kWindows}},
    {L"win2000", kBegins, {L"Windows 2000", kWindows}},
    {L"winxppro-64", kBegins, {L"Windows XP x64 Edition", kWindows}},
    {L"winxp", kBegins, {L"Windows XP", kWindows}},
    {L"winnet", kBegins, {L"Windows Server 2003", kWindows}},
    {L"winvista", kBegins, {L"Windows Vista", kWindows}},
    {L"longhorn", kBegins, {L"Windows Server 2008", kWindows}},
    {L"windows7srv", kBegins, {L"Windows Server 2008 R2", kWindows}},
    {L"winhyperv", kBegins, {L"Windows Hyper-V", kWindows}},
    {L"windows8srv", kBegins, {L"Windows Server 2012", kWindows}},
    {L"windows7", kBegins, {L"Windows 7", kWindows}},
    {L"windows8", kBegins, {L"Windows 8", kWindows}},
    {L"asianux", kBegins, {L"Asianux", kLinux}},
    {L"centos", kBegins, {L"Cent OS", kLinux}},
    {L"debian", kBegins, {L"Debian", kLinux}},
    {L"fedora", kBegins, {L"Fedora", kLinux}},
    {L"mandrake", kBegins, {L"Mandrake Linux", kLinux}},
    {L"mandriva", kBegins, {L"Mandriva", kLinux}},
    {L"nld", kBegins, {L"Novell Linux Desktop", kLinux}},
    {L"opensuse", kBegins, {L"Open Suse", kLinux}},
    {L"oraclelinux", kBegins, {L"Oracle Enterprise Linux", kLinux}},
    {L"redhat", kBegins, {L"Red Hat Linux", kLinux}},
    {L"rhel", kBegins, {L"Red Hat Enterprise Linux", kLinux}},
    {L"sjds", kBegins, {L"Sun Java Desktop System", kLinux}},
    {L"suse", kBegins, {L"SUSE Linux", kLinux}},
    {L"sles", kBegins, {L"Suse Linux Enterprise", kLinux}},
    {L"turbolinux", kBegins, {L"Turbolinux", kLinux}},
    {L"ubuntu", kBegins, {L"Ubuntu Linux", kLinux}},
    {L"other26xlinux", kBegins, {L"Linux 2.6", kLinux}},
    {L"other24xlinux", kBegins, {L"Linux 2.4", kLinux}},
    {L"other22xlinux", kBegins, {L"Linux 2.2", kLinux}},
    {L"darwin", kBegins, {L"Mac OS X", kMacOs}},
    {L"netware", kBegins, {L"NetWare", kOtherOs}},
    {L"solaris", kBegins, {L"Solaris", kOtherOs}},
    {L"vmkernel", kBegins, {L"VMware ESX", kOtherOs}},
};
static_assert(FirstShadowedRule(kGuestOsTable) == std::size(kGuestOsTable));
constexpr GuestOs kUnknownGuest = {L"Unknown OS", kOtherOs};

// "connectionType" values, compared exactly; any other gives no "Type".
constexpr TextRule<Attachment> kConnectionTable[] = {
    {L"nat", kIs, kNat},
    {L"bridged", kIs, kBridged},
    {L"hostonly", kIs, kHostOnly},
};

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
        size_t p = NumberedKeyAt(vmx, at, kEthernet, n);
        if (p == npos || p >= vmx.size() || vmx[p] != L'.' || static_cast<size_t>(n) >= reachable)
            continue;
        ++p;
        for (int f = 0; f < kAdapterFields; ++f) {
            if (!StartsAnyCase(vmx.substr(p), kAdapterFieldMarkers[f])) continue;
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
    Attachment type;  // kOtherAttachment: no "Type"
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
        const Attachment type =
            FirstMatch(kConnectionTable, values.value[kConnectionType], kOtherAttachment);
        adapters.push_back({n, type, values.value[kStartConnected] != L"FALSE"});
    }
    return adapters;
}

// The "Networks" records of the listed adapters; untyped when there are
// none.
typeProperty AdapterRecords(const std::vector<Adapter>& adapters) {
    typeProperty networks;
    std::wstring name = L"Network";  // "Network", then "Network 2", ...; made in place
    const size_t stem = name.size();
    for (const Adapter& a : adapters) {
        name.resize(stem);
        if (a.number > 0) (name += L' ') += CStringUtils::I32ToStr(static_cast<int>(a.number) + 1);
        networks.addVecVal(AdapterRecord(
            name, a.type != kOtherAttachment ? std::optional(a.type) : std::nullopt, a.connected));
    }
    return networks;
}

// ---- State ----

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

// ---- vmrun ----

// vmrun's messages begin its output, letters as written.
constexpr Where kOpens = Where::kStart;

constexpr TextRule<int> kPowerAnswers[] = {
    {L"Error: Cannot open VM", kOpens, kNotFound},
    {L"Error: The virtual machine cannot be found", kOpens, kNotFound},
    {L"Error: Cannot lock VM", kOpens, kLocked},
    {L"Error", kOpens, kFailed},
};

constexpr TextRule<int> kSnapshotAnswers[] = {
    {L"Error: The state of the virtual machine has not changed since the last snapshot "
     L"operation",
     Where::kAnywhere, kUnchanged},
    {L"Error: Cannot open VM", kOpens, kNotFound},
    {L"Error: A file by that name does not exist", kOpens, kNotFound},
    {L"Error: The snapshot does not exist", kOpens, kNotFound},
    {L"Error: The virtual machine cannot be found", kOpens, kNotFound},
    {L"Error: The name does not uniquely identify one snapshot", kOpens, kRefused},
    {L"Error: Cannot lock VM", kOpens, kLocked},
};

constexpr TextRule<int> kSnapshotListAnswers[] = {
    {L"Error: Cannot open VM", kOpens, kNotFound},
    {L"Total snapshots:", Where::kAbsent, kFailed},
};

static_assert(FirstShadowedRule(kPowerAnswers) == std::size(kPowerAnswers));
static_assert(FirstShadowedRule(kSnapshotAnswers) == std::size(kSnapshotAnswers));

}  // namespace

// ---- Library ----

// After a value the scan resumes past the first occurrence of that value in
// what is left (not past its marker), and an empty `config = ""` is stepped
// over; a last entry without its closing quote ends the scan. Positions
// stand in for the remaining text, so the walk costs the file's length, not
// a copy of its tail per entry.
std::vector<std::wstring> VmInventoryPaths(const std::wstring& text) {
    std::vector<std::wstring> vmxPaths;
    size_t from = 0;
    for (;;) {
        size_t valuePos = npos;
        std::wstring value = CStringUtils::ExtractStringBetweenEnhance(text, kConfigBegin,
                                                                       kConfigEnd, from, &valuePos);
        if (valuePos == npos) return vmxPaths;
        if (value.empty()) {
            from = valuePos + kConfigEnd.size();
            continue;
        }
        from = text.find(value, from) + value.size();
        vmxPaths.push_back(std::move(value));
    }
}

// Older Fusions keep a list of paths, newer ones a list of records; a
// library in the older form is never merged with the newer one.
int FavouritePaths(const typeProperty& preferences, std::vector<std::wstring>& vmxPaths) {
    std::vector<typeProperty> favourites;
    if (preferences.getMapVal(kFavourites, favourites) >= 0) {
        for (const typeProperty& entry : favourites) {
            std::wstring tagged;
            const int rc = entry.getString(tagged);
            if (rc < 0) return rc;
            AppendUntagged(vmxPaths, tagged);
        }
        return kDone;
    }
    if (preferences.getMapVal(kFavourites2, favourites) < 0) return kDone;
    for (const typeProperty& entry : favourites) {
        std::wstring tagged;
        const int rc = entry.lookupString(kFavouritePath, tagged);
        if (rc < 0) return rc;
        AppendUntagged(vmxPaths, tagged);
    }
    return kDone;
}

// ---- .vmx ----

VmxFacts ReadVmx(std::wstring vmx) {
    VmxFacts facts;
    facts.displayName = VmxValue(vmx, L"displayName");
    facts.guestOs = VmxValue(vmx, L"guestOS");
    const GuestOs guest = FirstMatch(kGuestOsTable, facts.guestOs, kUnknownGuest);
    facts.os.addMapVal(L"Type", guest.family);
    facts.os.addMapVal(L"Distribution", std::wstring(guest.name));
    facts.vmState = VmxValue(vmx, L"vmState");
    const std::vector<Adapter> adapters = ListAdapters(vmx);
    // The text goes before the records are made: a VM with many adapters
    // would hold both at once.
    std::wstring().swap(vmx);
    facts.networks = AdapterRecords(adapters);
    return facts;
}

// ---- State ----

VmState StateFromVmState(std::wstring_view vmState) {
    return vmState.find(L".vmss") != npos ? kSuspended : kStopped;
}

// Only the last TRUE matters: without a later FALSE the VM is paused.
VmState StateFromLog(const std::wstring& log) {
    const size_t pauseOn = FindLast(log, L"VMAutomation_Pause: pause = TRUE");
    const bool paused =
        pauseOn != npos && log.find(L"VMAutomation_Pause: pause = FALSE", pauseOn) == npos;
    return paused ? kSuspended : kRunning;
}

VmState StateFromMemoryFiles(const std::vector<std::wstring>& names) {
    bool memory = false;
    bool lock = false;
    for (const std::wstring& name : names) {
        if (CStringUtils::EndsWith(name, L".vmem", 0)) memory = true;
        if (CStringUtils::EndsWith(name, L".vmem.lck", 0)) lock = true;
    }
    return !memory ? kStopped : (lock ? kRunning : kSuspended);
}

// ---- vmrun ----

int VmrunPowerAnswer(std::wstring_view out) {
    return FirstMatch(kPowerAnswers, out, kDone);
}

int VmrunSnapshotAnswer(std::wstring_view out) {
    return FirstMatch(kSnapshotAnswers, out, kDone);
}

SnapshotList VmrunSnapshotList(const std::wstring& out) {
    SnapshotList list;
    list.code = FirstMatch(kSnapshotListAnswers, out, kDone);
    if (list.code < 0) return list;
    // The first line is the count.
    const std::vector<std::wstring> lines = CStringUtils::Separate(out, L"\r\n");
    list.snapshots.changeTypeToVec();
    typeProperty entry;
    for (size_t i = 1; i < lines.size(); ++i) {
        entry.addMapVal(L"Snapshot", lines[i]);
        list.snapshots.addVecVal(entry);
    }
    return list;
}

}  // namespace ImplVm::Readers
