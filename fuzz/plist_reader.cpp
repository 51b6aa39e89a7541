// The property-list reader (XML and binary forms) under the two readers of
// it: the Fusion preferences' VM library and an application's version.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CAppleUtils.h"
#include "KALDO/CStringUtils.h"

namespace {

const std::string kPreferences =
    std::string(implvm_fuzz::kHome) + "/Library/Preferences/com.vmware.fusion.plist";
const std::string kInfoPlist = "/Applications/VMware Fusion.app/Contents/Info.plist";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_fuzz::BeginInput();
    const std::string bytes = implvm_fuzz::Bytes(data, size);
    implvm_test::TestMachine& mac = implvm_fuzz::Mac();

    mac.writeFile(kPreferences, bytes);
    std::vector<std::wstring> vmxPaths;
    const int listed = VirtualMachineImpl_VmWareFusion1_GetAllVms(vmxPaths);
    implvm_fuzz::Check(listed <= 0, "GetAllVms gave a positive code");

    mac.writeFile(kInfoPlist, bytes);
    KALDO::typeProperty inputs;
    inputs.addString(L"BundleId", L"com.vmware.fusion");
    KALDO::typeProperty outputs;
    const int found = KALDO::CAppleUtils::GetProductVersion(inputs, outputs);
    if (found == 0) {
        std::wstring appPath;
        implvm_fuzz::Check(outputs.lookupString(L"AppPath", appPath) >= 0 &&
                               appPath == L"/Applications/VMware Fusion.app",
                           "GetProductVersion found another application");
    }
    return 0;
}
