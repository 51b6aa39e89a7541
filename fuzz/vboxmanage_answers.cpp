// VBoxManage's answers to the power actions: a failing run is judged by the
// texts it printed.
//
// Input: one byte (the exit status in its low two bits, the action in the
// next two), then what VBoxManage prints.
#include <cstdint>
#include <set>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"

namespace {

implvm_test::FakeTool& VBoxManage() {
    static implvm_test::FakeTool& tool =
        implvm_fuzz::Mac().installTool("/Applications/VirtualBox.app/Contents/MacOS/VBoxManage");
    return tool;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    implvm_test::FakeTool& tool = VBoxManage();
    implvm_fuzz::BeginInput();
    tool.reset();
    tool.respond(implvm_fuzz::Bytes(data + 1, size - 1), data[0] & 3);

    static const wchar_t* const kActions[] = {L"startvm", L"poweroff", L"pause", L"resume"};
    const int rc = VirtualMachineImpl_VirtualBox_4_X_PerformVMAction(
        kActions[(data[0] >> 2) & 3], L"7578c3c7-9a9a-4cc8-a025-9f5999b030ed");
    implvm_fuzz::Check(std::set<int>{0, -1, -4, -6, -32}.count(rc) == 1, "power action code");
    implvm_fuzz::Check((data[0] & 3) != 0 || rc == 0, "a clean exit is a done action");
    return 0;
}
