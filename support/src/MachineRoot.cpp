#include "KALDO/MachineRoot.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>

#include "KALDO/Result.h"
#include "PathText.h"

namespace KALDO {

namespace {

// The root as an absolute, lexically normal folder without a trailing "/"
// ("" for none). A relative root is taken from the current folder once, so
// that a later chdir of the host does not move the machine.
std::string NormalizeRoot(const char* text) {
    if (!text || !*text) return {};
    std::string root = text;
    if (root[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd)) root = std::string(cwd) + "/" + root;
    }
    root = detail::NormalizeAbsolute(root);
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    return root;
}

struct RootState {
    std::shared_mutex mutex;
    std::string root;
};

RootState& State() {
    static RootState state{{}, NormalizeRoot(std::getenv("KALDO_ROOT"))};
    return state;
}

std::string Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const size_t last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

// The whole .machine file; small by nature, so it is read on every request
// and a test may rewrite it between calls.
int ReadSmallFile(const std::string& path, std::string& content) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return ResultFromErrno(errno);
    std::string data;
    char buffer[8192];
    int rc = kOk;
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            rc = ResultFromErrno(errno);
            break;
        }
        if (n == 0) break;
        data.append(buffer, static_cast<size_t>(n));
        if (data.size() > (1u << 20)) {
            rc = kTooLarge;
            break;
        }
    }
    close(fd);
    if (rc == kOk) content.swap(data);
    return rc;
}

}  // namespace

void CMachineRoot::Set(const std::string& rootFolder) {
    std::string root = NormalizeRoot(rootFolder.c_str());
    RootState& state = State();
    std::unique_lock lock(state.mutex);
    state.root.swap(root);
}

std::string CMachineRoot::Get() {
    RootState& state = State();
    std::shared_lock lock(state.mutex);
    return state.root;
}

bool CMachineRoot::IsSet() {
    return !Get().empty();
}

std::string CMachineRoot::Map(const std::string& macPath) {
    if (macPath.empty() || macPath[0] != '/') return macPath;
    const std::string root = Get();
    if (root.empty()) return macPath;
    // ".." is resolved on the text, clamped at the Mac's "/", so no path the
    // module builds can reach outside the root.
    std::string inside = detail::NormalizeAbsolute(macPath);
    if (inside.size() > 1 && macPath.back() == '/') inside.push_back('/');
    if (root == "/") return inside;
    return inside == "/" ? root : root + inside;
}

int CMachineRoot::Facts(const std::string& key, std::vector<std::string>& values) {
    const std::string root = Get();
    if (root.empty()) return kNotFound;
    std::string content;
    const int rc = ReadSmallFile(Map("/.machine"), content);
    if (rc < 0) return rc;

    std::vector<std::string> found;
    size_t start = 0;
    while (start < content.size()) {
        size_t stop = content.find('\n', start);
        if (stop == std::string::npos) stop = content.size();
        const std::string_view line(content.data() + start, stop - start);
        start = stop + 1;
        const std::string trimmed = Trimmed(line);
        if (trimmed.empty() || trimmed[0] == '#') continue;
        const size_t eq = trimmed.find('=');
        if (eq == std::string::npos) continue;
        if (Trimmed(std::string_view(trimmed).substr(0, eq)) != key) continue;
        found.push_back(Trimmed(std::string_view(trimmed).substr(eq + 1)));
    }
    if (found.empty()) return kNotFound;
    values.swap(found);
    return kOk;
}

}  // namespace KALDO
