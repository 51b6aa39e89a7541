// Parallels Desktop's texts: the directory list, a VM's config.pvs, the
// names in its bundle and prlctl's answers. Parallels' XML is searched as
// text, by its tags; no XML parser is involved.
#include <iterator>

#include "KALDO/CStringUtils.h"
#include "Readers.h"
#include "TextRules.h"

using KALDO::CStringUtils;
using KALDO::typeProperty;

namespace ImplVm::Readers {

namespace {

// prlctl's answers that decide a start attempt or an operation, on its
// error text...
constexpr TextRule<int> kRefusals[] = {
    {L"Login failed: Unable to connect to Parallels Service", Where::kAnywhere, kRefused},
    {L"Failed to start the VM: Unable to complete the operation", Where::kAnywhere, kRefused},
};
constexpr TextRule<int> kOperationRefusals[] = {
    {L"Login failed: Unable", Where::kAnywhere, kRefused},
};
// ... and on its output, once it said it is starting the VM.
constexpr std::wstring_view kStarting = L"Starting the VM...";
constexpr TextRule<bool> kStartedAnswers[] = {
    {L"is not stopped", Where::kAnywhere, true},
    {L"The VM has been successfully started", Where::kAnywhere, true},
};

// <OsType> -> "OS"/"Type". Anything else is other.
constexpr TextRule<OsFamily> kOsTypes[] = {
    {L"9", Where::kWhole, kLinux},
    {L"7", Where::kWhole, kMacOs},
    {L"8", Where::kWhole, kWindows},
};

// <OsNumber> -> "OS"/"Distribution". Deliberately closed: every other number
// is reported as Linux, whatever the guest is.
constexpr TextRule<const wchar_t*> kDistributions[] = {
    {L"1794", Where::kWhole, L"Mac OS X Server 10.5"}, {L"2049", Where::kWhole, L"Windows 3.11"},
    {L"2050", Where::kWhole, L"Windows 95"},           {L"2051", Where::kWhole, L"Windows 98"},
    {L"2052", Where::kWhole, L"Windows ME"},           {L"2053", Where::kWhole, L"Windows NT"},
    {L"2054", Where::kWhole, L"Windows 2000"},         {L"2055", Where::kWhole, L"Windows XP"},
    {L"2056", Where::kWhole, L"Windows Server 2003"},  {L"2057", Where::kWhole, L"Windows Vista"},
    {L"2058", Where::kWhole, L"Windows Server 2008"},
};
constexpr const wchar_t* kOtherDistribution = L"Linux";

// <EmulatedType> -> "Networks"/"Type". Any other attachment gets no "Type".
constexpr TextRule<Attachment> kEmulatedTypes[] = {
    {L"0", Where::kWhole, kHostOnly},
    {L"1", Where::kWhole, kNat},
    {L"2", Where::kWhole, kBridged},
};

static_assert(FirstShadowedRule(kRefusals) == std::size(kRefusals));
static_assert(FirstShadowedRule(kStartedAnswers) == std::size(kStartedAnswers));
static_assert(FirstShadowedRule(kOsTypes) == std::size(kOsTypes));
static_assert(FirstShadowedRule(kDistributions) == std::size(kDistributions));
static_assert(FirstShadowedRule(kEmulatedTypes) == std::size(kEmulatedTypes));

// The text between two markers of an element body (no section).
std::wstring ElementText(const std::wstring& body, const wchar_t* open, const wchar_t* close) {
    return CStringUtils::ParseSubstringFromString(body, L"", open, close, nullptr);
}

// The text of an element searched from a section's start tag.
std::wstring SectionText(const std::wstring& text, const wchar_t* section, const wchar_t* open,
                         const wchar_t* close) {
    return CStringUtils::ParseSubstringFromString(text, section, open, close, nullptr);
}

// A registered home may carry more after the bundle ("Win.pvm/",
// "Win.pvm/config.pvs"); the VM is named by the bundle itself.
void CutAfterBundle(std::wstring& home) {
    static constexpr std::wstring_view kBundleSuffix = L".pvm";
    const size_t at = home.rfind(kBundleSuffix);
    if (at != std::wstring::npos && at + kBundleSuffix.size() < home.size())
        home.erase(at + kBundleSuffix.size());
}

// One "Networks" element from a <NetworkAdapter> body; `number` is the
// adapter's 1-based place among all adapters, disabled ones included.
typeProperty AdapterOf(const std::wstring& body, int number) {
    std::wstring name = ElementText(body, L"<UserFriendlyName>", L"</UserFriendlyName>");
    if (name.empty()) name = L"Network Adapter " + CStringUtils::I32ToStr(number);

    const std::wstring emulated = ElementText(body, L"<EmulatedType>", L"</EmulatedType>");
    const Attachment type = FirstMatch(kEmulatedTypes, emulated, kOtherAttachment);
    const std::wstring connected = ElementText(body, L"<Connected>", L"</Connected>");
    return Readers::AdapterRecord(
        name, type != kOtherAttachment ? std::optional(type) : std::nullopt, connected != L"0");
}

}  // namespace

int ParallelsVmHomes(const std::wstring& text, std::vector<std::wstring>& homes) {
    std::vector<std::wstring> found;
    const int rc = CStringUtils::ParseSubstringFromStringEx(text, found, L"<VirtualMachine>",
                                                            L"<VmHome>", L"</VmHome>", 0, 1);
    if (rc < 0) return rc;
    for (std::wstring& home : found) CutAfterBundle(home);
    homes = std::move(found);
    return kDone;
}

int ParallelsConfig(const std::wstring& text, typeProperty& description) {
    const std::wstring name = SectionText(text, L"<Identification>", L"<VmName>", L"</VmName>");
    if (name.empty()) return kFailed;
    const std::wstring osType = SectionText(text, L"<General>", L"<OsType>", L"</OsType>");
    if (osType.empty()) return kFailed;
    const std::wstring osNumber = SectionText(text, L"<General>", L"<OsNumber>", L"</OsNumber>");
    if (osNumber.empty()) return kFailed;

    typeProperty os;
    os.addMapVal(L"Type", FirstMatch(kOsTypes, osType, kOtherOs));
    os.addMapVal(L"Distribution",
                 std::wstring(FirstMatch(kDistributions, osNumber, kOtherDistribution)));
    description.addMapVal(L"UserFriendlyName", name);
    description.addMapVal(L"OS", os);

    std::vector<std::wstring> adapters;
    const int rc = CStringUtils::ParseSubstringFromStringEx(
        text, adapters, L"", L"<NetworkAdapter>", L"</NetworkAdapter>", 0, 1);
    if (rc < 0) return rc;
    typeProperty networks;
    networks.changeTypeToVec();  // no adapter at all is an empty list, not a missing one
    for (size_t i = 0; i < adapters.size(); ++i) {
        // A disabled adapter is left out but keeps its number.
        if (ElementText(adapters[i], L"<Enabled>", L"</Enabled>") == L"0") continue;
        networks.addVecVal(AdapterOf(adapters[i], static_cast<int>(i) + 1));
    }
    description.addMapVal(L"Networks", networks);
    return kDone;
}

VmState ParallelsState(const std::vector<std::wstring>& entries) {
    bool memory = false;
    bool saved = false;
    for (const std::wstring& entry : entries) {
        if (CStringUtils::EndsWith(entry, L".mem", 0))
            memory = true;
        else if (entry == L"config.sav")
            saved = true;
    }
    if (!memory) return kStopped;
    return saved ? kSuspended : kRunning;
}

// The section marker is left open so that an <Identification> element with
// attributes matches too.
std::wstring ParallelsVmUuid(const std::wstring& configText) {
    return SectionText(configText, L"<Identification", L"<VmUuid>{", L"}</VmUuid>");
}

// Progress texts count only after prlctl said it is starting the VM.
int ParallelsStartAnswer(int run, std::wstring_view out, std::wstring_view err) {
    if (run < 0) return run;
    if (out.find(kStarting) != std::wstring_view::npos && FirstMatch(kStartedAnswers, out, false))
        return kDone;
    return FirstMatch(kRefusals, err, run);
}

int ParallelsOperationAnswer(int run, std::wstring_view err) {
    if (run < 0) return run;
    return FirstMatch(kOperationRefusals, err, run);
}

}  // namespace ImplVm::Readers
