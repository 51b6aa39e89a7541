// The machine root: look at another Mac's tree instead of this machine.
//
// When a root folder is set, every absolute path that CoreUtils reads, lists,
// tests or executes is taken inside it, bare tool names are searched in its
// /usr/bin, /bin, /usr/sbin and /sbin, and facts that are not files (the
// console user, the network interfaces) come from its ".machine" file.
// Paths handed back to callers stay as the Mac sees them.
//
// The root is read from the environment variable KALDO_ROOT when the library
// is first used; hosts and tests may change it at any time with Set().
// Thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KALDO/Export.h"

namespace KALDO {

class KALDO_API CMachineRoot {
public:
    // Sets the root folder ("" for none: the real machine).
    static void Set(const std::string& rootFolder);
    // The current root folder ("" for none).
    static std::string Get();
    static bool IsSet();

    // The host path for a path as the Mac sees it: root + path for an
    // absolute path when a root is set; the path unchanged otherwise.
    static std::string Map(const std::string& macPath);

    // The values of one key of DIR/.machine (lines "key = value"; blank
    // lines and lines starting with "#" are skipped), in file order.
    // Returns kNotFound when no root is set, the file is missing or the key
    // is absent.
    static int Facts(const std::string& key, std::vector<std::string>& values);
};

}  // namespace KALDO
