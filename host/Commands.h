// The implvm commands. main.cpp owns the global options and registers each
// command through its Add...Command function; a command reaches the module
// and the global settings through the Host it is given.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "ModuleLoader.h"

namespace implvm {

// Exit statuses of every command.
enum ExitStatus : int {
    kExitOk = 0,  // the method (or the command) answered with 0 or more
    // The command could not do its work: a method answered a negative code, a
    // tool was killed at its time limit, or the output could not be written.
    kExitFailed = 1,
    kExitUsage = 2,  // implvm was called wrongly or the module cannot be loaded
};

inline constexpr const char* kExitStatusHelp =
    "Exit status: 0 when the command did its work (every method it called answered 0 or more), "
    "1 when it could not (a method answered a negative code, a tool hung, a file implvm reads "
    "itself could not be read, the output could not be written), 2 for a usage error (an "
    "unknown command, option, method or VM, a missing or malformed value, a NUL in a VM or "
    "snapshot name, an action the VM's hypervisor does not offer, a module that cannot be "
    "loaded).";

inline int ExitStatusFor(int methodResult) {
    return methodResult >= 0 ? kExitOk : kExitFailed;
}

// Standard output for as long as implvm runs, checked. std::cout goes
// through it; it writes to descriptor 1 and remembers why the first write
// that failed did (a full disk, a closed stream), since the moment of the
// failure is the only one that knows.
//
// Before anything else, it makes sure descriptors 0, 1 and 2 are open: a
// file the module opens must never become implvm's standard output. A closed
// standard output or error gets /dev/null opened for reading, so that writes
// to it still fail as on the closed stream.
class StandardOutput {
public:
    StandardOutput();
    ~StandardOutput();  // gives std::cout its own buffer back
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    // Flushes what the command wrote. When any of it was lost, says so in one
    // line on standard error and returns kExitFailed unless `status` already
    // says a failure; otherwise returns `status`.
    int finish(int status);

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
    std::streambuf* original_ = nullptr;
};

// What a method's negative result code means, in a few words ("refused by
// the system or the hypervisor" for -4).
const char* CodeMeaning(int code);

// A method's inputs: a map of the given keys to text values, in that order.
KALDO::typeProperty TextInputs(const std::vector<std::pair<const wchar_t*, std::string>>& pairs);

// A mistake in how implvm was called: one line on standard error, status 2.
// It may list further lines (the candidates of an ambiguous name), each
// printed on a line of its own below it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    UsageError(const std::string& message, std::vector<std::string> lines)
        : std::runtime_error(message), lines_(std::move(lines)) {}
    const std::vector<std::string>& lines() const { return lines_; }

private:
    std::vector<std::string> lines_;
};

// A command that could not do its work for a reason no method answered (a
// file implvm reads itself, a tool that hung): one line on standard error,
// status 1.
class CommandFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The global options, as parsed (null option pointers until registered).
struct GlobalOptions {
    std::string root;
    std::string modulePath;
    std::string failpoints;
    bool verbose = false;  // -v: failures in full (codes, source files and lines)
    CLI::Option* rootOption = nullptr;
    CLI::Option* moduleOption = nullptr;
    CLI::Option* failOption = nullptr;
};

// What the commands share.
class Host {
public:
    explicit Host(const char* argv0) : argv0_(argv0) {}

    GlobalOptions& options() { return options_; }

    // Puts --root (the machine root, also exported as KALDO_ROOT to the tools
    // the module runs) and --fail (failpoints) in place. Runs once, after
    // parsing and before any command. Throws UsageError.
    void applyGlobalOptions();

    // The module (--module, else the one installed beside implvm), loaded on
    // first use. Throws ModuleError when it cannot be loaded.
    const Module& module();

    // The status implvm exits with once the command has run.
    void setExitStatus(int status) { exitStatus_ = status; }
    int exitStatus() const { return exitStatus_; }

private:
    const char* argv0_;
    GlobalOptions options_;
    std::unique_ptr<Module> module_;
    int exitStatus_ = kExitOk;
};

// The end of a command's --help: its own notes, then what every command
// shares (global options, exit status). A command whose status means
// something else gives its own exit-status text.
std::string CommandFooter(const std::string& notes,
                          const std::string& exitStatus = kExitStatusHelp);

// The version of implvm's JSON documents; a consumer checks it before
// reading one. It grows when a key changes meaning or goes away, not when
// one is added.
inline constexpr int kSchemaVersion = 1;

// {"schemaVersion": kSchemaVersion} followed by the document's own keys.
Json WithSchema(const Json& document);

// One JSON document on standard output, two-space indented; text that is not
// UTF-8 is replaced rather than refused.
void PrintJson(const Json& document);

// --jobs N on a command that describes several VMs: how many method calls
// run side by side (1: one after another).
void AddJobsOption(CLI::App& command, int& jobs);

// implvm help [COMMAND]
void AddHelpCommand(CLI::App& app);

// The one line implvm prints for a mistake in how it was called, in its own
// words (the argument library's are written for programmers), with a
// did-you-mean for a mistyped command.
std::string UsageMessage(const CLI::ParseError& error, const CLI::App& app, int argc, char** argv);

// implvm call METHOD [--product-version X.Y.Z] [--in KEY=VALUE]... [--in-json JSON]
void AddCallCommand(CLI::App& app, Host& host);
// implvm methods
void AddMethodsCommand(CLI::App& app, Host& host);
// implvm inventory [--json]
void AddInventoryCommand(CLI::App& app, Host& host);
// implvm list [--hypervisor NAME] [--running] [--json], implvm info VM [--json]
void AddListCommands(CLI::App& app, Host& host);
// implvm detect [--json]
void AddDetectCommand(CLI::App& app, Host& host);
// implvm start|stop|suspend|pause|resume VM, implvm snapshot take|delete|list VM [NAME]
void AddVmCommands(CLI::App& app, Host& host);

}  // namespace implvm
