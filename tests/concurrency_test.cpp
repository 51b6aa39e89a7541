// Eight threads read one Mac through every reading method, as a host calls
// the module. Under ThreadSanitizer (make test-tsan) this is the race
// detector's workload; otherwise it checks that answers and the error log do
// not depend on what runs beside a call.
#include <gtest/gtest.h>

#include <map>
#include <thread>
#include <tuple>

#include "DemoMac.h"

using implvm_test::CallResult;

namespace {

constexpr int kThreads = 8;

// How often each record (code, file, line) occurs.
std::map<std::tuple<int, std::wstring, int>, int> Counts(
    const std::vector<KALDO::ErrorRecord>& records, int times) {
    std::map<std::tuple<int, std::wstring, int>, int> counts;
    for (const KALDO::ErrorRecord& r : records) counts[{r.code, r.file, r.line}] += times;
    return counts;
}

TEST(Concurrency, EightThreadsReadingOneMacGetTheSingleThreadedAnswers) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    const std::vector<implvm_test::MethodCall> calls = implvm_test::ReadingCalls();
    ASSERT_GT(calls.size(), 30u);

    std::vector<CallResult> expected;
    std::vector<KALDO::ErrorRecord> records;
    for (const auto& call : calls) {
        expected.push_back(call.run());
        records.insert(records.end(), expected.back().errors.begin(), expected.back().errors.end());
    }
    ASSERT_FALSE(records.empty()) << "the broken VM should leave records to check";
    ASSERT_LT(records.size() * kThreads, KALDO::CErrorInfo::kMaxRecords);

    KALDO::CErrorInfo::clearErrors();
    std::vector<std::string> mismatches[kThreads];
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Starting elsewhere in the list: different methods and the same meet.
            for (size_t i = 0; i < calls.size(); ++i) {
                const size_t k = (i + t * calls.size() / kThreads) % calls.size();
                const CallResult got = calls[k].run();
                if (got.result != expected[k].result || got.outputs != expected[k].outputs)
                    mismatches[t].push_back(calls[k].label() + " -> " + std::to_string(got.result) +
                                            " " + got.outputs.dump());
            }
        });
    for (std::thread& thread : threads) thread.join();

    for (size_t t = 0; t < kThreads; ++t)
        EXPECT_TRUE(mismatches[t].empty()) << "thread " << t << ": " << mismatches[t].front();
    EXPECT_EQ(KALDO::CErrorInfo::droppedCount(), 0u);
    EXPECT_EQ(Counts(KALDO::CErrorInfo::getErrors(), 1), Counts(records, kThreads))
        << "every failure recorded once per call, whole";
}

}  // namespace
