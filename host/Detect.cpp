#include "Detect.h"

#include <string_view>

namespace implvm {

namespace {

// The vendors the module's checks name, and the flag's own signal.
struct VendorToken {
    std::string_view vendor;
    const char* token;
};
constexpr VendorToken kVendorTokens[] = {
    {"VMware, Inc.", "vmware"},
    {"Oracle Corporation", "oracle"},
    {"Xensource, Inc.", "xen"},
    {"Parallels International GmbH", "parallels"},
    {"Paravirtual corporation", "vm-other"},
    {"Virtual Iron Software, Inc.", "vm-other"},
};
constexpr const char* kFlagSignal = "kern.hv_vmm_present";

}  // namespace

std::string TokenOf(const std::string& vendor) {
    for (const VendorToken& row : kVendorTokens)
        if (row.vendor == vendor) return row.token;
    return "vm-other";
}

Verdict Decide(const std::vector<Signal>& signals) {
    bool virtualSeen = false;
    for (const Signal& signal : signals) {
        if (signal.answer != Answer::kVirtual) continue;
        virtualSeen = true;
        if (!signal.vendor.empty() && signal.vendor != "Unknown")
            return {TokenOf(signal.vendor), 0};
    }
    if (virtualSeen) {
        for (const Signal& signal : signals)
            if (signal.name == kFlagSignal && signal.answer == Answer::kVirtual)
                return {"apple", 0};
        return {"vm-other", 0};
    }
    // No signal says virtual: the kernel's 0 settles it; without the flag
    // (a macOS before it had the key) both checks must have said not.
    size_t checksNot = 0;
    for (const Signal& signal : signals) {
        if (signal.name == kFlagSignal) {
            if (signal.answer == Answer::kNotVirtual) return {"none", 1};
        } else if (signal.answer == Answer::kNotVirtual) {
            ++checksNot;
        }
    }
    return checksNot + 1 == signals.size() ? Verdict{"none", 1} : Verdict{"unknown", 2};
}

}  // namespace implvm
