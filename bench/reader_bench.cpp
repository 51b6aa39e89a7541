// The module's readers and the support library under them, each figure
// beside a baseline measured in the same run (Google Benchmark):
//  - reading and decoding text, against copying the wide result (shown);
//  - a tool run, against a bare posix_spawn + waitpid, also from a process
//    holding 2 GB (<= 1.3x);
//  - every list-shaped reader at 100,000 entries against 10,000, caches
//    emptied before each call (<= 12x: linear growth).
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>

#include "BenchKit.h"
#include "ImplVirtualMachine.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/MachineRoot.h"
#include "MachineData.h"

extern char** environ;

using namespace implvm_bench;

namespace {

constexpr size_t kMB = 1000 * 1000;

const std::string& Scratch() {
    static ScratchDir dir("reader");
    return dir.path();
}

// ---- text ----

const std::string& TextFile(double multiByteShare, size_t mb) {
    static std::map<std::pair<double, size_t>, std::string> files;
    std::string& path = files[{multiByteShare, mb}];
    if (path.empty()) {
        path = Scratch() + "/text-" + std::to_string(multiByteShare) + "-" + std::to_string(mb);
        WriteFile(path, LogText(mb * kMB, multiByteShare));
    }
    return path;
}

std::string Slurp(const std::string& path) {
    std::wstring wide;
    KALDO::CFileUtils::ReadFromTextFile(KALDO::CStringUtils::StringToWString(path), wide);
    return KALDO::CStringUtils::WStringToString(wide);
}

// Each runs once before timing, so its memory comes from the warm heap.
void ReadFromTextFile(benchmark::State& state, double share, size_t mb) {
    const std::wstring path = KALDO::CStringUtils::StringToWString(TextFile(share, mb));
    auto read = [&path] {
        std::wstring text;
        KALDO::CFileUtils::ReadFromTextFile(path, text);
        benchmark::DoNotOptimize(text.data());
    };
    read();
    for (auto _ : state) read();
}

void StringToWString(benchmark::State& state, double share, size_t mb) {
    const std::string utf8 = Slurp(TextFile(share, mb));
    auto decode = [&utf8] { benchmark::DoNotOptimize(KALDO::CStringUtils::StringToWString(utf8)); };
    decode();
    for (auto _ : state) decode();
}

// What any routine handing back a new wide text pays at least.
void MemcpyWide(benchmark::State& state, double share, size_t mb) {
    const size_t chars = KALDO::CStringUtils::StringToWString(Slurp(TextFile(share, mb))).size();
    const std::unique_ptr<wchar_t[]> source(new wchar_t[chars]());
    auto copy = [&source, chars] {
        const std::unique_ptr<wchar_t[]> wide(new wchar_t[chars]);
        std::memcpy(wide.get(), source.get(), chars * sizeof(wchar_t));
        benchmark::DoNotOptimize(wide.get());
    };
    copy();
    for (auto _ : state) copy();
}

// ---- tool runs ----

// Holds 2 GB of touched memory or not, switched as the benchmarks ask, so
// that they may run interleaved.
void SetResidentMemory(bool wanted) {
    constexpr size_t kBytes = size_t{2} << 30;
    static void* block = nullptr;
    if (wanted == (block != nullptr)) return;
    if (!wanted) {
        ::munmap(block, kBytes);
        block = nullptr;
        return;
    }
    block = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        block = nullptr;
        return;
    }
    // Distinct contents, so that no page is shared or merged.
    for (size_t at = 0; at < kBytes; at += 4096)
        static_cast<unsigned char*>(block)[at] = static_cast<unsigned char>(at >> 12);
    // The first runs after touching that much memory are slow while the
    // system settles; that passes outside every measurement.
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    for (int k = 0; k < 50; ++k) {
        pid_t pid = -1;
        if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) == 0)
            ::waitpid(pid, nullptr, 0);
    }
}

void ExecuteSafeToText(benchmark::State& state, bool resident) {
    SetResidentMemory(resident);
    for (auto _ : state) {
        int exitCode = -1;
        std::wstring out;
        if (KALDO::CProcessUtils::ExecuteSafeToText(L"/bin/true", {}, exitCode, &out, nullptr,
                                                    nullptr) != 0 ||
            exitCode != 0)
            state.SkipWithError("tool run failed");
    }
}

void PosixSpawn(benchmark::State& state, bool resident) {
    SetResidentMemory(resident);
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    for (auto _ : state) {
        pid_t pid = -1;
        if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ) != 0)
            state.SkipWithError("posix_spawn failed");
        ::waitpid(pid, nullptr, 0);
    }
}

// ---- list readers at scale ----

void ReadList(benchmark::State& state, const ListReader& reader, int n) {
    auto* method = reinterpret_cast<ImplVmMethod*>(ModuleSymbol(reader.method));
    if (method == nullptr) {
        state.SkipWithError("the module has no such method");
        return;
    }
    const std::string root = Scratch() + "/" + reader.name + "-" + std::to_string(n);
    static std::map<std::string, bool> written;
    if (!written[root]) reader.write(root, n);
    written[root] = true;
    KALDO::CMachineRoot::Set(root);
    const KALDO::CSoftwareVersion version{std::string(reader.version)};
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    if (*reader.vm)
        inputs.addMapVal(L"Name", KALDO::CStringUtils::StringToWString(std::string(reader.vm)));
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

// ---- the summary ----

// Keeps the median (or the only run) of each benchmark while the console
// reporter prints them.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (!median && run.run_type != Run::RT_Iteration)) continue;
            std::string name = run.run_name.function_name;  // without "/real_time" and such
            if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
            if (median || !times.count(name))
                times[name] = run.GetAdjustedRealTime() * 1e9 /
                              benchmark::GetTimeUnitMultiplier(run.time_unit);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;  // nanoseconds
};

struct Comparison {
    std::string figure, measured, baseline;  // benchmark names
    Goal goal;
    double target;
};

void Register(const std::string& name, std::function<void(benchmark::State&)> run,
              benchmark::TimeUnit unit = benchmark::kMillisecond) {
    benchmark::RegisterBenchmark(name.c_str(), std::move(run))->Unit(unit)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Comparison> comparisons;
    for (const auto& [kind, share] : {std::pair{"ascii", 0.0}, std::pair{"mixed5pct", 0.05}}) {
        for (size_t mb : {1, 100}) {
            const std::string size = std::string(kind) + "/" + std::to_string(mb) + "MB";
            Register("ReadFromTextFile/" + size, [=](auto& s) { ReadFromTextFile(s, share, mb); });
            Register("StringToWString/" + size, [=](auto& s) { StringToWString(s, share, mb); });
            Register("memcpy_wide/" + size, [=](auto& s) { MemcpyWide(s, share, mb); });
            for (const char* what : {"ReadFromTextFile", "StringToWString"})
                comparisons.push_back({std::string(what) + " " + size,
                                       std::string(what) + "/" + size, "memcpy_wide/" + size,
                                       Goal::kInfo, 0});
        }
    }
    for (const bool resident : {false, true}) {
        const std::string tag = resident ? "/resident2GB" : "";
        Register(
            "ExecuteSafeToText/bin_true" + tag, [=](auto& s) { ExecuteSafeToText(s, resident); },
            benchmark::kMicrosecond);
        Register(
            "posix_spawn/bin_true" + tag, [=](auto& s) { PosixSpawn(s, resident); },
            benchmark::kMicrosecond);
        comparisons.push_back(
            {"tool run (/bin/true)" + std::string(resident ? ", 2 GB resident" : ""),
             "ExecuteSafeToText/bin_true" + tag, "posix_spawn/bin_true" + tag, Goal::kCostAtMost,
             1.3});
    }
    for (const ListReader& reader : ListReaders()) {
        for (int n : {10000, 100000})
            Register(std::string(reader.name) + "/" + std::to_string(n),
                     [&reader, n](auto& s) { ReadList(s, reader, n); });
        comparisons.push_back({std::string(reader.figure) + ", 100,000 entries against 10,000",
                               std::string(reader.name) + "/100000",
                               std::string(reader.name) + "/10000", Goal::kCostAtMost, 12});
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
        const auto measured = reporter.times.find(c.measured);
        const auto baseline = reporter.times.find(c.baseline);
        if (measured == reporter.times.end() || baseline == reporter.times.end()) continue;
        met &= Report({c.figure, FormatTime(measured->second), FormatTime(baseline->second),
                       measured->second / baseline->second, c.goal, c.target});
    }
    return met ? 0 : 3;
}
