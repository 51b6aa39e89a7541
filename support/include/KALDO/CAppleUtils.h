// Facts about the Mac: its console user, its property lists and its
// application bundles.
#pragma once

#include <string>

#include "KALDO/Export.h"
#include "KALDO/typeProperty.h"

namespace KALDO {

class KALDO_API CAppleUtils {
public:
    // The user logged in at the console: `home` receives the user's home
    // folder (no trailing "/"), *uid the user id and *gid the primary group
    // id, where those pointers are not null. On macOS the console user is
    // the owner of /dev/console; on Linux the user of the active local
    // session (utmpx); in a machine root, the .machine facts console_home,
    // console_uid (and console_gid, default = uid). kNotFound when there is
    // no console user (never a guess); `home` is untouched then.
    static int GetCurrentLoggedInUserInfo(std::wstring& home, int* uid, int* gid);

    // Reads an XML or binary property list into `tree` (replaced).
    // Dictionaries become maps and arrays vectors. Every map key and every
    // scalar is tagged with a two-character prefix, a backslash and a
    // letter, and stored as a string:
    //   \s string   \i integer (decimal)   \r real   \b boolean ("true"/"false")
    //   \d date (ISO 8601, UTC)   \x data (hexadecimal)   \u UID (decimal)
    // so a key "path" is looked up as "\spath" and a string "abc" reads
    // "\sabc". kNotFound / kAccessDenied for an unreadable file,
    // kInvalidArgument when it is not a property list.
    static int ReadPlistFileToTypePropertyTree(const std::wstring& path, typeProperty& tree);

    // The application bundle whose Contents/Info.plist has CFBundleIdentifier
    // equal to bundleId, searched in /Applications and in the console user's
    // ~/Applications (one folder level deep, then one level of sub-folders).
    // `path` receives the bundle folder without a trailing "/". kNotFound
    // when there is none.
    static int LS_GetAppPathByAppId(const std::wstring& bundleId, std::wstring& path);

    // Product version lookup for hosts. inputs: a map with "BundleId" (the
    // product's bundle identifier). outputs receive "ProductVersion" (the
    // bundle's CFBundleShortVersionString, else CFBundleVersion) and
    // "AppPath" (the bundle folder). kInvalidArgument without "BundleId",
    // kNotFound when no such application (or no version in it).
    static int GetProductVersion(const typeProperty& inputs, typeProperty& outputs);
};

}  // namespace KALDO
