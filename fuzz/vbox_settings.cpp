// The VirtualBox global settings (VirtualBox.xml): the registered machines,
// read as VirtualBox 3 (paths relative to the settings folder) and 4 and
// later (absolute paths) wrote them.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    implvm_fuzz::Mac().writeFile(
        std::string(implvm_fuzz::kHome) + "/Library/VirtualBox/VirtualBox.xml",
        implvm_fuzz::Bytes(data, size));
    std::vector<std::wstring> old, current;
    const int rcOld = VirtualMachineImpl_VirtualBox2_GetAllVms(&old, 3);
    const int rcCurrent = VirtualMachineImpl_VirtualBox2_GetAllVms(&current, 5);
    implvm_fuzz::Check(rcOld == 0 && rcCurrent == 0 && old.size() == current.size(),
                       "both layouts list the same machines");
    return 0;
}
