// Is this machine virtual? Judged from the vendors of its network
// interfaces' hardware addresses: hypervisors hand their virtual network
// cards addresses from their vendors' own blocks. Nothing here depends on the
// platform beyond the support library's network calls.
#include <string>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CNetworkUtils.h"
#include "MethodFrame.h"

using KALDO::CSoftwareVersion;
using KALDO::typeProperty;

namespace {

struct VendorBlock {
    const wchar_t* prefix;  // upper-case pairs, as GetMACAddress renders them
    const wchar_t* vendor;
};

constexpr VendorBlock kVendorBlocks[] = {
    {L"00:0C:29", L"VMware, Inc."},
    {L"00:13:17", L"Paravirtual corporation"},
    {L"00:0F:4B", L"Virtual Iron Software, Inc."},
    {L"00:16:3E", L"Xensource, Inc."},
    {L"08:00:27", L"Oracle Corporation"},
};

constexpr const wchar_t* kUnknownVendor = L"Unknown";

// The table lives in a tree made afresh per call; its key list sets the
// order in which prefixes are tried.
typeProperty VendorTable() {
    typeProperty table;
    table.changeTypeToMap();
    for (const VendorBlock& block : kVendorBlocks) table.addMapVal(block.prefix, block.vendor);
    return table;
}

}  // namespace

int macAddressCheck(std::wstring& vendor) try {
    const typeProperty table = VendorTable();
    std::vector<std::wstring> prefixes;
    table.getMapKeys(prefixes);

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
        // Anywhere in the text, not only at its start: the first prefix in
        // key order wins even when another one sits earlier in the address.
        for (const std::wstring& prefix : prefixes) {
            if (address.find(prefix) == std::wstring::npos) continue;
            table.getMapVal(prefix, vendor);
            return 0;
        }
    }
    // An unreadable address may have been the virtual one: say "cannot
    // tell" (-6) rather than "not virtual" (-1).
    if (unreadable != 0) return IMPLVM_RECORD(-6);
    return IMPLVM_RECORD(-1);
}
IMPLVM_BOUNDARY

int ImplVm_Common_IsMachineVirtual(int, int, int, const CSoftwareVersion*, const typeProperty*,
                                   typeProperty* outputs) try {
    std::wstring vendor = kUnknownVendor;
    // The check's failure stays in the error log; the host gets an answer.
    switch (macAddressCheck(vendor)) {
        case 0:
            outputs->addString(L"VMCompanyName", vendor);
            outputs->addInteger(L"IsMachineVirtual", 1);
            break;
        case -6:
            outputs->addString(L"VMCompanyName", kUnknownVendor);
            outputs->addInteger(L"IsMachineVirtual", 2);
            break;
        default:
            outputs->addInteger(L"IsMachineVirtual", 0);
            break;
    }
    return 0;
}
IMPLVM_BOUNDARY
