// A VirtualBox machine's description: the UUID from its .vbox settings, then
// the report VBoxManage showvminfo prints for it (name, guest OS, state,
// network adapters).
//
// Input: the report, optionally followed by the separator and .vbox text
// (a fixed .vbox when there is none).
#include <cstdint>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CStringUtils.h"

namespace {

const std::string kSettings = std::string(implvm_fuzz::kHome) + "/VirtualBox VMs/F/F.vbox";
const std::string kDefaultSettings =
    "<?xml version=\"1.0\"?>\n<VirtualBox xmlns=\"http://www.virtualbox.org/\" version=\"1.19\">\n"
    "  <Machine uuid=\"{7578c3c7-9a9a-4cc8-a025-9f5999b030ed}\" name=\"F\" OSType=\"Ubuntu_64\">\n"
    "  </Machine>\n</VirtualBox>\n";

implvm_test::FakeTool& VBoxManage() {
    static implvm_test::FakeTool& tool = [&]() -> implvm_test::FakeTool& {
        implvm_test::TestMachine& mac = implvm_fuzz::Mac();
        mac.installApp("/Applications/VirtualBox.app", "org.virtualbox.app.VirtualBox", "7.0.12");
        return mac.installTool("/Applications/VirtualBox.app/Contents/MacOS/VBoxManage");
    }();
    return tool;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    implvm_test::FakeTool& tool = VBoxManage();
    implvm_fuzz::BeginInput();
    const auto [report, settings] = implvm_fuzz::SplitTwo(implvm_fuzz::Bytes(data, size));
    implvm_fuzz::Mac().writeFile(kSettings, settings.empty() ? kDefaultSettings : settings);
    tool.reset();
    tool.respond(report, 0);

    KALDO::typeProperty description;
    const int rc = VirtualMachineImpl_VirtualBox2_GetInfoForVm(
        KALDO::CStringUtils::StringToWString(kSettings), &description);
    if (rc == 0) {
        int state = 0;
        implvm_fuzz::Check(description.getMapVal(L"State", state) >= 0 && state >= 1 && state <= 3,
                           "a described machine without a state");
    }
    return 0;
}
