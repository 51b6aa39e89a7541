// The console user as CoreUtils knows it: the real one, or the facts of the
// machine root. Internal to CoreUtils.
#pragma once

#include "platform/ConsoleUser.h"

namespace KALDO::detail {

// In a machine root, from the .machine facts console_user, console_uid,
// console_gid (default: the uid), console_groups (supplementary group ids,
// blank- or comma-separated; default: none) and console_home; otherwise from
// the system. kNotFound when there is no console user.
int LookUpConsoleUser(platform::ConsoleUser& user);

}  // namespace KALDO::detail
