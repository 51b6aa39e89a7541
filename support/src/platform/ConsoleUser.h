// Who is logged in at the machine's console: the platform service behind
// CAppleUtils::GetCurrentLoggedInUserInfo. Internal to CoreUtils.
#pragma once

#include <string>

namespace KALDO::platform {

struct ConsoleUser {
    std::string home;  // no trailing "/"
    int uid = -1;
    int gid = -1;
};

// kNotFound when nobody is logged in at the console (never a guess).
int FindConsoleUser(ConsoleUser& user);

}  // namespace KALDO::platform
