// Loading libImplVirtualMachine and calling its method functions the way a
// host does: three host context values (0 here), the product's version
// record, an input tree and an output tree. Every implvm command goes
// through this.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "ImplVirtualMachine.h"
#include "KALDO/CCallRecords.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/typeProperty.h"
#include "TreeJson.h"

namespace implvm {

// The module cannot be loaded, or a name is not one of its method functions.
class ModuleError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What one method call gave.
struct CallOutcome {
    int result = 0;
    KALDO::typeProperty outputs;                   // empty (null) when untouched
    std::vector<KALDO::ErrorRecord> errors;        // the records this call added, oldest first
    std::vector<KALDO::ToolFailure> toolFailures;  // the tool runs it made that failed
};

// The support library's own word on a tool it killed at its time limit
// during the call ("VBoxManage did not answer within 60 s"); "" when it
// killed none. The module's records say only that the call failed.
std::string TimedOutTool(const CallOutcome& outcome);

// "exited with status 1", "ended by signal 9", "did not run: ...".
std::string HowItEnded(const KALDO::ToolFailure& failure);

// {"result": int, "outputs": tree, "errors": [{"code", "file", "line"}, ...]},
// and "toolFailures": [{"tool", "ended", "said"}, ...] when a tool failed.
Json OutcomeToJson(const CallOutcome& outcome);
Json ErrorsToJson(const std::vector<KALDO::ErrorRecord>& errors);

class Module {
public:
    // The module installed beside a binary: <binary folder>/../lib/implvm/
    // libImplVirtualMachine.so (.dylib on macOS). The binary is found
    // through /proc/self/exe, else through argv0 (resolved on PATH when it
    // has no slash).
    static std::string DefaultPath(const char* argv0);

    // Loads the module (dlopen). Throws ModuleError with the loader's reason.
    explicit Module(const std::string& path);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const std::string& path() const { return path_; }

    // The method functions the loaded module resolves, in the order of the
    // module's method list.
    std::vector<std::string> methods() const;
    bool hasMethod(const std::string& name) const;

    // Calls method `name` with host context 0, 0, 0, the version built from
    // versionText (none when empty) and `inputs`, on a fresh output tree.
    // Throws ModuleError when the module exports no such method function.
    CallOutcome call(const std::string& name, const KALDO::typeProperty& inputs,
                     const std::string& versionText = "") const;

private:
    std::string path_;
    void* handle_ = nullptr;
};

}  // namespace implvm
