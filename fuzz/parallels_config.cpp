// The Parallels configuration reader: a VM's config.pvs.
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"

namespace {
const std::string kBundle = std::string(implvm_fuzz::kHome) + "/Parallels/F.pvm";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    implvm_fuzz::Mac().writeFile(kBundle + "/config.pvs", implvm_fuzz::Bytes(data, size));
    KALDO::typeProperty description;
    const int rc = VirtualMachineImpl_Parallels4_GetInfoForVm(
        KALDO::CStringUtils::StringToWString(kBundle), &description);
    if (rc == 0) {
        std::wstring name;
        implvm_fuzz::Check(description.getMapVal(L"UserFriendlyName", name) >= 0 && !name.empty(),
                           "a described VM without a name");
    }
    return 0;
}
