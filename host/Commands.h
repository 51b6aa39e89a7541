// The implvm commands. main.cpp owns the global options and registers each
// command through its Add...Command function; a command reaches the module
// and the global settings through the Host it is given.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ModuleLoader.h"

namespace implvm {

// Exit statuses of every command.
enum ExitStatus : int {
    kExitOk = 0,      // the method (or the command) answered with 0 or more
    kExitFailed = 1,  // the method answered with a negative code
    kExitUsage = 2,   // implvm was called wrongly or the module cannot be loaded
};

inline constexpr const char* kExitStatusHelp =
    "Exit status: 0 when the command did its work (every method it called answered 0 or more), "
    "1 when a method answered a negative code, 2 for a usage error (an unknown command, "
    "option, method or VM, a missing or malformed value, an action the VM's hypervisor does "
    "not offer, a module that cannot be loaded).";

inline int ExitStatusFor(int methodResult) {
    return methodResult >= 0 ? kExitOk : kExitFailed;
}

// What a method's negative result code means, in a few words ("refused by
// the system or the hypervisor" for -4).
const char* CodeMeaning(int code);

// A method's inputs: a map of the given keys to text values, in that order.
KALDO::typeProperty TextInputs(const std::vector<std::pair<const wchar_t*, std::string>>& pairs);

// A mistake in how implvm was called: one line on standard error, status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The global options, as parsed (null option pointers until registered).
struct GlobalOptions {
    std::string root;
    std::string modulePath;
    std::string failpoints;
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

// implvm call METHOD [--product-version X.Y.Z] [--in KEY=VALUE]... [--in-json JSON]
void AddCallCommand(CLI::App& app, Host& host);
// implvm methods
void AddMethodsCommand(CLI::App& app, Host& host);
// implvm inventory [--json]
void AddInventoryCommand(CLI::App& app, Host& host);
// implvm start|stop|suspend|pause|resume VM, implvm snapshot take|delete|list VM [NAME]
void AddVmCommands(CLI::App& app, Host& host);

}  // namespace implvm
