// The error log: the record of every failure a module reports.
//
// The log is process-wide and thread-safe. It keeps the most recent
// kMaxRecords records; older ones are dropped (and counted) so that a host
// that never clears it does not grow without bound.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KALDO/Export.h"

namespace KALDO {

struct ErrorRecord {
    int code = 0;
    std::wstring file;
    int line = 0;
    // What CoreUtils says of a failure of its own that a host should know
    // about beyond the module's record (a tool killed at its time limit:
    // "VBoxManage did not answer within 60 s"); "" in the module's records.
    std::wstring detail;
    bool operator==(const ErrorRecord&) const = default;
};

class KALDO_API CErrorInfo {
public:
    static constexpr size_t kMaxRecords = 4096;

    // When code is negative, records (code, file, line); returns code
    // unchanged in every case. A null file is recorded as "".
    static int addIfError(int code, const wchar_t* file, int line);
    // The same with a detail text (see ErrorRecord::detail).
    static int addIfError(int code, const wchar_t* file, int line, const std::wstring& detail);

    // A copy of the records, oldest first.
    static std::vector<ErrorRecord> getErrors();
    // Removes every record and resets the dropped count.
    static void clearErrors();
    // How many records were dropped because the log was full.
    static size_t droppedCount();
};

}  // namespace KALDO
