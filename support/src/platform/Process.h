// Running one tool: the platform service behind CProcessUtils.
// Internal to CoreUtils.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace KALDO::platform {

struct ToolRun {
    int exitCode = -1;       // exit status, or 128 + signal
    int signal = 0;          // the signal that ended the tool; 0 when it exited
    std::string out;         // standard output (and standard error when merged)
    std::string err;         // standard error when not merged
    std::string diagnostic;  // why a tool could not run or was stopped
};

// The ids a tool is to run with instead of the host's.
struct RunAs {
    int uid = -1;
    int gid = -1;             // primary group
    std::vector<int> groups;  // supplementary groups
};

// How a tool meant to run as `targetUid` is started by a host whose effective
// user id is hostEuid: only root may take another user's ids, so root
// switches in the child (to root too, which then gets the user's groups);
// a host that already is that user needs no switch; any other host cannot
// switch and runs the tool as itself.
enum class UserSwitch { kAsHost, kAlreadyThatUser, kSwitch };
constexpr UserSwitch PlanUserSwitch(int hostEuid, int targetUid) {
    if (hostEuid == 0) return UserSwitch::kSwitch;
    return hostEuid == targetUid ? UserSwitch::kAlreadyThatUser : UserSwitch::kAsHost;
}

// What a tool may take before its process group is killed: seconds (<= 0:
// no limit) and bytes of output, both streams together (0: no limit).
struct ToolLimits {
    double seconds = 0;
    size_t outputBytes = 0;
};

// Runs the program at hostPath with argv (argv[0] included) and the complete
// environment env, with standard input from /dev/null. When mergeErr is set
// both output streams go to run.out in arrival order. Past a limit the
// tool's process group is killed. With runAs the child takes those groups,
// group id and user id (real, effective and saved) before the exec; the
// host's own ids never change. Returns 0 when the tool ran to its end, else
// kNotFound, kAccessDenied (also when the ids could not be taken),
// kTimedOut, kTooLarge (past the output limit, or more than memory would
// hold; the texts are then empty) or kFailed.
int RunTool(const std::string& hostPath, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, bool mergeErr, const ToolLimits& limits,
            ToolRun& run, const RunAs* runAs = nullptr);

// True when path names a regular file that this process may execute.
bool IsExecutableFile(const std::string& hostPath);

}  // namespace KALDO::platform
