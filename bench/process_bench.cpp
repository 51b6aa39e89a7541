// Cost of running a tool: ExecuteSafeToText against a bare posix_spawn +
// waitpid of the same program, first as a small process, then holding 2 GB
// of resident memory (a large host must not pay for its size on each run).
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "BenchKit.h"
#include "KALDO/CProcessUtils.h"
#include "KALDO/MachineRoot.h"

extern char** environ;

using namespace implvm_bench;

namespace {

constexpr const char* kTool = "/bin/true";
constexpr size_t kResidentBytes = size_t{2} << 30;

// Brings the process to the state a benchmark asks for: holding 2 GB of
// touched memory or not. The memory is mapped and touched, or unmapped, as
// the benchmarks switch, so that they may run interleaved (scripts/bench
// does): figures taken side by side suffer the same background noise.
void SetResidentMemory(bool wanted) {
    static void* block = nullptr;
    if (wanted == (block != nullptr)) return;
    if (!wanted) {
        ::munmap(block, kResidentBytes);
        block = nullptr;
        return;
    }
    void* p =
        ::mmap(nullptr, kResidentBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;
    // Distinct contents, so that no page can be shared or merged.
    auto* bytes = static_cast<unsigned char*>(p);
    for (size_t at = 0; at < kResidentBytes; at += 4096)
        bytes[at] = static_cast<unsigned char>(at >> 12);
    block = p;
    // The first tool runs after touching that much memory are slow while the
    // system settles; let that pass outside every measurement.
    char* argv[] = {const_cast<char*>(kTool), nullptr};
    for (int k = 0; k < 50; ++k) {
        pid_t pid = -1;
        if (::posix_spawn(&pid, kTool, nullptr, nullptr, argv, environ) == 0)
            ::waitpid(pid, nullptr, 0);
    }
}

void ExecuteSafeToText(benchmark::State& state, bool resident) {
    SetResidentMemory(resident);
    const std::wstring tool = L"/bin/true";
    const std::vector<std::wstring> args;
    for (auto _ : state) {
        int exitCode = -1;
        std::wstring out;
        if (KALDO::CProcessUtils::ExecuteSafeToText(tool, args, exitCode, &out, nullptr, nullptr) !=
                0 ||
            exitCode != 0) {
            state.SkipWithError("tool run failed");
            return;
        }
    }
}

void PosixSpawn(benchmark::State& state, bool resident) {
    SetResidentMemory(resident);
    char* argv[] = {const_cast<char*>(kTool), nullptr};
    for (auto _ : state) {
        pid_t pid = -1;
        if (::posix_spawn(&pid, kTool, nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            return;
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
}

// What posix_spawn avoids: fork copies the page tables of the whole process.
void ForkExec(benchmark::State& state, bool resident) {
    SetResidentMemory(resident);
    char* argv[] = {const_cast<char*>(kTool), nullptr};
    for (auto _ : state) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::execve(kTool, argv, environ);
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
}

}  // namespace

int main(int argc, char** argv) {
    KALDO::CMachineRoot::Set("");
    for (const bool resident : {false, true}) {
        const std::string tag = resident ? "/resident2GB" : "";
        benchmark::RegisterBenchmark(
            ("ExecuteSafeToText/bin_true" + tag).c_str(),
            [resident](benchmark::State& s) { ExecuteSafeToText(s, resident); })
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("posix_spawn+waitpid/bin_true" + tag).c_str(),
                                     [resident](benchmark::State& s) { PosixSpawn(s, resident); })
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("fork+exec+waitpid/bin_true" + tag).c_str(),
                                     [resident](benchmark::State& s) { ForkExec(s, resident); })
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime();
    }
    const std::vector<Comparison> comparisons = {
        {"ExecuteSafeToText(/bin/true) per call", "ExecuteSafeToText/bin_true",
         "posix_spawn+waitpid/bin_true", Goal::kCostAtMost, 1.3},
        {"ExecuteSafeToText(/bin/true) per call, 2 GB resident",
         "ExecuteSafeToText/bin_true/resident2GB", "posix_spawn+waitpid/bin_true/resident2GB",
         Goal::kCostAtMost, 1.3},
        {"ExecuteSafeToText with 2 GB resident against without",
         "ExecuteSafeToText/bin_true/resident2GB", "ExecuteSafeToText/bin_true", Goal::kInfo, 0},
        {"bare spawn with 2 GB resident against without (the system's own cost)",
         "posix_spawn+waitpid/bin_true/resident2GB", "posix_spawn+waitpid/bin_true", Goal::kInfo,
         0},
        {"ExecuteSafeToText over a bare spawn: with 2 GB resident against without",
         "ExecuteSafeToText/bin_true/resident2GB", "ExecuteSafeToText/bin_true", Goal::kCostAtMost,
         1.1, "posix_spawn+waitpid/bin_true/resident2GB", "posix_spawn+waitpid/bin_true"},
        {"fork+exec with 2 GB resident (what posix_spawn avoids)",
         "fork+exec+waitpid/bin_true/resident2GB", "posix_spawn+waitpid/bin_true/resident2GB",
         Goal::kInfo, 0},
    };
    return RunAndSummarize(argc, argv, comparisons) == 0 ? 0 : 3;
}
