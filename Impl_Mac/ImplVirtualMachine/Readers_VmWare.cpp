// VMware Fusion's texts: the vmInventory.
#include "KALDO/CStringUtils.h"
#include "Readers.h"

namespace ImplVm::Readers {

namespace {

constexpr size_t npos = std::wstring::npos;
constexpr std::wstring_view kConfigBegin = L"config = \"";
constexpr std::wstring_view kConfigEnd = L"\"";

}  // namespace

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
        std::wstring value = KALDO::CStringUtils::ExtractStringBetweenEnhance(
            text, kConfigBegin, kConfigEnd, from, &valuePos);
        if (valuePos == npos) return vmxPaths;
        if (value.empty()) {
            from = valuePos + kConfigEnd.size();
            continue;
        }
        from = text.find(value, from) + value.size();
        vmxPaths.push_back(std::move(value));
    }
}

}  // namespace ImplVm::Readers
