// A whole `implvm inventory` over a generated Mac with 1,000 VMs, beside the
// tool runs it cannot avoid: describing a VM runs the process listing
// (VMware) or showvminfo (VirtualBox), once for its information and once for
// its network, so those runs alone are the floor of the inventory's cost.
#include <string>
#include <vector>

#include "BenchKit.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "MachineData.h"

using namespace implvm_bench;

namespace {

constexpr int kVms = 1000;

const WholeMac& Mac() {
    static ScratchDir scratch("implvm");
    static const WholeMac mac = WholeMacRoot(scratch.path(), kVms);
    return mac;
}

int RunImplvm(const std::vector<std::wstring>& args, std::wstring& out) {
    KALDO::CMachineRoot::Set("");
    int exitCode = -1;
    const int rc = KALDO::CProcessUtils::ExecuteSafeToText(
        KALDO::CStringUtils::StringToWString(std::string(IMPLVM_BIN)), args, exitCode, &out,
        nullptr, nullptr);
    return rc != 0 ? rc : exitCode;
}

size_t Count(const std::wstring& text, const std::wstring& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::wstring::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

void WholeInventory(benchmark::State& state) {
    const std::wstring root = KALDO::CStringUtils::StringToWString(Mac().root);
    const std::vector<std::wstring> args = {L"--root", root, L"inventory", L"--json"};
    std::wstring out;
    std::wstring help;
    if (RunImplvm({L"--help"}, help) != 0 || help.find(L"inventory") == std::wstring::npos) {
        state.SkipWithError("implvm has no inventory command yet");
        return;
    }
    // Every VM is described: its name appears once in its information.
    if (RunImplvm(args, out) != 0 || Count(out, L"\"UserFriendlyName\"") < kVms) {
        state.SkipWithError("the inventory did not describe every VM");
        return;
    }
    for (auto _ : state) RunImplvm(args, out);
    state.counters["vms"] = kVms;
}

// The process listing for each VMware description and showvminfo for each
// VirtualBox one, twice per VM, run the way the module runs them.
void ToolRunsAlone(benchmark::State& state) {
    const WholeMac& mac = Mac();
    KALDO::CMachineRoot::Set(mac.root);
    auto run = [](const std::wstring& tool, const std::vector<std::wstring>& args) {
        int exitCode = 0;
        std::wstring out;
        KALDO::CProcessUtils::ExecuteSafeToText(tool, args, exitCode, &out, nullptr, nullptr);
    };
    for (auto _ : state) {
        for (int n = 0; n < 2 * mac.fusionVms; ++n) run(L"/bin/ps", {L"wwax"});
        for (int n = 0; n < 2 * mac.virtualBoxVms; ++n)
            run(L"/Applications/VirtualBox.app/Contents/MacOS/VBoxManage",
                {L"showvminfo", L"4f3c0001-9a1b-4c2d-8e7f-000000000001"});
    }
    KALDO::CMachineRoot::Set("");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("implvm_inventory/1000VMs", WholeInventory)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1);
    benchmark::RegisterBenchmark("inventory_tool_runs_alone/1000VMs", ToolRunsAlone)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1);
    const std::vector<Comparison> comparisons = {
        {"implvm inventory of 1,000 VMs (334 Fusion, 333 VirtualBox, 333 Parallels)",
         "implvm_inventory/1000VMs", "inventory_tool_runs_alone/1000VMs", Goal::kInfo, 0},
    };
    return RunAndSummarize(argc, argv, comparisons) == 0 ? 0 : 3;
}
