// Is this machine virtual? Judged from the vendors of its network
// interfaces' hardware addresses: hypervisors hand their virtual network
// cards addresses from their vendors' own blocks. Nothing here depends on the
// platform beyond the support library's network calls.
#include <iterator>
#include <string>
#include <vector>

#include "KALDO/CNetworkUtils.h"
#include "MethodFrame.h"
#include "Methods.h"
#include "TextRules.h"

using KALDO::CSoftwareVersion;
using KALDO::typeProperty;

namespace {

// Hypervisors' own blocks of addresses (upper-case pairs, as GetMACAddress
// renders them), found anywhere in an address: a prefix that matches later
// in the text still wins over one further down the table.
constexpr ImplVm::TextRule<const wchar_t*> kVendorBlocks[] = {
    {L"00:0C:29", ImplVm::Where::kAnywhere, L"VMware, Inc."},
    {L"00:13:17", ImplVm::Where::kAnywhere, L"Paravirtual corporation"},
    {L"00:0F:4B", ImplVm::Where::kAnywhere, L"Virtual Iron Software, Inc."},
    {L"00:16:3E", ImplVm::Where::kAnywhere, L"Xensource, Inc."},
    {L"08:00:27", ImplVm::Where::kAnywhere, L"Oracle Corporation"},
};
static_assert(ImplVm::FirstShadowedRule(kVendorBlocks) == std::size(kVendorBlocks));

constexpr const wchar_t* kUnknownVendor = L"Unknown";

}  // namespace

int macAddressCheck(std::wstring& vendor) try {
    std::vector<typeProperty> devices;
    const int listed = KALDO::CNetworkUtils::GetNetworkDevices(devices);
    if (listed < 0) return IMPLVM_FAIL(listed);

    int unreadable = 0;
    for (const typeProperty& device : devices) {
        std::wstring address;
        if (KALDO::CNetworkUtils::GetMACAddress(device, address) < 0) {
            ++unreadable;
            continue;
        }
        const wchar_t* const found = ImplVm::FirstMatch(kVendorBlocks, address, nullptr);
        if (found == nullptr) continue;
        vendor = found;
        return ImplVm::kDone;
    }
    // An unreadable address may have been the virtual one: say "cannot
    // tell" rather than "not virtual".
    if (unreadable != 0) return IMPLVM_RECORD(ImplVm::kNotFound);
    return IMPLVM_RECORD(ImplVm::kFailed);
}
IMPLVM_BOUNDARY

int ImplVm_Common_IsMachineVirtual(int, int, int, const CSoftwareVersion*, const typeProperty*,
                                   typeProperty* outputs) try {
    std::wstring vendor = kUnknownVendor;
    // The check's failure stays in the error log; the host gets an answer.
    switch (macAddressCheck(vendor)) {
        case ImplVm::kDone:
            outputs->addString(L"VMCompanyName", vendor);
            outputs->addInteger(L"IsMachineVirtual", ImplVm::kVirtual);
            break;
        case ImplVm::kNotFound:
            outputs->addString(L"VMCompanyName", kUnknownVendor);
            outputs->addInteger(L"IsMachineVirtual", ImplVm::kPerhapsVirtual);
            break;
        default:
            outputs->addInteger(L"IsMachineVirtual", ImplVm::kNotVirtual);
            break;
    }
    return ImplVm::kDone;
}
IMPLVM_BOUNDARY
