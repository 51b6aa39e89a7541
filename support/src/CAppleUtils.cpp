#include "KALDO/CAppleUtils.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <memory>

#include "ConsoleUserLookup.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/Result.h"
#include "PathText.h"
#include "PlistDepth.h"

namespace KALDO {
namespace {

constexpr size_t kMaxPlistBytes = 64u << 20;      // preference files are small; refuse junk
constexpr int64_t kAppleEpochOffset = 978307200;  // 2001-01-01 in Unix time

int ReadBytes(const std::wstring& path, std::string& bytes) {
    std::string hostPath;
    int rc = detail::ToHostPath(path, hostPath);
    if (rc < 0) return rc;
    const int fd = ::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return ResultFromErrno(errno);
    struct stat st {};
    rc = kOk;
    if (::fstat(fd, &st) != 0) {
        rc = ResultFromErrno(errno);
    } else if (!S_ISREG(st.st_mode)) {
        rc = kInvalidArgument;
    } else if (static_cast<size_t>(st.st_size) > kMaxPlistBytes) {
        rc = kTooLarge;
    } else {
        bytes.resize(static_cast<size_t>(st.st_size));
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                rc = ResultFromErrno(errno);
                break;
            }
            if (n == 0) break;
            done += static_cast<size_t>(n);
        }
        bytes.resize(done);
    }
    ::close(fd);
    return rc;
}

std::wstring Tagged(const wchar_t* tag, const std::string& text) {
    return tag + CStringUtils::StringToWString(text);
}

struct FreeText {
    void operator()(void* p) const { std::free(p); }
};
using OwnedText = std::unique_ptr<char, FreeText>;
// libplist's iterators are plain allocations too; held so that a failed
// allocation on the way out frees them.
using OwnedIter = std::unique_ptr<void, FreeText>;
struct FreePlist {
    void operator()(plist_t node) const { plist_free(node); }
};
using OwnedPlist = std::unique_ptr<void, FreePlist>;

std::string DateText(plist_t node) {
    int32_t sec = 0, usec = 0;
    plist_get_date_val(node, &sec, &usec);
    const time_t unixTime = static_cast<time_t>(sec + kAppleEpochOffset);
    tm parts{};
    gmtime_r(&unixTime, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

int ConvertScalar(plist_t node, typeProperty& out);

// Recursive: CheckPlistShape has bounded the nesting before libplist parsed.
int Convert(plist_t node, typeProperty& out) {
    switch (plist_get_node_type(node)) {
        case PLIST_DICT: {
            out.changeTypeToMap();
            plist_dict_iter rawIt = nullptr;
            plist_dict_new_iter(node, &rawIt);
            const OwnedIter it(rawIt);
            for (;;) {
                char* rawKey = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, it.get(), &rawKey, &value);
                OwnedText key(rawKey);
                if (value == nullptr) break;
                typeProperty child;
                const int rc = Convert(value, child);
                if (rc < 0) return rc;
                out.addMapVal(Tagged(L"\\s", key ? key.get() : ""), child);
            }
            return kOk;
        }
        case PLIST_ARRAY: {
            // By iterator: fetching by index walks the list from its start
            // each time, quadratic in its length (seconds for 100,000).
            out.changeTypeToVec();
            plist_array_iter rawIt = nullptr;
            plist_array_new_iter(node, &rawIt);
            const OwnedIter it(rawIt);
            for (;;) {
                plist_t item = nullptr;
                plist_array_next_item(node, it.get(), &item);
                if (item == nullptr) break;
                typeProperty child;
                const int rc = Convert(item, child);
                if (rc < 0) return rc;
                out.addVecVal(std::move(child));
            }
            return kOk;
        }
        default:
            return ConvertScalar(node, out);
    }
}

// Apart from Convert, whose frame every level of nesting repeats: the
// scalars' locals would triple it in a sanitizer build.
[[gnu::noinline]] int ConvertScalar(plist_t node, typeProperty& out) {
    switch (plist_get_node_type(node)) {
        case PLIST_STRING: {
            // By pointer and length: the copying accessor asserts that the
            // text holds no NUL byte, and a list that has one (a binary list,
            // a damaged file) would abort the whole host.
            uint64_t length = 0;
            const char* raw = plist_get_string_ptr(node, &length);
            out.setVal(Tagged(L"\\s", raw ? std::string(raw, length) : std::string()));
            return kOk;
        }
        case PLIST_KEY: {
            char* raw = nullptr;
            plist_get_key_val(node, &raw);
            OwnedText text(raw);
            out.setVal(Tagged(L"\\s", text ? text.get() : ""));
            return kOk;
        }
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            // Negative integers are stored as their two's complement.
            out.setVal(Tagged(L"\\i", std::to_string(static_cast<int64_t>(v))));
            return kOk;
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            char text[64];
            std::snprintf(text, sizeof text, "%.17g", v);
            out.setVal(Tagged(L"\\r", text));
            return kOk;
        }
        case PLIST_BOOLEAN: {
            uint8_t v = 0;
            plist_get_bool_val(node, &v);
            out.setVal(Tagged(L"\\b", v ? "true" : "false"));
            return kOk;
        }
        case PLIST_DATE:
            out.setVal(Tagged(L"\\d", DateText(node)));
            return kOk;
        case PLIST_DATA: {
            char* raw = nullptr;
            uint64_t length = 0;
            plist_get_data_val(node, &raw, &length);
            OwnedText data(raw);
            static const char kHex[] = "0123456789abcdef";
            std::string hex;
            hex.reserve(length * 2);
            for (uint64_t i = 0; i < length; ++i) {
                const auto byte = static_cast<unsigned char>(data.get()[i]);
                hex += kHex[byte >> 4];
                hex += kHex[byte & 15];
            }
            out.setVal(Tagged(L"\\x", hex));
            return kOk;
        }
        case PLIST_UID: {
            uint64_t v = 0;
            plist_get_uid_val(node, &v);
            out.setVal(Tagged(L"\\u", std::to_string(v)));
            return kOk;
        }
        default:
            return kInvalidArgument;
    }
}

// A string value of an Info.plist tree, without its tag.
int InfoString(const typeProperty& info, const wchar_t* key, std::wstring& value) {
    std::wstring tagged;
    const int rc = info.getMapVal(std::wstring(L"\\s") + key, tagged);
    if (rc < 0) return rc;
    if (tagged.size() < 2 || tagged.compare(0, 2, L"\\s") != 0) return kInvalidArgument;
    value = tagged.substr(2);
    return kOk;
}

bool BundleHasId(const std::wstring& bundle, const std::wstring& bundleId) {
    typeProperty info;
    std::wstring plistPath = bundle + L"/Contents/Info.plist";
    std::wstring id;
    return CAppleUtils::ReadPlistFileToTypePropertyTree(plistPath, info) == kOk &&
           InfoString(info, L"CFBundleIdentifier", id) == kOk && id == bundleId;
}

bool IsAppName(const std::wstring& name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, L".app") == 0;
}

int FindAppIn(const std::wstring& folder, const std::wstring& bundleId, std::wstring& path) {
    std::vector<std::wstring> entries;
    if (CFileUtils::GetDirectoryList(folder, entries) < 0) return kNotFound;
    for (const std::wstring& entry : entries) {
        if (IsAppName(entry) && BundleHasId(folder + L"/" + entry, bundleId)) {
            path = folder + L"/" + entry;
            return kOk;
        }
    }
    // Applications kept in sub-folders such as /Applications/Utilities.
    for (const std::wstring& entry : entries) {
        if (IsAppName(entry) || entry.empty() || entry[0] == L'.') continue;
        const std::wstring sub = folder + L"/" + entry;
        std::vector<std::wstring> inner;
        if (CFileUtils::GetDirectoryList(sub, inner) < 0) continue;
        for (const std::wstring& name : inner) {
            if (IsAppName(name) && BundleHasId(sub + L"/" + name, bundleId)) {
                path = sub + L"/" + name;
                return kOk;
            }
        }
    }
    return kNotFound;
}

}  // namespace

int CAppleUtils::GetCurrentLoggedInUserInfo(std::wstring& home, int* uid, int* gid) {
    int injected = 0;
    if (CFailpoints::Check("GetCurrentLoggedInUserInfo", injected)) return injected;
    platform::ConsoleUser user;
    const int rc = detail::LookUpConsoleUser(user);
    if (rc < 0) return rc;
    home = CStringUtils::StringToWString(user.home);
    if (uid != nullptr) *uid = user.uid;
    if (gid != nullptr) *gid = user.gid;
    return kOk;
}

int CAppleUtils::ReadPlistFileToTypePropertyTree(const std::wstring& path, typeProperty& tree) {
    int injected = 0;
    if (CFailpoints::Check("ReadPlistFileToTypePropertyTree", path, injected)) return injected;
    std::string bytes;
    int rc = ReadBytes(path, bytes);
    if (rc < 0) return rc;
    // libplist recurses as deep as the list nests and copies a shared
    // object at every reference: measure first.
    rc = detail::CheckPlistShape(bytes);
    if (rc < 0) return rc;
    plist_t rawRoot = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &rawRoot);
    const OwnedPlist root(rawRoot);
    if (root == nullptr) return kInvalidArgument;
    typeProperty converted;
    try {
        rc = Convert(root.get(), converted);
    } catch (const std::bad_alloc&) {
        return kTooLarge;  // a tree bigger than memory holds
    }
    if (rc < 0) return rc;
    tree = std::move(converted);
    return kOk;
}

int CAppleUtils::LS_GetAppPathByAppId(const std::wstring& bundleId, std::wstring& path) {
    int injected = 0;
    if (CFailpoints::Check("LS_GetAppPathByAppId", bundleId, injected)) return injected;
    if (bundleId.empty()) return kInvalidArgument;
    if (FindAppIn(L"/Applications", bundleId, path) == kOk) return kOk;
    std::wstring home;
    if (GetCurrentLoggedInUserInfo(home, nullptr, nullptr) == kOk &&
        FindAppIn(home + L"/Applications", bundleId, path) == kOk)
        return kOk;
    return kNotFound;
}

int CAppleUtils::GetProductVersion(const typeProperty& inputs, typeProperty& outputs) {
    int injected = 0;
    if (CFailpoints::Check("GetProductVersion", injected)) return injected;
    std::wstring bundleId;
    if (inputs.lookupString(L"BundleId", bundleId) < 0 || bundleId.empty()) return kInvalidArgument;
    std::wstring appPath;
    int rc = LS_GetAppPathByAppId(bundleId, appPath);
    if (rc < 0) return rc;
    typeProperty info;
    std::wstring plistPath = appPath + L"/Contents/Info.plist";
    rc = ReadPlistFileToTypePropertyTree(plistPath, info);
    if (rc < 0) return rc;
    std::wstring version;
    if (InfoString(info, L"CFBundleShortVersionString", version) < 0 &&
        InfoString(info, L"CFBundleVersion", version) < 0)
        return kNotFound;
    outputs.addString(L"ProductVersion", version);
    outputs.addString(L"AppPath", appPath);
    return kOk;
}

}  // namespace KALDO
