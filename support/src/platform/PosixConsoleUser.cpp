#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#if !defined(__APPLE__)
#include <utmpx.h>
#endif

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "KALDO/Result.h"
#include "platform/ConsoleUser.h"

namespace KALDO::platform {
namespace {

// The user's groups in the group database, the primary one first. The list
// is asked for with a guess at its size, then with the size the system says.
std::vector<int> GroupsOf(const char* name, gid_t primary) {
    int count = 32;
    for (int attempt = 0; attempt < 4; ++attempt) {
#if defined(__APPLE__)
        std::vector<int> found(static_cast<size_t>(count));
        const int rc = ::getgrouplist(name, static_cast<int>(primary), found.data(), &count);
#else
        std::vector<gid_t> found(static_cast<size_t>(count));
        const int rc = ::getgrouplist(name, primary, found.data(), &count);
#endif
        if (rc >= 0 && count >= 0 && static_cast<size_t>(count) <= found.size())
            return std::vector<int>(found.begin(), found.begin() + count);
        count = std::max(count, 32) * 2;
    }
    return {static_cast<int>(primary)};
}

int FromPasswd(const passwd* pw, ConsoleUser& user) {
    if (pw == nullptr || pw->pw_dir == nullptr || pw->pw_dir[0] == '\0') return kNotFound;
    user.home = pw->pw_dir;
    while (user.home.size() > 1 && user.home.back() == '/') user.home.pop_back();
    user.uid = static_cast<int>(pw->pw_uid);
    user.gid = static_cast<int>(pw->pw_gid);
    user.name = pw->pw_name != nullptr ? pw->pw_name : "";
    if (!user.name.empty()) user.groups = GroupsOf(pw->pw_name, pw->pw_gid);
    return kOk;
}

template <typename Lookup>
int LookUp(ConsoleUser& user, Lookup lookup) {
    std::vector<char> buffer(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (lookup(&pw, buffer.data(), buffer.size(), &found) != 0) return kNotFound;
    return FromPasswd(found, user);
}

}  // namespace

#if defined(__APPLE__)
// The console belongs to the user logged in at the login window; root owns it
// while nobody is.
int FindConsoleUser(ConsoleUser& user) {
    struct stat st {};
    if (::stat("/dev/console", &st) != 0 || st.st_uid == 0) return kNotFound;
    const uid_t uid = st.st_uid;
    return LookUp(user, [uid](passwd* pw, char* buf, size_t size, passwd** found) {
        return ::getpwuid_r(uid, pw, buf, size, found);
    });
}
#else
// The user of a local session: a login on a virtual console or a graphical
// display, not a remote or pseudo-terminal session.
int FindConsoleUser(ConsoleUser& user) {
    static std::mutex utmpLock;  // the utmpx walk uses static storage
    std::string name;
    {
        std::lock_guard<std::mutex> lock(utmpLock);
        ::setutxent();
        while (const utmpx* entry = ::getutxent()) {
            if (entry->ut_type != USER_PROCESS) continue;
            const std::string line(entry->ut_line, strnlen(entry->ut_line, sizeof entry->ut_line));
            const bool local = line.rfind("tty", 0) == 0 || line.rfind(":", 0) == 0 ||
                               line.rfind("seat", 0) == 0 || line == "console";
            if (!local) continue;
            name.assign(entry->ut_user, strnlen(entry->ut_user, sizeof entry->ut_user));
            break;
        }
        ::endutxent();
    }
    if (name.empty()) return kNotFound;
    return LookUp(user, [&name](passwd* pw, char* buf, size_t size, passwd** found) {
        return ::getpwnam_r(name.c_str(), pw, buf, size, found);
    });
}
#endif

}  // namespace KALDO::platform
