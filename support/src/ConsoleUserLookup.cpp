#include "ConsoleUserLookup.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"

namespace KALDO::detail {
namespace {

int ParseInt(const std::string& text, int& value) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || *end != '\0' || errno != 0 || v < INT_MIN || v > INT_MAX)
        return kInvalidArgument;
    value = static_cast<int>(v);
    return kOk;
}

int FirstFact(const char* key, std::string& value) {
    std::vector<std::string> values;
    const int rc = CMachineRoot::Facts(key, values);
    if (rc < 0) return rc;
    if (values.empty() || values.front().empty()) return kNotFound;
    value = values.front();
    return kOk;
}

int GroupsFromFact(const std::string& text, std::vector<int>& groups) {
    size_t at = 0;
    while ((at = text.find_first_not_of(" \t,", at)) != std::string::npos) {
        const size_t end = text.find_first_of(" \t,", at);
        int gid = 0;
        if (ParseInt(text.substr(at, end - at), gid) < 0) return kInvalidArgument;
        groups.push_back(gid);
        at = end;
    }
    return kOk;
}

int ConsoleUserFromFacts(platform::ConsoleUser& user) {
    std::string uid, gid, groups;
    if (FirstFact("console_home", user.home) < 0 || FirstFact("console_uid", uid) < 0 ||
        ParseInt(uid, user.uid) < 0)
        return kNotFound;
    while (user.home.size() > 1 && user.home.back() == '/') user.home.pop_back();
    user.gid = user.uid;
    if (FirstFact("console_gid", gid) == kOk && ParseInt(gid, user.gid) < 0) return kNotFound;
    if (FirstFact("console_groups", groups) == kOk && GroupsFromFact(groups, user.groups) < 0)
        return kNotFound;
    (void)FirstFact("console_user", user.name);
    return kOk;
}

}  // namespace

int LookUpConsoleUser(platform::ConsoleUser& user) {
    return CMachineRoot::IsSet() ? ConsoleUserFromFacts(user) : platform::FindConsoleUser(user);
}

}  // namespace KALDO::detail
