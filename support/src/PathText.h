// Path text helpers shared inside CoreUtils.
#pragma once

#include <string>

namespace KALDO::detail {

// An absolute path with "//", "." and ".." resolved on the text alone; ".."
// never climbs above "/". The result starts with "/" and has no trailing "/"
// (except "/" itself).
std::string NormalizeAbsolute(const std::string& path);

// The host path of a path as the caller passes it: UTF-8, taken inside the
// machine root. kInvalidArgument for an empty path or one holding U+0000.
int ToHostPath(const std::wstring& path, std::string& hostPath);

}  // namespace KALDO::detail
