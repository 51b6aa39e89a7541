// Who is logged in at the machine's console: the platform service behind
// CAppleUtils::GetCurrentLoggedInUserInfo. Internal to CoreUtils.
#pragma once

#include <string>
#include <vector>

namespace KALDO::platform {

struct ConsoleUser {
    std::string name;  // login name ("" when unknown)
    std::string home;  // no trailing "/"
    int uid = -1;
    int gid = -1;
    std::vector<int> groups;  // supplementary groups, the primary one included or not
};

// kNotFound when nobody is logged in at the console (never a guess). The
// groups are those the group database gives the user's name.
int FindConsoleUser(ConsoleUser& user);

}  // namespace KALDO::platform
