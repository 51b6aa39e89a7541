// How long a tool may run, from its kind and KALDO_TOOL_TIMEOUT. Pure, so
// that the defaults are checked without waiting them out. Internal to
// CoreUtils.
#pragma once

#include <cstdlib>

namespace KALDO::detail {

// A reading tool that has not answered in a minute is hung as far as a
// management agent is concerned; starting or suspending a VM, or taking a
// snapshot, may take minutes.
inline constexpr double kReadingToolTimeoutSeconds = 60;
inline constexpr double kActionToolTimeoutSeconds = 300;

// The limit in seconds (0: none) of an action or a reading tool. The text
// of KALDO_TOOL_TIMEOUT (null when unset), when it is a number of seconds
// not below 0, is the one limit of every tool.
inline double ToolTimeLimit(bool action, const char* setting) {
    const double byKind = action ? kActionToolTimeoutSeconds : kReadingToolTimeoutSeconds;
    if (setting == nullptr || *setting == '\0') return byKind;
    char* end = nullptr;
    const double seconds = std::strtod(setting, &end);
    if (end == setting || seconds < 0) return byKind;
    return seconds;
}

}  // namespace KALDO::detail
