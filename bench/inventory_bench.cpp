// The adapters at scale, on generated machine roots (MachineData.h):
//  - the three inventories (Fusion 5 vmInventory, VirtualBox.xml, the
//    Parallels directory list) at 10 to 100,000 entries, each beside a plain
//    read of its file. They must grow linearly. That is judged with the
//    processor's caches emptied before each call, the state a host's
//    periodic inventory pass finds them in: called back to back, a
//    10,000-entry inventory still runs from the last-level cache while a
//    100,000-entry one cannot, which measures the cache's size rather than
//    the scan (the back-to-back ratio is shown beside it);
//  - the .vmx reader of a running Fusion 5 VM whose vmware.log is 100 MB,
//    beside the reads it cannot avoid (the log and the process listing);
//  - the .vmx reader over 10,000 and 100,000 adapters, which must grow
//    linearly (cold caches, as for the inventories);
//  - the VirtualBox reader over a large showvminfo report, beside the bare
//    tool run that prints it.
#include <malloc.h>

#include "BenchKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "MachineData.h"

using namespace implvm_bench;

namespace {

const int kEntryCounts[] = {10, 1000, 10000, 100000};

const std::string& Scratch() {
    static ScratchDir dir("inventory");
    return dir.path();
}

void Enumerate(benchmark::State& state, const Inventory& inv, int entries, bool cold) {
    auto* method = ModuleFunction<ImplVmMethod>(inv.method);
    if (method == nullptr) {
        state.SkipWithError("the module has no such method yet");
        return;
    }
    KALDO::CMachineRoot::Set(InventoryRoot(Scratch(), inv, entries));
    const KALDO::CSoftwareVersion version(std::string(inv.version));
    const int expected = inv.listed(entries);
    const KALDO::typeProperty inputs;
    {
        KALDO::typeProperty outputs;
        std::vector<KALDO::typeProperty> vms;
        if (method(0, 0, 0, &version, &inputs, &outputs) != 0 ||
            outputs.getMapVal(L"VMs", vms) < 0 || static_cast<int>(vms.size()) != expected) {
            state.SkipWithError(
                ("wrong inventory: " + std::to_string(vms.size()) + " VMs").c_str());
            return;
        }
    }
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            EvictCaches();
            state.ResumeTiming();
        }
        KALDO::typeProperty outputs;
        method(0, 0, 0, &version, &inputs, &outputs);
    }
    state.counters["entries"] = entries;
    state.counters["time_per_entry"] = benchmark::Counter(
        entries, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    KALDO::CMachineRoot::Set("");
}

void ReadInventoryFile(benchmark::State& state, const Inventory& inv, int entries) {
    KALDO::CMachineRoot::Set(InventoryRoot(Scratch(), inv, entries));
    const std::wstring path = KALDO::CStringUtils::StringToWString(inv.file);
    for (auto _ : state) {
        std::wstring text;
        KALDO::CFileUtils::ReadFromTextFile(path, text);
        benchmark::DoNotOptimize(text.data());
    }
    KALDO::CMachineRoot::Set("");
}

// ---- the .vmx reader of a running VM with a 100 MB log ----

using FusionGetInfo = int(const std::wstring&, KALDO::typeProperty*, int);

void FusionVmxReader(benchmark::State& state) {
    auto* reader = ModuleFunction<FusionGetInfo>("VirtualMachineImpl_VmWareFusion1_GetInfoForVm");
    if (reader == nullptr) {
        state.SkipWithError("the module has no Fusion reader yet");
        return;
    }
    KALDO::CMachineRoot::Set(FusionVmRoot(Scratch(), 100));
    const std::wstring vmx = KALDO::CStringUtils::StringToWString(kFusionVmx);
    auto run = [&] {
        KALDO::typeProperty description;
        int vmState = 0;
        return reader(vmx, &description, 5) == 0 && description.getMapVal(L"State", vmState) >= 0 &&
               vmState == 1;
    };
    if (!run()) {
        state.SkipWithError("the reader did not find the VM running");
        return;
    }
    for (auto _ : state) run();
    KALDO::CMachineRoot::Set("");
}

// What the reader cannot avoid: the process listing and the whole log.
void FusionVmxReaderIo(benchmark::State& state) {
    KALDO::CMachineRoot::Set(FusionVmRoot(Scratch(), 100));
    const std::wstring log = KALDO::CStringUtils::StringToWString(kFusionLog);
    for (auto _ : state) {
        std::wstring listing;
        KALDO::CProcessUtils::GetProcessListing_MAC(listing, "wwax");
        std::wstring text;
        KALDO::CFileUtils::ReadFromTextFile(log, text);
        benchmark::DoNotOptimize(text.data());
    }
    KALDO::CMachineRoot::Set("");
}

// ---- a .vmx with many adapters ----

void FusionAdapters(benchmark::State& state, int adapters, bool cold) {
    auto* reader = ModuleFunction<FusionGetInfo>("VirtualMachineImpl_VmWareFusion1_GetInfoForVm");
    if (reader == nullptr) {
        state.SkipWithError("the module has no Fusion reader yet");
        return;
    }
    KALDO::CMachineRoot::Set(FusionAdaptersRoot(Scratch(), adapters));
    const std::wstring vmx = KALDO::CStringUtils::StringToWString(kAdaptersVmx);
    const size_t expected = adapters - adapters / 10;
    auto run = [&] {
        KALDO::typeProperty description;
        std::vector<KALDO::typeProperty> networks;
        return reader(vmx, &description, 13) == 0 &&
               description.getMapVal(L"Networks", networks) >= 0 && networks.size() == expected;
    };
    if (!run()) {
        state.SkipWithError("the reader did not list every adapter");
        return;
    }
    for (auto _ : state) {
        if (cold) {
            state.PauseTiming();
            // Also the memory the previous call freed goes back to the
            // system (the executable otherwise keeps it mapped), as other
            // work between two passes would take it. In a warm heap the
            // ratio is about 13: a 10,000-adapter call's text and records
            // (about 20 MB) stay in the last-level cache from one of its
            // passes over them to the next, a 100,000-adapter call's (about
            // 150 MB) cannot, which measures the cache, not the reader.
            ::malloc_trim(0);
            EvictCaches();
            state.ResumeTiming();
        }
        run();
    }
    state.counters["adapters"] = adapters;
    KALDO::CMachineRoot::Set("");
}

// ---- showvminfo over a large report ----

using VBoxGetInfo = int(const std::wstring&, KALDO::typeProperty*);

void VirtualBoxReader(benchmark::State& state, size_t reportMB) {
    auto* reader = ModuleFunction<VBoxGetInfo>("VirtualMachineImpl_VirtualBox2_GetInfoForVm");
    if (reader == nullptr) {
        state.SkipWithError("the module has no VirtualBox reader yet");
        return;
    }
    KALDO::CMachineRoot::Set(VirtualBoxVmRoot(Scratch(), reportMB));
    const std::wstring settings = KALDO::CStringUtils::StringToWString(kVBoxSettings);
    auto run = [&] {
        KALDO::typeProperty description;
        std::vector<KALDO::typeProperty> networks;
        return reader(settings, &description) == 0 &&
               description.getMapVal(L"Networks", networks) >= 0 && networks.size() == 3;
    };
    if (!run()) {
        state.SkipWithError("the reader did not describe the machine");
        return;
    }
    for (auto _ : state) run();
    KALDO::CMachineRoot::Set("");
}

// The tool run alone, with the same report.
void VirtualBoxToolRun(benchmark::State& state, size_t reportMB) {
    KALDO::CMachineRoot::Set(VirtualBoxVmRoot(Scratch(), reportMB));
    const std::wstring tool = KALDO::CStringUtils::StringToWString(kVBoxManage);
    for (auto _ : state) {
        int exitCode = 0;
        std::wstring report;
        KALDO::CProcessUtils::ExecuteSafeToText(tool, {L"showvminfo", L"x"}, exitCode, &report,
                                                nullptr, nullptr);
        benchmark::DoNotOptimize(report.data());
    }
    KALDO::CMachineRoot::Set("");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Comparison> comparisons;
    for (const Inventory& inv : Inventories()) {
        for (int entries : kEntryCounts) {
            const std::string size = std::to_string(entries);
            const std::string name = std::string(inv.name) + "_EnumerateVMs/" + size;
            const std::string read = std::string(inv.name) + "_ReadFile/" + size;
            benchmark::RegisterBenchmark(
                name.c_str(),
                [&inv, entries](benchmark::State& s) { Enumerate(s, inv, entries, false); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(
                read.c_str(),
                [&inv, entries](benchmark::State& s) { ReadInventoryFile(s, inv, entries); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            comparisons.push_back({std::string(inv.name) + " inventory of " + size +
                                       " entries against reading its file",
                                   name, read, Goal::kInfo, 0});
        }
        for (int entries : {10000, 100000}) {
            const std::string cold =
                std::string(inv.name) + "_EnumerateVMs_cold/" + std::to_string(entries);
            benchmark::RegisterBenchmark(
                cold.c_str(),
                [&inv, entries](benchmark::State& s) { Enumerate(s, inv, entries, true); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        }
        comparisons.push_back(
            {std::string(inv.name) + " inventory, cold caches: 100,000 entries against 10,000",
             std::string(inv.name) + "_EnumerateVMs_cold/100000",
             std::string(inv.name) + "_EnumerateVMs_cold/10000", Goal::kCostAtMost, 12.0});
        comparisons.push_back(
            {std::string(inv.name) + " inventory, back to back: 100,000 entries against 10,000",
             std::string(inv.name) + "_EnumerateVMs/100000",
             std::string(inv.name) + "_EnumerateVMs/10000", Goal::kInfo, 0});
    }

    benchmark::RegisterBenchmark("Fusion5_GetInfoForVm/running/log100MB", FusionVmxReader)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("Fusion5_ListingAndLogRead/log100MB", FusionVmxReaderIo)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    comparisons.push_back({".vmx reader, running Fusion 5 VM, 100 MB vmware.log",
                           "Fusion5_GetInfoForVm/running/log100MB",
                           "Fusion5_ListingAndLogRead/log100MB", Goal::kInfo, 0});

    for (int adapters : {10000, 100000}) {
        const std::string size = std::to_string(adapters);
        benchmark::RegisterBenchmark(
            ("Fusion_GetInfoForVm_adapters_cold/" + size).c_str(),
            [adapters](benchmark::State& s) { FusionAdapters(s, adapters, true); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    comparisons.push_back({".vmx reader, cold caches: 100,000 adapters against 10,000",
                           "Fusion_GetInfoForVm_adapters_cold/100000",
                           "Fusion_GetInfoForVm_adapters_cold/10000", Goal::kCostAtMost, 12.0});

    for (size_t mb : {1, 10}) {
        const std::string size = std::to_string(mb) + "MB";
        benchmark::RegisterBenchmark(("VirtualBox_GetInfoForVm/report" + size).c_str(),
                                     [mb](benchmark::State& s) { VirtualBoxReader(s, mb); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("VBoxManage_showvminfo_run/report" + size).c_str(),
                                     [mb](benchmark::State& s) { VirtualBoxToolRun(s, mb); })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        comparisons.push_back({"VirtualBox reader over a " + size + " showvminfo report",
                               "VirtualBox_GetInfoForVm/report" + size,
                               "VBoxManage_showvminfo_run/report" + size, Goal::kInfo, 0});
    }
    return RunAndSummarize(argc, argv, comparisons) == 0 ? 0 : 3;
}
