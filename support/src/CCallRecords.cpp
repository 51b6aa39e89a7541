#include "KALDO/CCallRecords.h"

#include <new>

#include "CallRecordsSink.h"

namespace KALDO {

namespace {

// The innermost scope open on this thread; each scope links to the one it
// was opened in. Only this thread reads or changes the chain.
thread_local CCallRecords* t_innermost = nullptr;

template <typename Record>
void Keep(std::vector<Record>& records, const Record& record, size_t& dropped) noexcept {
    if (records.size() >= CCallRecords::kMaxRecords) {
        ++dropped;
        return;
    }
    try {
        records.push_back(record);
    } catch (const std::bad_alloc&) {
        // Collecting must never turn a failure into a crash; the loss is counted.
        ++dropped;
    }
}

}  // namespace

CCallRecords::CCallRecords() noexcept : outer_(t_innermost) {
    t_innermost = this;
}

CCallRecords::~CCallRecords() {
    if (t_innermost == this) {
        t_innermost = outer_;
        return;
    }
    // Closed before a scope opened inside it (a host that keeps scopes
    // elsewhere than on its stack): the inner one goes on with this one's outer.
    for (CCallRecords* scope = t_innermost; scope != nullptr; scope = scope->outer_) {
        if (scope->outer_ == this) {
            scope->outer_ = outer_;
            return;
        }
    }
}

bool CCallRecords::Sink::open() noexcept {
    return t_innermost != nullptr;
}

void CCallRecords::Sink::error(const ErrorRecord& record) noexcept {
    for (CCallRecords* scope = t_innermost; scope != nullptr; scope = scope->outer_)
        Keep(scope->errors_, record, scope->dropped_);
}

void CCallRecords::Sink::toolFailure(const ToolFailure& failure) noexcept {
    for (CCallRecords* scope = t_innermost; scope != nullptr; scope = scope->outer_)
        Keep(scope->toolFailures_, failure, scope->dropped_);
}

}  // namespace KALDO
