// Per-call records: what a scope collects on its thread of the error log and
// of failed tool runs, and that the runs answer as without it.
#include <signal.h>

#include <cstdlib>
#include <latch>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "CallRecordsSink.h"
#include "Golden.h"
#include "KALDO/KALDO.h"
#include "TestMachine.h"

using namespace KALDO;
using implvm_test::FakeResponse;
using implvm_test::TestMachine;
using Kind = ToolFailure::Kind;

namespace {

// Each case of tests/data/error_text: what a tool printed.
TEST(CallRecords, ErrorTextIsTheLastLinesThatHoldText) {
    implvm_test::CheckGoldenTable("error_text", [](const implvm::Json& text) {
        return implvm_test::Narrow(detail::LastLines(
            text.get<std::string>(), CCallRecords::kErrorLines, CCallRecords::kErrorTextBytes));
    });
}

struct ToolAnswer {
    int rc = 0, exitCode = -99;
    std::wstring out, err, diagnostic;
    bool operator==(const ToolAnswer&) const = default;
};

ToolAnswer Execute(const std::wstring& tool, bool separate) {
    ToolAnswer r;
    r.rc = CProcessUtils::ExecuteSafeToText(tool, {L"arg"}, r.exitCode, &r.out,
                                            separate ? &r.err : nullptr, &r.diagnostic);
    return r;
}

// Each case runs once in a scope and once without: the answers must be
// equal. The time limit is short only for the tool that hangs: a flood must
// reach its output limit first.
TEST(CallRecords, FailedToolRunsAndTheirErrorText) {
    const std::string lock =  // four lines that hold text
        "VBoxManage: error: Failed to lock\n"
        "VBoxManage: error: The machine 'Debian 12' is already locked by a session\n"
        "VBoxManage: error: Details: code VBOX_E_INVALID_OBJECT_STATE\n\n"
        "VBoxManage: error: Context: \"LockMachine\"\r\n";
    const wchar_t* const tail =
        L"VBoxManage: error: The machine 'Debian 12' is already locked by a session\n"
        L"VBoxManage: error: Details: code VBOX_E_INVALID_OBJECT_STATE\n"
        L"VBoxManage: error: Context: \"LockMachine\"";
    struct Case {
        const char* tool;  // under /usr/local/bin
        FakeResponse response;
        bool separate;
        int rc;
        Kind kind;
        int status;
        const wchar_t* errorText;  // null: no failure recorded
    };
    const Case cases[] = {
        {"VBoxManage", {"Waiting\n", lock, 1}, true, 0, Kind::kExited, 1, tail},
        {"VBoxManage", {"Waiting\n", lock, 1}, false, 0, Kind::kExited, 1, tail},
        {"vmrun", {"", "crashed\n", 0, SIGSEGV}, true, 0, Kind::kSignaled, SIGSEGV, L"crashed"},
        {"prlctl", {"ok\n", "a warning\n", 0}, true, 0, Kind::kExited, 0, nullptr},
        {"yes",
         {.out = std::string(1 << 20, 'y'), .err = "e\n", .outRepeat = 65},
         true,
         kTooLarge,
         Kind::kOutputLimit,
         kTooLarge,
         L""},
        {"hang", {.sleepSeconds = 30}, true, kTimedOut, Kind::kTimedOut, kTimedOut, L""},
        {"absent", {}, true, kNotFound, Kind::kNotStarted, kNotFound, L""},
        {"refused", {}, true, -32, Kind::kNotStarted, -32, L""},
    };
    for (const Case& c : cases) {
        TestMachine mac;  // also clears the failpoints
        const std::string path = std::string("/usr/local/bin/") + c.tool;
        if (c.tool != std::string("absent")) mac.installTool(path).respond(c.response);
        ASSERT_EQ(CFailpoints::Set("ExecuteSafeToText@/usr/local/bin/refused=-32"), 0);
        const std::wstring tool = CStringUtils::StringToWString(path);
        if (c.rc == kTimedOut) ::setenv("KALDO_TOOL_TIMEOUT", "0.3", 1);
        ToolAnswer inScope;
        std::vector<ToolFailure> failures;
        {
            CCallRecords records;
            inScope = Execute(tool, c.separate);
            failures = records.toolFailures();
        }
        EXPECT_EQ(inScope.rc, c.rc) << c.tool;
        EXPECT_EQ(Execute(tool, c.separate), inScope) << c.tool;
        ::unsetenv("KALDO_TOOL_TIMEOUT");
        std::vector<ToolFailure> expected;
        if (c.errorText != nullptr)
            expected.push_back({CStringUtils::StringToWString(std::string(c.tool)), c.kind,
                                c.status, c.errorText, inScope.diagnostic});
        EXPECT_EQ(failures, expected) << c.tool;
    }
}

std::vector<std::wstring> Files(const std::vector<ErrorRecord>& records) {
    std::vector<std::wstring> files;
    for (const ErrorRecord& r : records) files.push_back(r.file);
    return files;
}

// An inner scope sees what happened while it was open, an outer one all of
// it; the log gets everything as before; a scope closed out of order leaves
// the others linked; a full scope counts what it leaves out.
TEST(CallRecords, ScopesNestAndKeepABoundedList) {
    CErrorInfo::clearErrors();
    CErrorInfo::addIfError(-1, L"before", 1);
    {
        CCallRecords outer;
        CErrorInfo::addIfError(-2, L"outer", 2);
        {
            CCallRecords inner;
            CErrorInfo::addIfError(-3, L"inner", 3);
            CErrorInfo::addIfError(0, L"no error", 4);
            EXPECT_EQ(Files(inner.errors()), std::vector<std::wstring>{L"inner"});
        }
        CErrorInfo::addIfError(-4, L"after", 5);
        EXPECT_EQ(Files(outer.errors()), (std::vector<std::wstring>{L"outer", L"inner", L"after"}));
    }
    EXPECT_EQ(CErrorInfo::getErrors().size(), 4u);

    auto first = std::make_unique<CCallRecords>();
    auto second = std::make_unique<CCallRecords>();
    first.reset();
    CErrorInfo::addIfError(-5, L"late", 6);
    EXPECT_EQ(Files(second->errors()), std::vector<std::wstring>{L"late"});
    for (size_t i = 0; i < CCallRecords::kMaxRecords + 5; ++i) CErrorInfo::addIfError(-6, L"", 7);
    EXPECT_EQ(second->errors().size(), CCallRecords::kMaxRecords);
    EXPECT_EQ(second->droppedCount(), 6u);
    CErrorInfo::clearErrors();
}

// Two threads, each calling in its own scope at the same time, each sees
// only its own tool and its own records.
TEST(CallRecords, EachThreadSeesOnlyItsOwnCall) {
    TestMachine mac;
    const wchar_t* const tools[] = {L"/usr/local/bin/alpha", L"/usr/local/bin/beta"};
    mac.installTool("/usr/local/bin/alpha").respond("", 3, "alpha failed\n").quiet();
    mac.installTool("/usr/local/bin/beta").respond("", 4, "beta failed\n").quiet();
    constexpr int kCalls = 20;
    std::vector<ErrorRecord> errors[2];
    std::vector<ToolFailure> failures[2];
    std::latch start(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            CCallRecords records;
            start.arrive_and_wait();
            for (int i = 0; i < kCalls; ++i) {
                Execute(tools[t], true);
                CErrorInfo::addIfError(-1 - t, tools[t], i);
            }
            errors[t] = records.errors();
            failures[t] = records.toolFailures();
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < 2; ++t) {
        ASSERT_EQ(errors[t].size(), size_t(kCalls));
        ASSERT_EQ(failures[t].size(), size_t(kCalls));
        for (int i = 0; i < kCalls; ++i) {
            EXPECT_TRUE(errors[t][i].code == -1 - t && errors[t][i].line == i);
            EXPECT_TRUE(failures[t][i].status == 3 + t &&
                        failures[t][i].errorText == (t ? L"beta failed" : L"alpha failed"));
        }
    }
}

}  // namespace
