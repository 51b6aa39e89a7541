// What every benchmark shares: a scratch folder, files, the module's exports,
// the stand-in tool, and the summary that sets each figure beside its
// baseline and target.
#pragma once

#include <string>
#include <vector>

namespace implvm_bench {

// A fresh folder under $TMPDIR (or /tmp), removed with its contents at the end.
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

void MakeDirs(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);  // makes the parents

// An export of the module (loaded once), or null when it has none.
void* ModuleSymbol(const char* name);

// Installs the fake tool of the test kit at root + macPath: every run waits
// `seconds` (asleep, as a tool waits on its service), prints `output` and
// exits 0.
void InstallTool(const std::string& root, const std::string& macPath, const std::string& output,
                 double seconds = 0);

// Empties the processor's caches and hands freed memory back to the system:
// the state a host's inventory pass, minutes after the last, meets.
void EvictCaches();

// ---- the summary ----

enum class Goal {
    kInfo,       // shown, no target
    kCostAtMost  // measured / baseline <= target
};

struct Figure {
    std::string name;
    std::string measured;  // as shown
    std::string baseline;  // as shown
    double ratio = 0;
    Goal goal = Goal::kInfo;
    double target = 0;
    std::string skipped = {};  // why it was not measured ("" when it was)
};

// Prints the figure and appends it to the file IMPLVM_BENCH_SUMMARY names
// (tab-separated, for scripts/bench's table). False when a target is missed.
bool Report(const Figure& figure);

// "12.3 ms": a time in nanoseconds in a readable unit.
std::string FormatTime(double nanoseconds);
std::string Fixed(double value, int digits);

}  // namespace implvm_bench
