// A failed allocation anywhere inside a method: the host gets a code, never
// an exception or a crash, and the next call answers as before. This
// executable replaces the global operator new, so the module and CoreUtils
// loaded into it allocate through it too; armed, it fails one allocation
// (a passing shortage) or that one and every later one (memory gone).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "DemoMac.h"
#include "TreeJson.h"

namespace {

std::atomic<long> g_allocations{0};  // counted while armed or counting
std::atomic<long> g_failAt{-1};      // the allocation that fails; -1: none
std::atomic<bool> g_sticky{false};   // fail every allocation after it too
std::atomic<bool> g_counting{false};

void* Allocate(std::size_t size) {
    if (g_counting.load(std::memory_order_relaxed)) {
        const long n = g_allocations.fetch_add(1, std::memory_order_relaxed);
        const long failAt = g_failAt.load(std::memory_order_relaxed);
        if (failAt >= 0 && (n == failAt || (n > failAt && g_sticky.load()))) throw std::bad_alloc();
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return Allocate(size);
}
void* operator new[](std::size_t size) {
    return Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using implvm_test::MethodCall;

struct Outcome {
    int result = 0;
    bool threw = false;
    size_t records = 0;  // the error log's growth
};

// The method alone, with its trees made beforehand: only its own
// allocations are counted and failed.
Outcome CallArmed(const MethodCall& call, long failAt, bool sticky, long* allocations = nullptr) {
    const KALDO::typeProperty in = implvm::JsonToTree(call.inputs);
    KALDO::typeProperty out;
    std::unique_ptr<KALDO::CSoftwareVersion> version;
    if (!call.productVersion.empty())
        version = std::make_unique<KALDO::CSoftwareVersion>(call.productVersion);
    const size_t before = KALDO::CErrorInfo::getErrors().size();
    Outcome outcome;
    g_allocations = 0;
    g_sticky = sticky;
    g_failAt = failAt;
    g_counting = true;
    try {
        outcome.result = call.method(0, 0, 0, version.get(), &in, &out);
    } catch (...) {
        outcome.threw = true;
    }
    g_counting = false;
    g_failAt = -1;
    if (allocations != nullptr) *allocations = g_allocations;
    outcome.records = KALDO::CErrorInfo::getErrors().size() - before;
    return outcome;
}

// Which allocations to fail: each of the first ones, where the inputs are
// read, then a spread over the rest.
std::vector<long> FailurePoints(long total) {
    std::vector<long> points;
    for (long n = 0; n < total && n < 24; ++n) points.push_back(n);
    constexpr long kSpread = 40;
    for (long k = 1; k <= kSpread && total > 24; ++k)
        points.push_back(24 + (total - 24) * k / (kSpread + 1));
    return points;
}

TEST(AllocationFailures, NeverEscapeAMethodNorSpoilTheNextCall) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    implvm_test::UseRecordedTools(mac);
    std::vector<MethodCall> calls = implvm_test::ReadingCalls();
    for (MethodCall& action : implvm_test::ActionCalls()) calls.push_back(std::move(action));

    for (const MethodCall& call : calls) {
        SCOPED_TRACE(call.label());
        long total = 0;
        const Outcome baseline = CallArmed(call, -1, false, &total);
        ASSERT_FALSE(baseline.threw);
        KALDO::CErrorInfo::clearErrors();
        for (const long failAt : FailurePoints(total)) {
            for (const bool sticky : {false, true}) {
                const Outcome armed = CallArmed(call, failAt, sticky);
                EXPECT_FALSE(armed.threw) << "allocation " << failAt << " of " << total;
                // A passing shortage leaves room for the record of the failure.
                if (!sticky && armed.result < 0) {
                    EXPECT_GT(armed.records, 0u) << "allocation " << failAt << " of " << total;
                }
            }
            KALDO::CErrorInfo::clearErrors();
        }
        EXPECT_EQ(CallArmed(call, -1, false).result, baseline.result) << "after the failures";
        KALDO::CErrorInfo::clearErrors();
    }
}

}  // namespace
