#include "KALDO/CProcessUtils.h"

#include <locale.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "CallRecordsSink.h"
#include "ConsoleUserLookup.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"
#include "PathText.h"
#include "ToolTimeLimit.h"
#include "platform/Process.h"

extern char** environ;

namespace KALDO {
namespace {

const wchar_t* const kSourceFile = L"support/src/CProcessUtils.cpp";

// Tools must print the English texts the module looks for, whatever the
// host's language; C.UTF-8 where the system has it keeps UTF-8 output.
const std::string& ToolLocale() {
    static const std::string locale = [] {
        locale_t probe = ::newlocale(LC_ALL_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (probe != static_cast<locale_t>(nullptr)) {
            ::freelocale(probe);
            return std::string("C.UTF-8");
        }
        return std::string("en_US.UTF-8");
    }();
    return locale;
}

// The tool's own name, for a host's message.
std::wstring ToolName(const std::wstring& tool) {
    const size_t slash = tool.rfind(L'/');
    return slash == std::wstring::npos ? tool : tool.substr(slash + 1);
}

// A run that never started, for the scopes open on this thread; returns code.
int NotStarted(const std::wstring& tool, int code, const std::wstring& diagnostic) {
    if (CCallRecords::Sink::open()) {
        try {
            CCallRecords::Sink::toolFailure(
                {ToolName(tool), ToolFailure::Kind::kNotStarted, code, L"", diagnostic});
        } catch (const std::bad_alloc&) {
            // The record is for the host's message; the run's answer stands.
        }
    }
    return code;
}

// A run that failed, for the scopes open on this thread. The error text is
// what the caller got as standard error: both streams when it merged them.
void ReportRun(const std::wstring& tool, int rc, const platform::ToolRun& run, bool merged) {
    if (!CCallRecords::Sink::open()) return;
    ToolFailure failure;
    failure.status = rc;
    if (rc == kTimedOut) {
        failure.kind = ToolFailure::Kind::kTimedOut;
    } else if (rc == kTooLarge) {
        failure.kind = ToolFailure::Kind::kOutputLimit;
    } else if (rc != kOk) {
        failure.kind = ToolFailure::Kind::kNotStarted;
    } else if (run.signal != 0) {
        failure.kind = ToolFailure::Kind::kSignaled;
        failure.status = run.signal;
    } else if (run.exitCode != 0) {
        failure.kind = ToolFailure::Kind::kExited;
        failure.status = run.exitCode;
    } else {
        return;
    }
    try {
        failure.tool = ToolName(tool);
        failure.errorText = detail::LastLines(merged ? run.out : run.err, CCallRecords::kErrorLines,
                                              CCallRecords::kErrorTextBytes);
        failure.diagnostic = CStringUtils::StringToWString(run.diagnostic);
        CCallRecords::Sink::toolFailure(failure);
    } catch (const std::bad_alloc&) {
        // As in NotStarted.
    }
}

std::wstring SecondsText(double seconds) {
    std::wstring text = std::to_wstring(seconds);
    text.erase(text.find_last_not_of(L'0') + 1);
    if (!text.empty() && text.back() == L'.') text.pop_back();
    return text;
}

bool HasName(const char* entry, const char* name) {
    const size_t n = std::strlen(name);
    return std::strncmp(entry, name, n) == 0 && entry[n] == '=';
}

// The host's environment with the tool locale and the machine root; for a
// tool that runs as a user, that user's HOME, USER and LOGNAME instead of
// the host's.
std::vector<std::string> ToolEnvironment(const std::string& root,
                                         const platform::ConsoleUser* user) {
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        if (HasName(*e, "LC_ALL") || HasName(*e, "LANG") || HasName(*e, "LANGUAGE") ||
            HasName(*e, "KALDO_ROOT"))
            continue;
        if (user != nullptr &&
            (HasName(*e, "HOME") || HasName(*e, "USER") || HasName(*e, "LOGNAME")))
            continue;
        env.emplace_back(*e);
    }
    env.push_back("LC_ALL=" + ToolLocale());
    env.push_back("LANG=" + ToolLocale());
    if (!root.empty()) env.push_back("KALDO_ROOT=" + root);
    if (user != nullptr) {
        env.push_back("HOME=" + user->home);
        if (!user->name.empty()) {
            env.push_back("USER=" + user->name);
            env.push_back("LOGNAME=" + user->name);
        }
    }
    return env;
}

// The host path of the tool: absolute paths inside the machine root; bare
// names in the root's tool folders, or on PATH on the real machine.
int ResolveTool(const std::wstring& tool, const std::string& root, std::string& hostPath) {
    if (tool.empty()) return kInvalidArgument;
    const std::string narrow = CStringUtils::WStringToString(tool);
    if (narrow.find('\0') != std::string::npos) return kInvalidArgument;
    if (narrow.front() == '/') return detail::ToHostPath(tool, hostPath);
    if (narrow.find('/') != std::string::npos) {
        hostPath = narrow;
        return kOk;
    }
    std::string searchPath;
    if (!root.empty()) {
        searchPath = root + "/usr/bin:" + root + "/bin:" + root + "/usr/sbin:" + root + "/sbin";
    } else {
        const char* path = std::getenv("PATH");
        searchPath = (path != nullptr && *path != '\0') ? path : "/usr/bin:/bin:/usr/sbin:/sbin";
    }
    size_t start = 0;
    while (start <= searchPath.size()) {
        size_t end = searchPath.find(':', start);
        if (end == std::string::npos) end = searchPath.size();
        const std::string folder = searchPath.substr(start, end - start);
        const std::string candidate = (folder.empty() ? "." : folder) + "/" + narrow;
        if (platform::IsExecutableFile(candidate)) {
            hostPath = candidate;
            return kOk;
        }
        start = end + 1;
    }
    return kNotFound;
}

// Column where the command starts in a ps listing, from its header line.
size_t CommandColumn(const std::wstring& header) {
    const size_t column = header.find(L"COMMAND");
    return column == std::wstring::npos ? header.find(L"CMD") : column;
}

// The command text of one listing line: from the header's command column,
// or after the fourth field when the line is shorter than the header says.
std::wstring CommandOf(const std::wstring& line, size_t column) {
    if (column != std::wstring::npos && column < line.size() && column > 0 &&
        line[column - 1] == L' ')
        return line.substr(column);
    size_t pos = 0;
    for (int field = 0; field < 4; ++field) {
        pos = line.find_first_not_of(L" \t", pos);
        if (pos == std::wstring::npos) return L"";
        pos = line.find_first_of(L" \t", pos);
        if (pos == std::wstring::npos) return L"";
    }
    pos = line.find_first_not_of(L" \t", pos);
    return pos == std::wstring::npos ? L"" : line.substr(pos);
}

bool CommandMatches(const std::wstring& command, const std::wstring& name, bool exactName,
                    bool matchFullCommand) {
    const size_t programEnd = command.find(L' ');
    const std::wstring program =
        programEnd == std::wstring::npos ? command : command.substr(0, programEnd);
    if (exactName) {
        const size_t slash = program.rfind(L'/');
        return (slash == std::wstring::npos ? program : program.substr(slash + 1)) == name;
    }
    return (matchFullCommand ? command : program).find(name) != std::wstring::npos;
}

}  // namespace

int CProcessUtils::ExecuteSafeToText(const std::wstring& tool,
                                     const std::vector<std::wstring>& args, int& exitCode,
                                     std::wstring* out, std::wstring* err, std::wstring* third) {
    return ExecuteSafeToText(tool, args, exitCode, out, err, third, RunOptions{});
}

int CProcessUtils::ExecuteSafeToText(const std::wstring& tool,
                                     const std::vector<std::wstring>& args, int& exitCode,
                                     std::wstring* out, std::wstring* err, std::wstring* third,
                                     const RunOptions& options) {
    int injected = 0;
    if (CFailpoints::Check("ExecuteSafeToText", tool, injected))
        return NotStarted(tool, injected, L"");

    platform::ConsoleUser user;
    platform::RunAs runAs;
    platform::UserSwitch how = platform::UserSwitch::kAsHost;
    if (options.asConsoleUser) {
        const int found = detail::LookUpConsoleUser(user);
        if (found < 0) {
            const std::wstring why = L"no user is logged in at the console";
            if (third != nullptr) *third = why;
            return NotStarted(tool, found, why);
        }
        how = platform::PlanUserSwitch(static_cast<int>(::geteuid()), user.uid);
        runAs = {user.uid, user.gid, user.groups};
    }

    const std::string root = CMachineRoot::Get();
    std::string hostPath;
    const int resolved = ResolveTool(tool, root, hostPath);
    if (resolved != kOk) {
        const std::wstring why =
            tool + L": " + (resolved == kNotFound ? L"not found" : L"invalid tool name");
        if (third != nullptr) *third = why;
        return NotStarted(tool, resolved, why);
    }

    std::vector<std::string> argv;
    argv.reserve(args.size() + 1);
    argv.push_back(hostPath);
    for (const std::wstring& arg : args) {
        // A NUL would end the argument early: the tool would get another one.
        if (arg.find(L'\0') != std::wstring::npos) {
            const std::wstring why = tool + L": an argument holds U+0000";
            if (third != nullptr) *third = why;
            return NotStarted(tool, kInvalidArgument, why);
        }
        argv.push_back(CStringUtils::WStringToString(arg));
    }

    platform::ToolRun run;
    const bool asUser = how != platform::UserSwitch::kAsHost;
    const platform::ToolLimits limits{
        options.noTimeLimit
            ? 0
            : detail::ToolTimeLimit(options.isAction, std::getenv("KALDO_TOOL_TIMEOUT")),
        kToolOutputLimitBytes};
    const int rc = platform::RunTool(
        hostPath, argv, ToolEnvironment(root, asUser ? &user : nullptr), err == nullptr, limits,
        run, how == platform::UserSwitch::kSwitch ? &runAs : nullptr);
    if (third != nullptr) *third = CStringUtils::StringToWString(run.diagnostic);
    // A host must be able to tell a hung or runaway tool from a failing one,
    // whatever code the caller makes of it: the library records these itself.
    if (rc == kTimedOut)
        CErrorInfo::addIfError(
            rc, kSourceFile, __LINE__,
            ToolName(tool) + L" did not answer within " + SecondsText(limits.seconds) + L" s");
    if (rc == kTooLarge)
        CErrorInfo::addIfError(rc, kSourceFile, __LINE__,
                               ToolName(tool) + L" printed more than " +
                                   std::to_wstring(kToolOutputLimitBytes >> 20) + L" MiB");
    ReportRun(tool, rc, run, err == nullptr);
    if (rc != kOk && rc != kTimedOut) return rc;
    exitCode = run.exitCode;
    if (out != nullptr) *out = CStringUtils::StringToWString(run.out);
    if (err != nullptr) *err = CStringUtils::StringToWString(run.err);
    return rc;
}

int CProcessUtils::GetProcessListing_MAC(std::wstring& listing, const std::string& options) {
    int injected = 0;
    if (CFailpoints::Check("GetProcessListing_MAC", injected)) return injected;
    int exitCode = 0;
    std::wstring text, errors;
    const int rc = ExecuteSafeToText(L"/bin/ps", {CStringUtils::StringToWString(options)}, exitCode,
                                     &text, &errors, nullptr);
    if (rc < 0) return rc;
    if (exitCode != 0) return kFailed;
    listing = std::move(text);
    return kOk;
}

int CProcessUtils::GetProcessIdByName(const std::wstring& name, int& pid, bool exactName,
                                      bool matchFullCommand) {
    int injected = 0;
    if (CFailpoints::Check("GetProcessIdByName", name, injected)) return injected;
    std::wstring listing;
    const int rc = GetProcessListing_MAC(listing, "wwax");
    if (rc < 0) return rc;

    size_t column = std::wstring::npos;
    bool header = true;
    size_t start = 0;
    while (start < listing.size()) {
        size_t end = listing.find(L'\n', start);
        if (end == std::wstring::npos) end = listing.size();
        std::wstring line = listing.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == L'\r') line.pop_back();
        if (header) {
            header = false;
            column = CommandColumn(line);
            if (column != std::wstring::npos) continue;  // a real header line
        }
        const std::wstring command = CommandOf(line, column);
        if (command.empty() || !CommandMatches(command, name, exactName, matchFullCommand))
            continue;
        const int value = CStringUtils::StrToI32(line);
        if (value > 0) {
            pid = value;
            return kOk;
        }
    }
    return kOk;
}

}  // namespace KALDO
