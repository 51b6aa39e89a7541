// Shared pieces of the benchmarks: a scratch folder, generated texts, the
// module's exported routines looked up at run time, and the summary that sets
// every figure beside the baseline measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace implvm_bench {

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it when
// the object goes away.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& tag);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Creates the parent folders of path, then the file with content.
void WriteFile(const std::string& path, const std::string& content);
void MakeDirs(const std::string& path);

// Log-like text of about `bytes` bytes, cut at a line end. With
// multiByteShare > 0 that share of the characters are non-ASCII (a mix of
// two-, three- and four-byte UTF-8 sequences), spread through the lines.
std::string LogText(size_t bytes, double multiByteShare);

// Number of code points in UTF-8 text (the wide length after decoding).
size_t CodePoints(const std::string& utf8);

// The module (libImplVirtualMachine), loaded once; Symbol() is null when the
// module has no such export (an adapter not built yet).
void* ModuleSymbol(const char* name);
template <typename Fn>
Fn* ModuleFunction(const char* name) {
    return reinterpret_cast<Fn*>(ModuleSymbol(name));
}

// Reads through a buffer several times the size of any processor's
// last-level cache, so that what a call touches next comes from memory.
void EvictCaches();

// Writes DIR/.machine naming a console user with the given home.
void WriteConsoleUser(const std::string& root, const std::string& home);

// Installs the bench tool at root + macPath; it prints `output` and exits 0.
void InstallPrintingTool(const std::string& root, const std::string& macPath,
                         const std::string& output);

// ---- the summary ----

// How a figure is set against its baseline.
enum class Goal {
    kInfo,         // shown, no target
    kCostAtMost,   // measured time / baseline time <= target
    kSpeedAtLeast  // baseline time / measured time >= target
};

struct Comparison {
    std::string figure;    // what the line says
    std::string measured;  // benchmark name
    std::string baseline;  // benchmark name
    Goal goal = Goal::kInfo;
    double target = 0;
    // When set, each side is itself a ratio: measured / measuredOver against
    // baseline / baselineOver (to compare overheads under two conditions).
    std::string measuredOver = {};
    std::string baselineOver = {};
};

// Runs the benchmarks selected on the command line with the console output,
// then prints one line per comparison whose two benchmarks both ran: the
// measured figure, its baseline, their ratio, the target and whether it
// holds. When IMPLVM_BENCH_SUMMARY names a file, the lines are also appended
// to it (tab-separated) for the overall table. Returns the number of targets
// missed.
int RunAndSummarize(int argc, char** argv, const std::vector<Comparison>& comparisons);

// Appends one line to the overall summary file (when set): used by the
// figures that are not Google Benchmark runs, such as peak memory.
void AppendSummaryLine(const std::string& figure, const std::string& measured,
                       const std::string& baseline, double ratio, const std::string& target,
                       bool met, bool hasTarget);

// "12.3 ms", "850 us": a time in nanoseconds in a readable unit.
std::string FormatTime(double nanoseconds);
// "1.23 GB/s"
std::string FormatRate(double bytesPerSecond);

}  // namespace implvm_bench
