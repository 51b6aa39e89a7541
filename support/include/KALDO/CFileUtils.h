// File system reads. Every absolute path is taken inside the machine root
// when one is set (see MachineRoot.h); names handed back are never prefixed
// with it. Nothing here writes to the file system.
//
// Failure codes: kNotFound (no such file or folder), kAccessDenied (EACCES,
// EPERM), kBusy (EBUSY, EWOULDBLOCK), kInvalidArgument (empty path, a folder
// where a file is needed or the reverse), kTooLarge, kFailed (other errors).
// Every operation honours its failpoint (Failpoints.h) under its own name.
#pragma once

#include <string>
#include <vector>

#include "KALDO/Export.h"
#include "KALDO/typeProperty.h"

namespace KALDO {

class KALDO_API CFileUtils {
public:
    // 0 when path names an existing file, folder or other entry (a dangling
    // symbolic link counts as missing); a negative code otherwise.
    static int IsFilePresent(const std::wstring& path);

    // The whole file decoded from UTF-8 into `text` (replaced). A leading
    // UTF-8 byte-order mark is dropped; invalid bytes become U+FFFD; NUL
    // bytes are kept as U+0000. A file too large to hold (over 1 GiB) gives
    // kTooLarge; anything but a regular file (folder, FIFO, device) gives
    // kInvalidArgument. On failure `text` is left as it was.
    static int ReadFromTextFile(const std::wstring& path, std::wstring& text);

    // Bare names of the entries of a folder (no "." or ".."), sorted by their
    // UTF-8 bytes, into `entries` (replaced).
    static int GetDirectoryList(const std::wstring& path, std::vector<std::wstring>& entries);

    // Lists a folder into `list`, which becomes a vector of strings.
    //   recursive: descend into sub-folders (names then carry their relative
    //              path, "sub/name");
    //   typeMask:  which entries to list: 0 every kind; else a sum of
    //              16 (folders and links to them) and 32 (regular files and
    //              links to them); links to folders are never walked into;
    //   maxDepth:  with recursive, how deep (0: no limit);
    //   fullPaths: 0 for names relative to `path`, 1 for `path` + "/" + name.
    // Sorted as GetDirectoryList. `path` is not changed.
    static int POSIX_ListFilesInDirectory(std::wstring& path, typeProperty& list, bool recursive,
                                          int typeMask, int maxDepth, int fullPaths);
};

// Splits a path into drive (always empty on POSIX), folder (without a
// trailing "/"; "/" for a file in the root folder, "" for a bare name), file
// name without extension, and extension (with its dot, "" when none; a
// leading dot of a name such as ".profile" is not an extension). Trailing
// "/" characters of path are ignored. kInvalidArgument for an empty path.
KALDO_API int rtSplitPath(const std::wstring& path, std::wstring& drive, std::wstring& folder,
                          std::wstring& fileName, std::wstring& extension);

}  // namespace KALDO
