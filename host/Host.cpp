#include <stdlib.h>

#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"

namespace implvm {

void Host::applyGlobalOptions() {
    if (options_.rootOption != nullptr && options_.rootOption->count() > 0) {
        // An empty --root means the real machine, whatever KALDO_ROOT says.
        std::string root;
        if (!options_.root.empty()) {
            std::error_code error;
            const std::filesystem::path folder = std::filesystem::canonical(options_.root, error);
            if (error || !std::filesystem::is_directory(folder, error))
                throw UsageError("--root: no such folder: " + options_.root);
            root = folder.string();
        }
        KALDO::CMachineRoot::Set(root);
        if (root.empty())
            ::unsetenv("KALDO_ROOT");
        else
            ::setenv("KALDO_ROOT", root.c_str(), 1);
    }
    if (options_.failOption != nullptr && options_.failOption->count() > 0 &&
        KALDO::CFailpoints::Set(options_.failpoints) < 0)
        throw UsageError("--fail: malformed failpoints '" + options_.failpoints +
                         "' (expected Operation[@path-or-tool]=code;...)");
}

KALDO::typeProperty TextInputs(const std::vector<std::pair<const wchar_t*, std::string>>& pairs) {
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    for (const auto& [key, value] : pairs)
        inputs.addMapVal(key, KALDO::CStringUtils::StringToWString(value));
    return inputs;
}

const char* CodeMeaning(int code) {
    switch (code) {
        case -1:
            return "failed";
        case -2:
            return "not found";
        case -3:
            return "a required input is missing or invalid";
        case -4:
            return "refused by the system or the hypervisor";
        case -5:
            return "nothing changed since the last snapshot";
        case -6:
            return "the VM, its configuration file or the snapshot cannot be found or opened";
        case -7:
            return "a tool ran past its time limit";
        case -32:
            return "the VM is locked or busy";
        default:
            return code < 0 ? "failed" : "done";
    }
}

std::string CommandFooter(const std::string& notes, const std::string& exitStatus) {
    return notes +
           "\n\nThe global options (--root DIR, --module PATH, --fail SPEC) may also follow "
           "the command; see implvm --help.\n\n" +
           exitStatus;
}

const Module& Host::module() {
    if (!module_) {
        const bool given = options_.moduleOption != nullptr && options_.moduleOption->count() > 0;
        module_ =
            std::make_unique<Module>(given ? options_.modulePath : Module::DefaultPath(argv0_));
    }
    return *module_;
}

}  // namespace implvm
