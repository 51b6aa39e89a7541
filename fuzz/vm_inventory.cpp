// The Fusion 5 vmInventory scan: every listed VM must be a value that stands
// in the inventory's text.
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    const std::string bytes = implvm_fuzz::Bytes(data, size);
    implvm_fuzz::Mac().writeFile(
        std::string(implvm_fuzz::kHome) + "/Library/Application Support/VMware Fusion/vmInventory",
        bytes);
    KALDO::typeProperty outputs;
    const int rc =
        VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs(0, 0, 0, nullptr, nullptr, &outputs);
    implvm_fuzz::Check(rc == 0, "EnumerateVMs failed on a readable inventory");

    std::wstring text = KALDO::CStringUtils::StringToWString(bytes);
    if (text.starts_with(L"\uFEFF")) text.erase(0, 1);
    KALDO::typeProperty vms;
    implvm_fuzz::Check(outputs.getMapVal(L"VMs", vms) >= 0, "no VM list");
    int count = 0;
    vms.getVecSize(count);
    for (int i = 0; i < count; ++i) {
        std::wstring path;
        implvm_fuzz::Check(
            vms.getVecVal(i, path) >= 0 && !path.empty() && text.find(path) != std::wstring::npos,
            "a listed VM that the inventory does not hold");
    }
    return 0;
}
