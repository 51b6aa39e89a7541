// Ten thousand calls in one process, readers and tool-running actions mixed:
// a host that runs for years must end where it began in open descriptors,
// child processes and resident memory.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "DemoMac.h"

namespace fs = std::filesystem;

namespace {

// The sanitizers' bookkeeping grows the resident set; a tenth of the calls
// still shows a descriptor or child lost.
constexpr int kCalls = implvm_test::kSanitized ? 1000 : 10000;

struct Usage {
    long descriptors = 0, residentKiB = -1;
};

Usage Measure() {
    // Less the listing's own descriptor.
    Usage usage{.descriptors = std::distance(fs::directory_iterator("/proc/self/fd"), {}) - 1};
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:")) usage.residentKiB = std::stol(line.substr(6));
    return usage;
}

TEST(Resources, TenThousandCallsEndWhereTheyBegan) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    implvm_test::UseRecordedTools(mac);
    std::vector<implvm_test::MethodCall> calls = implvm_test::ReadingCalls();
    for (auto& action : implvm_test::ActionCalls()) calls.push_back(std::move(action));

    // Lazily built tables, allocator pools and the log's first records
    // belong to the baseline.
    for (const auto& call : calls) call.run();
    KALDO::CErrorInfo::clearErrors();
    const Usage before = Measure();
    for (int i = 0; i < kCalls; ++i) {
        calls[static_cast<size_t>(i) % calls.size()].run();
        // As a host reads and empties the log now and then.
        if (i % 1000 == 999) KALDO::CErrorInfo::clearErrors();
    }
    const Usage after = Measure();

    std::printf("%d calls: descriptors %ld -> %ld, resident %ld -> %ld KiB\n", kCalls,
                before.descriptors, after.descriptors, before.residentKiB, after.residentKiB);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child, running or a zombie, is left";
    if (!implvm_test::kSanitized) {
        EXPECT_LE(after.residentKiB, before.residentKiB + 4096);
    }
}

}  // namespace
