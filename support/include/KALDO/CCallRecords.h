// Per-call records for hosts: what failed during one method call, whatever
// other threads do meanwhile.
//
// A host opens a CCallRecords on its thread around one method call:
//
//     KALDO::CCallRecords records;
//     const int rc = method(...);
//     for (const KALDO::ToolFailure& failure : records.toolFailures()) ...
//
// While it is open it collects, from that thread only:
//   - a copy of every record CErrorInfo::addIfError adds (the module's and
//     the library's own), so a host that calls methods on several threads
//     gets each call's own records;
//   - a ToolFailure for every tool run through CProcessUtils that failed:
//     a non-zero exit status, ended by a signal, not started, killed at its
//     time limit or past its output limit.
// The process-wide error log gets every record as before, and no tool run
// answers differently: the scope only looks on.
//
// Nesting: scopes opened on one thread nest, and a record goes to every scope
// open on the thread, the inner ones and the outer ones alike: an outer scope
// sees everything that happened while it was open, as the error log does, and
// an inner scope sees only what happened while it was open.
//
// Threads: a scope belongs to the thread that opened it and must be destroyed
// on that thread (a local variable is). Only that thread adds to it, so it
// needs no lock; read it on that thread, or hand its contents to another one
// with the host's own synchronisation. Records added on other threads, also
// on threads the call itself starts, are not collected.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "KALDO/CErrorInfo.h"
#include "KALDO/Export.h"

namespace KALDO {

// One tool run that failed.
struct ToolFailure {
    enum class Kind {
        kExited,       // ran to its end with a non-zero exit status
        kSignaled,     // ended by a signal that CoreUtils did not send
        kNotStarted,   // not run (missing, not executable, refused, a failpoint) or not waited for
        kTimedOut,     // killed at its time limit
        kOutputLimit,  // killed after printing more than kToolOutputLimitBytes
    };
    // The tool's file name as the caller named it: "VBoxManage" for
    // "/usr/local/bin/VBoxManage".
    std::wstring tool{};
    Kind kind = Kind::kExited;
    // kExited: the exit status; kSignaled: the signal number; otherwise the
    // code ExecuteSafeToText returned (kNotFound, kAccessDenied, kTimedOut,
    // kTooLarge, ...).
    int status = 0;
    // The last CCallRecords::kErrorLines lines of the tool's error text that
    // hold more than blanks, oldest first, separated by "\n" (a CR before a
    // line feed dropped), cut to the last CCallRecords::kErrorTextBytes bytes
    // of UTF-8 at a character start. The error text is standard error, or
    // both streams as the caller got them when it asked for them merged.
    // "" for a tool that did not start or was killed past its output limit
    // (its output is dropped).
    std::wstring errorText{};
    // CoreUtils' one-line diagnostic of the run, as ExecuteSafeToText's
    // `third` gets it ("" when there is none).
    std::wstring diagnostic{};
    bool operator==(const ToolFailure&) const = default;
};

class KALDO_API CCallRecords {
public:
    // What a scope keeps of each kind of record; later ones are counted in
    // droppedCount(). The first failures are the ones that tell the cause.
    static constexpr size_t kMaxRecords = 4096;
    static constexpr size_t kErrorLines = 3;
    static constexpr size_t kErrorTextBytes = 512;

    // Opens a scope on the calling thread.
    CCallRecords() noexcept;
    // Closes it.
    ~CCallRecords();
    CCallRecords(const CCallRecords&) = delete;
    CCallRecords& operator=(const CCallRecords&) = delete;

    // The error records added on this thread while the scope was open,
    // oldest first.
    const std::vector<ErrorRecord>& errors() const noexcept { return errors_; }
    // The failed tool runs, in the order they ended.
    const std::vector<ToolFailure>& toolFailures() const noexcept { return toolFailures_; }
    // Records left out: past kMaxRecords, or when memory ran out.
    size_t droppedCount() const noexcept { return dropped_; }

    // Where CoreUtils hands its records in (internal to CoreUtils).
    struct Sink;

private:
    CCallRecords* outer_;
    std::vector<ErrorRecord> errors_;
    std::vector<ToolFailure> toolFailures_;
    size_t dropped_ = 0;
};

}  // namespace KALDO
