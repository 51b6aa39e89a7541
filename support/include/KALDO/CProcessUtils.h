// Running tools and looking at running processes. No shell is ever involved:
// a tool gets its arguments as separate strings, byte for byte.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KALDO/Export.h"

namespace KALDO {

class KALDO_API CProcessUtils {
public:
    // What a tool may print before it is killed: ample for any report a
    // hypervisor tool writes, far below what would exhaust a host's memory.
    static constexpr size_t kToolOutputLimitBytes = size_t(64) << 20;

    // Runs `tool` (an absolute path, taken inside the machine root, or a bare
    // name searched on the machine's tool folders / PATH) with `args`, waits
    // for it and stores its exit status in exitCode (128 + signal number for
    // a tool killed by a signal).
    //   out:   standard output, decoded from UTF-8 (replaced), when not null;
    //   err:   standard error (replaced) when not null; when err is null,
    //          standard error is merged into *out in arrival order;
    //   third: when not null, a one-line diagnostic of the run (the reason a
    //          tool could not be started, or that it was killed).
    // Returns 0 when the tool ran to its end (whatever its exit status);
    // kNotFound when the tool does not exist, kAccessDenied when it cannot be
    // executed, kInvalidArgument when an argument holds U+0000 (nothing
    // runs), kTimedOut when it ran past its time limit and was killed (out
    // and err then hold what it printed), kTooLarge when it printed more than
    // kToolOutputLimitBytes (both streams together) or more than memory
    // holds and was killed, kFailed for other start or wait failures. A
    // timed-out or runaway tool also gets a record of the library's own in
    // the error log (code -7 or -8, ErrorRecord::detail naming the tool:
    // "VBoxManage did not answer within 60 s"). Time limits: 60 s for a
    // reading tool, 300 s with RunOptions::isAction; KALDO_TOOL_TIMEOUT
    // (seconds, 0 for none) sets one limit for all. The tool runs with an
    // English UTF-8 locale, with KALDO_ROOT in its environment when a machine
    // root is set, and inherits no descriptor but its three standard
    // streams; its standard input is /dev/null. No child is left unreaped.
    static int ExecuteSafeToText(const std::wstring& tool, const std::vector<std::wstring>& args,
                                 int& exitCode, std::wstring* out, std::wstring* err,
                                 std::wstring* third);

    // How a tool runs, beyond what ExecuteSafeToText always does.
    struct RunOptions {
        // As the user logged in at the console (the user
        // CAppleUtils::GetCurrentLoggedInUserInfo reports): the tool starts
        // with that user's real, effective and saved user id, primary group
        // and supplementary groups, and HOME, USER and LOGNAME of that user
        // (USER and LOGNAME are left out where the name is unknown). A host
        // running as root takes the user's ids in the child, between fork
        // and exec, so the host's own ids never change and tools that other
        // threads start meanwhile run as the host. A host that already is
        // that user runs the tool with those variables; any other host cannot
        // switch and runs the tool as itself, as without the option.
        // kNotFound when there is no console user; kAccessDenied when a root
        // host could not take the user's ids (the tool does not run).
        bool asConsoleUser = false;
        // No time limit, for a program meant to keep running (an application
        // that is opened); the call returns when it ends.
        bool noTimeLimit = false;
        // An action that changes a VM (start, stop, suspend, a snapshot): the
        // longer default time limit.
        bool isAction = false;
    };
    static int ExecuteSafeToText(const std::wstring& tool, const std::vector<std::wstring>& args,
                                 int& exitCode, std::wstring* out, std::wstring* err,
                                 std::wstring* third, const RunOptions& options);

    // The text of "/bin/ps" run with `options` (the module passes "wwax") as
    // its single argument. Negative when ps cannot be run or exits non-zero.
    static int GetProcessListing_MAC(std::wstring& listing, const std::string& options);

    // Looks for a running process by name in the "wwax" listing.
    //   exactName false: the first listing line (after the header) whose
    //                    command text contains `name`;
    //   exactName true:  the first line whose command's program name (the
    //                    last path component of its first word) equals name;
    //   matchFullCommand: with false, only the program path (first word of
    //                    the command) is searched; with true, the whole
    //                    command line.
    // Sets pid and returns 0 when found; returns 0 with pid untouched when
    // not found; negative when the listing cannot be had.
    static int GetProcessIdByName(const std::wstring& name, int& pid, bool exactName,
                                  bool matchFullCommand);
};

}  // namespace KALDO
