#include "KALDO/CFileUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/Result.h"
#include "PathText.h"
#include "Utf8.h"

namespace KALDO {

namespace {

// Text files beyond this are refused rather than decoded into four times
// their size in memory.
constexpr off_t kMaxTextFileBytes = off_t{1} << 30;
// Read size: few system calls, and each chunk still in the processor's
// cache when it is decoded.
constexpr size_t kReadChunk = 256 * 1024;

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

bool Failpoint(const char* op, const std::wstring& subject, int& code) {
    return CFailpoints::Check(op, subject, code);
}

// Reads the rest of fd and decodes it, chunk by chunk, straight into `out`,
// whose capacity the caller sized from the file size. A sequence split by a
// chunk boundary is carried (at most three bytes) into the next chunk. The
// buffer is no larger than the file needs (`expected`: its size when
// opened), so small files do not pay for a large one.
int ReadAndDecode(int fd, size_t expected, std::wstring& out) {
    const size_t chunk = std::clamp<size_t>(expected + 1, 4096, kReadChunk);
    const std::unique_ptr<unsigned char[]> buffer(new unsigned char[chunk + 4]);
    size_t carry = 0;
    bool atStart = true;
    unsigned long long total = 0;
    for (;;) {
        const ssize_t n = read(fd, buffer.get() + carry, chunk);
        if (n < 0) {
            if (errno == EINTR) continue;
            return ResultFromErrno(errno);
        }
        total += static_cast<unsigned long long>(n);
        if (total > static_cast<unsigned long long>(kMaxTextFileBytes)) return kTooLarge;
        const bool final = n == 0;
        size_t available = carry + static_cast<size_t>(n);
        const unsigned char* data = buffer.get();
        if (atStart) {
            if (available < 3 && !final) {
                carry = available;  // too short to tell whether a BOM starts the file
                continue;
            }
            if (available >= 3 && data[0] == 0xEF && data[1] == 0xBB && data[2] == 0xBF) {
                data += 3;
                available -= 3;
            }
            atStart = false;
        }
        size_t consumed = 0;
        detail::AppendDecodedUtf8(data, available, final, out, consumed);
        carry = available - consumed;
        if (carry) std::memmove(buffer.get(), data + consumed, carry);
        if (final) return kOk;
    }
}

// A folder's entries as the listing operations see them.
struct Entry {
    std::string name;
    bool isDir = false;       // a real folder (walked into when recursing)
    bool folderLike = false;  // a folder or a link to one
    bool fileLike = false;    // a regular file or a link to one
};

int OpenFolder(const std::string& hostPath, DirHandle& dir) {
    const int fd = open(hostPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        struct stat st;
        if (err == ENOTDIR && stat(hostPath.c_str(), &st) == 0) return kInvalidArgument;
        return ResultFromErrno(err);
    }
    DIR* handle = fdopendir(fd);
    if (!handle) {
        const int err = errno;
        close(fd);
        return ResultFromErrno(err);
    }
    dir.reset(handle);
    return kOk;
}

int ReadFolder(const std::string& hostPath, bool needKinds, std::vector<Entry>& entries) {
    DirHandle dir;
    if (const int rc = OpenFolder(hostPath, dir); rc < 0) return rc;
    const int dfd = dirfd(dir.get());
    for (;;) {
        errno = 0;
        const dirent* ent = readdir(dir.get());
        if (!ent) {
            if (errno != 0) return ResultFromErrno(errno);
            break;
        }
        const char* name = ent->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        Entry entry;
        entry.name = name;
        if (needKinds) {
            unsigned char type = ent->d_type;
            if (type == DT_UNKNOWN) {
                struct stat st;
                if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
                    if (S_ISDIR(st.st_mode)) type = DT_DIR;
                    if (S_ISREG(st.st_mode)) type = DT_REG;
                    if (S_ISLNK(st.st_mode)) type = DT_LNK;
                }
            }
            entry.isDir = type == DT_DIR;
            entry.folderLike = type == DT_DIR;
            entry.fileLike = type == DT_REG;
            if (type == DT_LNK) {
                struct stat target;
                if (fstatat(dfd, name, &target, 0) == 0) {
                    entry.folderLike = S_ISDIR(target.st_mode);
                    entry.fileLike = S_ISREG(target.st_mode);
                }
            }
        }
        entries.push_back(std::move(entry));
    }
    return kOk;
}

struct Listing {
    bool recursive = false;
    int typeMask = 0;
    int maxDepth = 0;
    std::vector<std::string> names;
};

bool Wanted(const Entry& entry, int typeMask) {
    if (typeMask == 0) return true;
    return ((typeMask & 16) && entry.folderLike) || ((typeMask & 32) && entry.fileLike);
}

// Sub-folders that cannot be read are left out: a listing of what can be
// seen is more use to a caller than no listing at all.
void Walk(const std::string& hostDir, const std::string& prefix, int depth, Listing& listing,
          std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
        const std::string relative = prefix + entry.name;
        if (Wanted(entry, listing.typeMask)) listing.names.push_back(relative);
        const bool deeper = listing.maxDepth <= 0 || depth < listing.maxDepth;
        if (listing.recursive && entry.isDir && deeper) {
            const std::string subDir = hostDir + "/" + entry.name;
            std::vector<Entry> children;
            if (ReadFolder(subDir, true, children) == kOk)
                Walk(subDir, relative + "/", depth + 1, listing, children);
        }
    }
}

}  // namespace

int CFileUtils::IsFilePresent(const std::wstring& path) {
    int code = 0;
    if (Failpoint("IsFilePresent", path, code)) return code;
    std::string host;
    if (const int rc = detail::ToHostPath(path, host); rc < 0) return rc;
    struct stat st;
    if (stat(host.c_str(), &st) != 0) return ResultFromErrno(errno);
    return kOk;
}

int CFileUtils::ReadFromTextFile(const std::wstring& path, std::wstring& text) {
    int code = 0;
    if (Failpoint("ReadFromTextFile", path, code)) return code;
    std::string host;
    if (const int rc = detail::ToHostPath(path, host); rc < 0) return rc;
    // Non-blocking open so that a FIFO in the way cannot hang the caller; it
    // is then refused as not a regular file.
    const Descriptor fd(open(host.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (fd.get() < 0) return ResultFromErrno(errno);
    struct stat st;
    if (fstat(fd.get(), &st) != 0) return ResultFromErrno(errno);
    if (!S_ISREG(st.st_mode)) return kInvalidArgument;
    if (st.st_size > kMaxTextFileBytes) return kTooLarge;
    try {
        std::wstring result;
        // Never more wide characters than bytes: one allocation for the text.
        result.reserve(static_cast<size_t>(st.st_size));
        if (const int rc = ReadAndDecode(fd.get(), static_cast<size_t>(st.st_size), result); rc < 0)
            return rc;
        // Mostly multi-byte text leaves much of that idle; give it back when
        // more than half would otherwise stay allocated.
        if (result.capacity() / 2 > result.size()) result.shrink_to_fit();
        text.swap(result);
    } catch (const std::bad_alloc&) {
        return kTooLarge;
    } catch (const std::length_error&) {
        return kTooLarge;
    }
    return kOk;
}

int CFileUtils::GetDirectoryList(const std::wstring& path, std::vector<std::wstring>& entries) {
    int code = 0;
    if (Failpoint("GetDirectoryList", path, code)) return code;
    std::string host;
    if (const int rc = detail::ToHostPath(path, host); rc < 0) return rc;
    std::vector<Entry> found;
    if (const int rc = ReadFolder(host, false, found); rc < 0) return rc;
    std::sort(found.begin(), found.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    std::vector<std::wstring> names;
    names.reserve(found.size());
    for (const Entry& entry : found) names.push_back(CStringUtils::StringToWString(entry.name));
    entries.swap(names);
    return kOk;
}

int CFileUtils::POSIX_ListFilesInDirectory(std::wstring& path, typeProperty& list, bool recursive,
                                           int typeMask, int maxDepth, int fullPaths) {
    int code = 0;
    if (Failpoint("POSIX_ListFilesInDirectory", path, code)) return code;
    std::string host;
    if (const int rc = detail::ToHostPath(path, host); rc < 0) return rc;
    std::vector<Entry> top;
    if (const int rc = ReadFolder(host, true, top); rc < 0) return rc;

    Listing listing;
    listing.recursive = recursive;
    listing.typeMask = typeMask;
    listing.maxDepth = maxDepth;
    Walk(host, "", 1, listing, top);
    std::sort(listing.names.begin(), listing.names.end());

    std::wstring prefix;
    if (fullPaths != 0) {
        prefix = path;
        if (prefix.back() != L'/') prefix.push_back(L'/');
    }
    typeProperty result;
    result.changeTypeToVec();
    for (const std::string& name : listing.names)
        result.addVecVal(prefix + CStringUtils::StringToWString(name));
    list = std::move(result);
    return kOk;
}

int rtSplitPath(const std::wstring& path, std::wstring& drive, std::wstring& folder,
                std::wstring& fileName, std::wstring& extension) {
    int code = 0;
    if (Failpoint("rtSplitPath", path, code)) return code;
    if (path.empty()) return kInvalidArgument;

    std::wstring_view rest(path);
    while (rest.size() > 1 && rest.back() == L'/') rest.remove_suffix(1);
    std::wstring_view dir;
    std::wstring_view name = rest;
    const size_t slash = rest.rfind(L'/');
    if (slash != std::wstring_view::npos) {
        dir = rest.substr(0, slash);
        name = rest.substr(slash + 1);
        while (!dir.empty() && dir.back() == L'/') dir.remove_suffix(1);
        if (dir.empty()) dir = L"/";
    }
    // A leading dot names a hidden file, not an extension; "." and ".." have
    // none either.
    std::wstring_view stem = name;
    std::wstring_view ext;
    const size_t dot = name.rfind(L'.');
    if (dot != std::wstring_view::npos && dot > 0 && name != L"..") {
        stem = name.substr(0, dot);
        ext = name.substr(dot);
    }
    drive.clear();
    folder.assign(dir);
    fileName.assign(stem);
    extension.assign(ext);
    return kOk;
}

}  // namespace KALDO
