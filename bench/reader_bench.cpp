// The module's readers and the support library under them, each figure
// beside a baseline measured in the same run (Google Benchmark):
//  - reading and decoding text, against copying the wide result (shown);
//  - a tool run, against a bare posix_spawn + waitpid, also from a process
//    holding 2 GB (<= 1.3x);
//  - every list reader at 100,000 entries against 10,000, caches emptied
//    before each call (<= 12x: linear growth).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <map>

#include "BenchKit.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/typeProperty.h"
#include "MachineData.h"

extern char** environ;

using namespace implvm_bench;
using KALDO::CStringUtils;

namespace {

const std::string& Scratch() {
    static ScratchDir dir("reader");
    return dir.path();
}

// A method as a host calls it; the module is loaded at run time.
using Method = int(int, int, int, const KALDO::CSoftwareVersion*, const KALDO::typeProperty*,
                   KALDO::typeProperty*);

enum class TextWork { kRead, kDecode, kCopy };

// Each runs once untimed, so that its memory comes from the warm heap.
void Text(benchmark::State& state, TextWork work, double share, size_t mb) {
    const std::wstring path = CStringUtils::StringToWString(
        Scratch() + "/text-" + std::to_string(share) + "-" + std::to_string(mb));
    std::wstring wide;
    if (KALDO::CFileUtils::ReadFromTextFile(path, wide) < 0) {
        WriteFile(CStringUtils::WStringToString(path), LogText(mb * 1000 * 1000, share));
        KALDO::CFileUtils::ReadFromTextFile(path, wide);
    }
    const std::string utf8 = CStringUtils::WStringToString(wide);
    auto once = [&] {
        std::wstring text;
        if (work == TextWork::kRead) KALDO::CFileUtils::ReadFromTextFile(path, text);
        if (work == TextWork::kDecode) text = CStringUtils::StringToWString(utf8);
        if (work == TextWork::kCopy) text = wide;  // allocate and copy: any new text's floor
        benchmark::DoNotOptimize(text.data());
    };
    once();
    for (auto _ : state) once();
}

bool SpawnTrue() {
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    pid_t pid = -1;
    int status = -1;
    return ::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) == 0 &&
           ::waitpid(pid, &status, 0) == pid && status == 0;
}

// Holds 2 GB of touched memory or not, as the benchmark asks, so that the
// benchmarks may run interleaved.
void SetResidentMemory(bool wanted) {
    constexpr size_t kBytes = size_t{2} << 30;
    static void* block = nullptr;
    if (wanted == (block != nullptr)) return;
    if (!wanted) {
        ::munmap(block, kBytes);
        block = nullptr;
        return;
    }
    block = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (block == MAP_FAILED) block = nullptr;
    // The first runs after touching that much memory are slow while the
    // system settles: outside every measurement.
    for (int k = 0; k < 50; ++k) SpawnTrue();
}

void ToolRun(benchmark::State& state, bool library, bool resident) {
    SetResidentMemory(resident);
    for (auto _ : state) {
        int exitCode = -1;
        std::wstring out;
        const bool ran = library ? KALDO::CProcessUtils::ExecuteSafeToText(
                                       L"/bin/true", {}, exitCode, &out, nullptr, nullptr) == 0 &&
                                       exitCode == 0
                                 : SpawnTrue();
        if (!ran) state.SkipWithError("the tool run failed");
    }
}

void ReadList(benchmark::State& state, const ListReader& reader, int n) {
    auto* method = reinterpret_cast<Method*>(ModuleSymbol(reader.method));
    if (method == nullptr) return state.SkipWithError("the module has no such method");
    const std::string root = Scratch() + "/" + reader.name + "-" + std::to_string(n);
    static std::map<std::string, bool> written;
    if (!written[root]) reader.write(root, n);
    written[root] = true;
    KALDO::CMachineRoot::Set(root);
    const KALDO::CSoftwareVersion version{std::string(reader.version)};
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    if (*reader.vm)
        inputs.addMapVal(L"Name", CStringUtils::StringToWString(std::string(reader.vm)));
    auto call = [&] {
        KALDO::typeProperty outputs;
        std::vector<KALDO::typeProperty> list;
        return method(0, 0, 0, &version, &inputs, &outputs) == 0 &&
               outputs.getMapVal(reader.list, list) >= 0 &&
               static_cast<int>(list.size()) == reader.listed(n);
    };
    if (!call()) state.SkipWithError("the reader did not list every entry");
    for (auto _ : state) {
        state.PauseTiming();
        EvictCaches();
        state.ResumeTiming();
        call();
    }
    KALDO::CMachineRoot::Set("");
}

// Keeps each benchmark's fastest repetition (or only run) while the console
// shows them all.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool fastest = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
            if (run.error_occurred || (!fastest && run.run_type != Run::RT_Iteration)) continue;
            std::string name = run.run_name.function_name;  // without "/real_time" and such
            if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
            if (fastest || !ns.count(name))
                ns[name] = (run.run_name.time_type == "real_time" ? run.GetAdjustedRealTime()
                                                                  : run.GetAdjustedCPUTime()) *
                           1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> ns;
};

struct Comparison {
    std::string figure, measured, baseline;  // the latter two: benchmark names
    Goal goal;
    double target;
};

// Work done in this process is timed by its processor time: on a machine
// shared with other work, wall time measures the scheduler as much. A tool
// run is timed by the clock, and repeated more, being the noisier. Other
// work only ever adds time, so the fastest repetition counts.
void Register(const std::string& name, std::function<void(benchmark::State&)> run,
              bool toolRun = false) {
    auto* benchmark = benchmark::RegisterBenchmark(name.c_str(), std::move(run));
    benchmark->Unit(benchmark::kMillisecond)->ComputeStatistics("min", [](const auto& times) {
        return *std::min_element(times.begin(), times.end());
    });
    if (toolRun) benchmark->UseRealTime()->Repetitions(9);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Comparison> comparisons;
    for (const auto& [kind, share] : {std::pair{"ascii", 0.0}, std::pair{"mixed5pct", 0.05}}) {
        for (size_t mb : {1, 100}) {
            const std::string size = std::string(kind) + "/" + std::to_string(mb) + "MB";
            Register("ReadFromTextFile/" + size,
                     [=](auto& s) { Text(s, TextWork::kRead, share, mb); });
            Register("StringToWString/" + size,
                     [=](auto& s) { Text(s, TextWork::kDecode, share, mb); });
            Register("copy_wide/" + size, [=](auto& s) { Text(s, TextWork::kCopy, share, mb); });
            for (const std::string what : {"ReadFromTextFile", "StringToWString"})
                comparisons.push_back({what + " " + size + " against copying the wide text",
                                       what + "/" + size, "copy_wide/" + size, Goal::kInfo, 0});
        }
    }
    for (const bool resident : {false, true}) {
        const std::string tag = resident ? "/resident2GB" : "";
        Register(
            "ExecuteSafeToText/bin_true" + tag, [=](auto& s) { ToolRun(s, true, resident); }, true);
        Register(
            "posix_spawn/bin_true" + tag, [=](auto& s) { ToolRun(s, false, resident); }, true);
        comparisons.push_back(
            {std::string("tool run (/bin/true)") + (resident ? ", 2 GB resident" : ""),
             "ExecuteSafeToText/bin_true" + tag, "posix_spawn/bin_true" + tag, Goal::kCostAtMost,
             1.3});
    }
    for (const ListReader& reader : ListReaders()) {
        const std::string name = reader.name;
        for (int n : {10000, 100000})
            Register(name + "/" + std::to_string(n),
                     [&reader, n](auto& s) { ReadList(s, reader, n); });
        comparisons.push_back({std::string(reader.figure) + ", 100,000 entries against 10,000",
                               name + "/100000", name + "/10000", Goal::kCostAtMost, 12});
    }

    // Freed memory stays with the process and is handed out again warm, so
    // that a figure and its baseline pay for their work, not for the kernel
    // mapping fresh pages (on a virtual machine large and erratic).
    ::mallopt(M_MMAP_MAX, 0);
    ::mallopt(M_TRIM_THRESHOLD, -1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::cout << "\nFigures against their baselines (same run):\n";
    bool met = true;
    for (const Comparison& c : comparisons) {
        if (!reporter.ns.count(c.measured) || !reporter.ns.count(c.baseline)) continue;
        const double measured = reporter.ns[c.measured], baseline = reporter.ns[c.baseline];
        met &= Report({c.figure, FormatTime(measured), FormatTime(baseline), measured / baseline,
                       c.goal, c.target});
    }
    return met ? 0 : 3;
}
