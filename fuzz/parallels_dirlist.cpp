// The Parallels directory list: the registered VMs, each cut after its
// bundle and kept only when the bundle exists.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"

namespace {

void Prepare() {
    // One registered bundle that exists, so that listing has something to keep.
    static const bool ready = [] {
        implvm_fuzz::Mac().makeDir(std::string(implvm_fuzz::kHome) + "/Parallels/F.pvm");
        return true;
    }();
    (void)ready;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Prepare();
    implvm_fuzz::BeginInput();
    implvm_fuzz::Mac().writeFile("/Library/Preferences/Parallels/vmdirectorylist.desktop.xml",
                                 implvm_fuzz::Bytes(data, size));
    std::vector<std::wstring> homes;
    const int rc = VirtualMachineImpl_Parallels4_GetAllVms(homes);
    implvm_fuzz::Check(rc == 0, "GetAllVms failed on a readable list");
    KALDO::typeProperty outputs;
    implvm_fuzz::Check(
        VirtualMachineImpl_Parallels4_EnumerateVMs(0, 0, 0, nullptr, nullptr, &outputs) == 0,
        "EnumerateVMs failed");
    return 0;
}
