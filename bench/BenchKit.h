// What the benchmarks share: a scratch folder, files, the module's exports,
// the stand-in tool, and the summary that sets each figure beside its
// baseline and target.
#pragma once

#include <string>

namespace implvm_bench {

// A fresh folder under $TMPDIR (or /tmp), removed with its contents at the end.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& tag);
    ~ScratchDir();
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

void WriteFile(const std::string& path, const std::string& content);  // makes the parents

void* ModuleSymbol(const char* name);  // null when the module has no such export

// Installs the test kit's fake tool at root + macPath: every run waits
// `seconds` (asleep, as a tool waits on its service), prints `output` and
// exits 0.
void InstallTool(const std::string& root, const std::string& macPath, const std::string& output,
                 double seconds = 0);

// Empties the processor's caches and hands freed memory back to the system:
// the state a host's inventory pass, minutes after the last, meets.
void EvictCaches();

enum class Goal { kInfo, kCostAtMost };  // shown only, or measured / baseline <= target

struct Figure {
    std::string name, measured, baseline;  // the latter two as shown
    double ratio = 0;
    Goal goal = Goal::kInfo;
    double target = 0;
    std::string skipped = {};  // why it was not measured
};

// Prints the figure and appends it to the file IMPLVM_BENCH_SUMMARY names
// (tab-separated, for scripts/bench's table). False when a target is missed.
bool Report(const Figure& figure);

std::string FormatTime(double nanoseconds);  // "12.345 ms"
std::string Fixed(double value, int digits);

}  // namespace implvm_bench
