// vmrun's answers: the power and snapshot actions judge a failing run by its
// first words, the snapshot list reads its lines.
//
// Input: one byte (the run's exit status in its low two bits, which call in
// the next two), then what vmrun prints.
#include <cstdint>
#include <set>
#include <string>

#include "FuzzKit.h"
#include "ImplVirtualMachine.h"

namespace {

const std::wstring kVmx = L"/Users/fuzz/Virtual Machines/F.vmwarevm/F.vmx";

implvm_test::FakeTool& Vmrun() {
    static implvm_test::FakeTool& tool =
        implvm_fuzz::Mac().installTool("/Applications/VMware Fusion.app/Contents/Library/vmrun");
    return tool;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    implvm_test::FakeTool& tool = Vmrun();
    implvm_fuzz::BeginInput();
    tool.reset();
    tool.respond(implvm_fuzz::Bytes(data + 1, size - 1), data[0] & 3);

    switch ((data[0] >> 2) % 3) {
        case 0: {
            const int rc = VirtualMachineImpl_VmwareFusion_PerformVMAction(L"start", kVmx);
            implvm_fuzz::Check(std::set<int>{0, -1, -6, -32}.count(rc) == 1, "power action code");
            break;
        }
        case 1: {
            const int rc = ControlSnapshot(kVmx, L"snapshot", L"Before update");
            implvm_fuzz::Check(std::set<int>{0, -4, -5, -6, -32}.count(rc) == 1,
                               "snapshot action code");
            break;
        }
        default: {
            KALDO::typeProperty inputs;
            inputs.addString(L"Name", kVmx);
            KALDO::typeProperty outputs;
            const int rc =
                VirtualMachineImpl_VmWareFusion4_ListSnapshots(0, 0, 0, nullptr, &inputs, &outputs);
            implvm_fuzz::Check(std::set<int>{0, -1, -6}.count(rc) == 1, "snapshot list code");
            KALDO::typeProperty snapshots;
            implvm_fuzz::Check((rc == 0) == (outputs.getMapVal(L"Snapshots", snapshots) >= 0),
                               "a snapshot list exactly when the call succeeds");
            break;
        }
    }
    return 0;
}
