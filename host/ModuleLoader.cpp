#include "ModuleLoader.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

#include "KALDO/CCallRecords.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"
#include "Methods.h"

namespace implvm {

namespace {

#ifdef __APPLE__
constexpr const char* kModuleFileName = "libImplVirtualMachine.dylib";
#else
constexpr const char* kModuleFileName = "libImplVirtualMachine.so";
#endif

bool IsKnownMethod(const std::string& name) {
    return ImplVm::FindMethod(name) != nullptr;
}

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

// The running binary's own path, "" when it cannot be found.
std::string ExecutablePath(const char* argv0) {
    const std::string self = RealPath("/proc/self/exe");
    if (!self.empty() || argv0 == nullptr || *argv0 == '\0') return self;
    const std::string name = argv0;
    if (name.find('/') != std::string::npos) return RealPath(name);
    const char* searchPath = ::getenv("PATH");
    std::string_view folders = searchPath != nullptr ? searchPath : "";
    while (!folders.empty()) {
        const size_t colon = folders.find(':');
        const std::string folder(folders.substr(0, colon));
        folders = colon == std::string_view::npos ? std::string_view() : folders.substr(colon + 1);
        const std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return RealPath(candidate);
    }
    return "";
}

}  // namespace

std::string HowItEnded(const KALDO::ToolFailure& failure) {
    using Kind = KALDO::ToolFailure::Kind;
    const std::string status = std::to_string(failure.status);
    switch (failure.kind) {
        case Kind::kExited:
            return "exited with status " + status;
        case Kind::kSignaled:
            return "ended by signal " + status;
        case Kind::kTimedOut:
            return "was killed at its time limit";
        case Kind::kOutputLimit:
            return "was killed for printing too much";
        case Kind::kNotStarted:
            break;
    }
    const std::string why = KALDO::CStringUtils::WStringToString(failure.diagnostic);
    return "did not run" + (why.empty() ? "" : ": " + why);
}

std::string TimedOutTool(const CallOutcome& outcome) {
    for (const KALDO::ErrorRecord& record : outcome.errors)
        if (record.code == KALDO::kTimedOut && !record.detail.empty())
            return KALDO::CStringUtils::WStringToString(record.detail);
    return "";
}

Json ErrorsToJson(const std::vector<KALDO::ErrorRecord>& errors) {
    Json list = Json::array();
    for (const KALDO::ErrorRecord& record : errors) {
        Json entry = {{"code", record.code},
                      {"file", KALDO::CStringUtils::WStringToString(record.file)},
                      {"line", record.line}};
        if (!record.detail.empty())
            entry["detail"] = KALDO::CStringUtils::WStringToString(record.detail);
        list.push_back(std::move(entry));
    }
    return list;
}

Json OutcomeToJson(const CallOutcome& outcome) {
    Json json{{"result", outcome.result},
              {"outputs", TreeToJson(outcome.outputs)},
              {"errors", ErrorsToJson(outcome.errors)}};
    if (!outcome.toolFailures.empty()) {
        Json failures = Json::array();
        for (const KALDO::ToolFailure& failure : outcome.toolFailures)
            failures.push_back({{"tool", KALDO::CStringUtils::WStringToString(failure.tool)},
                                {"ended", HowItEnded(failure)},
                                {"said", KALDO::CStringUtils::WStringToString(failure.errorText)}});
        json["toolFailures"] = std::move(failures);
    }
    return json;
}

std::string Module::DefaultPath(const char* argv0) {
    const std::string binary = ExecutablePath(argv0);
    const std::filesystem::path folder = binary.empty()
                                             ? std::filesystem::current_path()
                                             : std::filesystem::path(binary).parent_path();
    return (folder / ".." / "lib" / "implvm" / kModuleFileName).lexically_normal().string();
}

Module::Module(const std::string& path)
    // A bare file name means the one in the current folder, not a search of
    // the system's library folders.
    : path_(path.find('/') == std::string::npos ? "./" + path : path) {
    ::dlerror();
    handle_ = ::dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = ::dlerror();
        throw ModuleError("cannot load module " + path_ + ": " +
                          (reason != nullptr ? reason : "unknown reason"));
    }
}

Module::~Module() {
    if (handle_ != nullptr) ::dlclose(handle_);
}

bool Module::hasMethod(const std::string& name) const {
    return IsKnownMethod(name) && ::dlsym(handle_, name.c_str()) != nullptr;
}

std::vector<std::string> Module::methods() const {
    std::vector<std::string> names;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods) {
        const std::string name(method.name);
        if (::dlsym(handle_, name.c_str()) != nullptr) names.push_back(name);
    }
    return names;
}

CallOutcome Module::call(const std::string& name, const KALDO::typeProperty& inputs,
                         const std::string& versionText) const {
    if (!IsKnownMethod(name)) throw ModuleError("'" + name + "' is not a method function");
    auto* method = reinterpret_cast<ImplVmMethod*>(::dlsym(handle_, name.c_str()));
    if (method == nullptr) throw ModuleError("the module does not export " + name);

    std::optional<KALDO::CSoftwareVersion> version;
    if (!versionText.empty()) version.emplace(versionText);

    CallOutcome outcome;
    {
        // This thread's records only: other threads may be calling methods.
        KALDO::CCallRecords records;
        outcome.result = method(0, 0, 0, version ? &*version : nullptr, &inputs, &outcome.outputs);
        outcome.errors = records.errors();
        outcome.toolFailures = records.toolFailures();
    }
    return outcome;
}

}  // namespace implvm
