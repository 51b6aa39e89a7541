#include "KALDO/CErrorInfo.h"

#include <deque>
#include <mutex>

#include "CallRecordsSink.h"

namespace KALDO {

namespace {

struct ErrorLog {
    std::mutex mutex;
    std::deque<ErrorRecord> records;
    size_t dropped = 0;
};

ErrorLog& Log() {
    static ErrorLog log;
    return log;
}

}  // namespace

int CErrorInfo::addIfError(int code, const wchar_t* file, int line) {
    return addIfError(code, file, line, std::wstring());
}

int CErrorInfo::addIfError(int code, const wchar_t* file, int line, const std::wstring& detail) {
    if (code >= 0) return code;
    ErrorLog& log = Log();
    try {
        ErrorRecord record{code, file ? std::wstring(file) : std::wstring(), line, detail};
        CCallRecords::Sink::error(record);
        std::lock_guard lock(log.mutex);
        log.records.push_back(std::move(record));
        if (log.records.size() > kMaxRecords) {
            log.records.pop_front();
            ++log.dropped;
        }
    } catch (const std::bad_alloc&) {
        // Recording must never turn a failure into a crash; the loss is counted.
        std::lock_guard lock(log.mutex);
        ++log.dropped;
    }
    return code;
}

std::vector<ErrorRecord> CErrorInfo::getErrors() {
    ErrorLog& log = Log();
    std::lock_guard lock(log.mutex);
    return {log.records.begin(), log.records.end()};
}

void CErrorInfo::clearErrors() {
    ErrorLog& log = Log();
    std::lock_guard lock(log.mutex);
    log.records.clear();
    log.dropped = 0;
}

size_t CErrorInfo::droppedCount() {
    ErrorLog& log = Log();
    std::lock_guard lock(log.mutex);
    return log.dropped;
}

}  // namespace KALDO
