#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>

#include "Commands.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "Vocabulary.h"

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

namespace {

void ReserveStandardStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest free descriptor is this one, since those below it are open.
        const int opened = ::open("/dev/null", O_RDONLY);
        if (opened >= 0 && opened != fd) {
            ::dup2(opened, fd);
            ::close(opened);
        }
    }
}

}  // namespace

class StandardOutput::Buffer : public std::streambuf {
public:
    Buffer() { setp(space_, space_ + sizeof space_); }

    // The errno of the first write that failed; 0 while none has.
    int error() const { return error_; }
    bool failed() const { return failed_; }

protected:
    int_type overflow(int_type c) override {
        if (sync() != 0) return traits_type::eof();
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
        return c;
    }

    int sync() override {
        for (const char* at = pbase(); at < pptr() && !failed_;) {
            const ssize_t written = ::write(STDOUT_FILENO, at, static_cast<size_t>(pptr() - at));
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) {
                failed_ = true;
                error_ = written < 0 ? errno : 0;
            } else {
                at += written;
            }
        }
        // What could not be written is dropped: the command goes on, and the
        // end of the run reports the loss.
        setp(space_, space_ + sizeof space_);
        return failed_ ? -1 : 0;
    }

private:
    char space_[1 << 14];
    bool failed_ = false;
    int error_ = 0;
};

StandardOutput::StandardOutput() {
    ReserveStandardStreams();
    buffer_ = std::make_unique<Buffer>();
    original_ = std::cout.rdbuf(buffer_.get());
}

StandardOutput::~StandardOutput() {
    std::cout.flush();
    std::cout.rdbuf(original_);
}

int StandardOutput::finish(int status) {
    std::cout.flush();
    if (!buffer_->failed()) return status;
    const int error = buffer_->error();
    std::cerr << "implvm: cannot write to standard output"
              << (error != 0 ? std::string(": ") + std::strerror(error) : std::string()) << '\n';
    return status == kExitOk ? kExitFailed : status;
}

KALDO::typeProperty TextInputs(const std::vector<std::pair<const wchar_t*, std::string>>& pairs) {
    KALDO::typeProperty inputs;
    inputs.changeTypeToMap();
    for (const auto& [key, value] : pairs)
        inputs.addMapVal(key, KALDO::CStringUtils::StringToWString(value));
    return inputs;
}

const char* CodeMeaning(int code) {
    if (const ImplVm::Naming* naming = ImplVm::NamingOf(ImplVm::kCodeNames, code))
        return naming->label.data();
    return code < 0 ? "failed" : "done";
}

Json WithSchema(const Json& document) {
    Json versioned = {{"schemaVersion", kSchemaVersion}};
    versioned.update(document);
    return versioned;
}

void PrintJson(const Json& document) {
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void AddJobsOption(CLI::App& command, int& jobs) {
    command
        .add_option("--jobs,-j", jobs,
                    "How many method calls run side by side (default: the number of processors, "
                    "at most 8; 1: one after another)")
        ->type_name("N")
        ->check(CLI::Range(1, 64));
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
