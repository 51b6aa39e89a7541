// Running one tool: the platform service behind CProcessUtils.
// Internal to CoreUtils.
#pragma once

#include <string>
#include <vector>

namespace KALDO::platform {

struct ToolRun {
    int exitCode = -1;       // exit status, or 128 + signal
    std::string out;         // standard output (and standard error when merged)
    std::string err;         // standard error when not merged
    std::string diagnostic;  // why a tool could not run or was stopped
};

// Runs the program at hostPath with argv (argv[0] included) and the complete
// environment env, with standard input from /dev/null. When mergeErr is set
// both output streams go to run.out in arrival order. timeoutSeconds <= 0
// means no limit; past it the tool's process group is killed.
// Returns 0 when the tool ran to its end, else kNotFound, kAccessDenied,
// kTimedOut or kFailed.
int RunTool(const std::string& hostPath, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, bool mergeErr, double timeoutSeconds,
            ToolRun& run);

// True when path names a regular file that this process may execute.
bool IsExecutableFile(const std::string& hostPath);

}  // namespace KALDO::platform
