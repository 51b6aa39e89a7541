// File reading and listing, the machine root and failpoints.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "KALDO/KALDO.h"
#include "TestMachine.h"

namespace fs = std::filesystem;
using namespace KALDO;
using Names = std::vector<std::wstring>;

namespace {

std::wstring Read(const std::wstring& path, int expected = 0) {
    std::wstring text = L"before";
    EXPECT_EQ(CFileUtils::ReadFromTextFile(path, text), expected) << path;
    return text;
}

// An 11-byte pattern puts each power-of-two chunk boundary at another place
// within a sequence; random bytes add broken ones and NULs.
TEST(Files, ReadDropsALeadingBomAndDecodesAcrossChunks) {
    implvm_test::TestMachine mac;
    std::string pattern, noise(1 << 20, '\0');
    for (int i = 0; i < 80000; ++i) pattern += "ab\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    std::mt19937 rng(11);
    for (char& c : noise) c = static_cast<char>(rng() % 8 ? 'a' + rng() % 26 : rng() % 256);
    const std::pair<std::string, std::wstring> cases[] = {
        {"\xEF\xBB\xBFhi", L"hi"},
        {"\xEF\xBB", L"\uFFFD"},
        {"x\xEF\xBB\xBF", L"x\uFEFF"},
        {pattern, CStringUtils::StringToWString(pattern)},
        {noise, CStringUtils::StringToWString(noise)}};
    for (const auto& [bytes, text] : cases) {
        mac.writeFile("/f", bytes);
        EXPECT_TRUE(Read(L"/f") == text) << bytes.size();
    }
}

TEST(Files, FailuresLeaveTheOutputAlone) {
    implvm_test::TestMachine mac;
    mac.writeFile("/dir/file", "x");
    ASSERT_EQ(mkfifo(mac.hostPath("/fifo").c_str(), 0600), 0);  // must not block the reader
    fs::create_symlink(mac.hostPath("/dir/file"), mac.hostPath("/link"));
    fs::create_symlink(mac.hostPath("/nowhere"), mac.hostPath("/dangling"));
    // clang-format off
    const std::tuple<std::wstring, int, int> cases[] = {  // path, read code, presence code
        {L"/missing", kNotFound, kNotFound}, {L"/dir/file/below", kNotFound, kNotFound},
        {L"/dir", kInvalidArgument, 0}, {L"/fifo", kInvalidArgument, 0}, {L"/link", 0, 0},
        {L"", kInvalidArgument, kInvalidArgument}, {L"/dangling", kNotFound, kNotFound},
        {std::wstring(L"/link\0x", 7), kInvalidArgument, kInvalidArgument},
        {L"/../dir/", kInvalidArgument, 0}};
    // clang-format on
    for (const auto& [path, readCode, presence] : cases) {
        EXPECT_EQ(Read(path, readCode), readCode ? L"before" : L"x");
        EXPECT_EQ(CFileUtils::IsFilePresent(path), presence) << path;
    }
    Names names{L"stale"};
    typeProperty list;
    std::wstring path = L"/missing";
    EXPECT_EQ(CFileUtils::GetDirectoryList(L"/none", names), kNotFound);
    EXPECT_EQ(CFileUtils::GetDirectoryList(L"/dir/file", names), kInvalidArgument);
    EXPECT_EQ(CFileUtils::POSIX_ListFilesInDirectory(path, list, false, 0, 0, 0), kNotFound);
    EXPECT_TRUE(names == Names{L"stale"} && list.isEmpty());
}

TEST(Files, ListingsAreSortedByBytesWithTheirOptions) {
    implvm_test::TestMachine mac;
    for (const char* name : {"B", "a.vmx", "\xC3\xA9t\xC3\xA9", "sub/c.txt", "sub/deep/d.txt"})
        mac.writeFile(std::string("/vm/") + name, "");
    fs::create_symlink("a.vmx", mac.hostPath("/vm/link-file"));
    fs::create_symlink("sub", mac.hostPath("/vm/link-dir"));
    fs::create_symlink("gone", mac.hostPath("/vm/link-gone"));
    const std::wstring e = L"\u00E9t\u00E9";
    Names names;
    ASSERT_EQ(CFileUtils::GetDirectoryList(L"/vm", names), 0);
    EXPECT_EQ(names, (Names{L"B", L"a.vmx", L"link-dir", L"link-file", L"link-gone", L"sub", e}));
    const auto listing = [](std::wstring path, bool recursive, int mask, int depth, int full) {
        typeProperty list;
        EXPECT_EQ(CFileUtils::POSIX_ListFilesInDirectory(path, list, recursive, mask, depth, full),
                  0);
        Names out;
        for (const typeProperty& name : *list.vecEntries()) name.getString(out.emplace_back());
        return out;
    };
    // clang-format off
    const std::tuple<bool, int, int, Names> cases[] = {  // recursive, mask, depth
        {false, 32, 0, {L"B", L"a.vmx", L"link-file", e}},
        {true, 32, 0, {L"B", L"a.vmx", L"link-file", L"sub/c.txt", L"sub/deep/d.txt", e}},
        {true, 32, 2, {L"B", L"a.vmx", L"link-file", L"sub/c.txt", e}},
        {true, 48, 1, {L"B", L"a.vmx", L"link-dir", L"link-file", L"sub", e}}};
    // clang-format on
    for (const auto& [recursive, mask, depth, expected] : cases)
        EXPECT_EQ(listing(L"/vm", recursive, mask, depth, 0), expected) << mask << " " << depth;
    EXPECT_EQ(listing(L"/vm/sub/", false, 32, 0, 1), Names{L"/vm/sub/c.txt"});
}

TEST(Files, MachineFactsAndMappingThatNeverLeavesTheRoot) {
    implvm_test::TestMachine mac;
    std::vector<std::string> values{"kept"};
    EXPECT_EQ(CMachineRoot::Facts("nic", values), kNotFound);  // no file yet
    mac.writeFile("/.machine", "# nic = no\n\n  nic =   en1 -  \r\nnic=en0 a=b\nbroken line\n");
    ASSERT_EQ(CMachineRoot::Facts("nic", values), 0);
    EXPECT_EQ(values, (std::vector<std::string>{"en1 -", "en0 a=b"}));
    EXPECT_EQ(CMachineRoot::Facts("broken", values), kNotFound);

    CMachineRoot::Set("/srv/x/../mac/");
    EXPECT_EQ(CMachineRoot::Get(), "/srv/mac");
    // clang-format off
    const std::pair<const char*, const char*> cases[] = {
        {"/Library/x.xml", "/srv/mac/Library/x.xml"}, {"/a/../../../b", "/srv/mac/b"},
        {"/a/./b//c/", "/srv/mac/a/b/c/"}, {"/..", "/srv/mac"}, {"relative/x", "relative/x"}};
    // clang-format on
    for (const auto& [macPath, host] : cases) EXPECT_EQ(CMachineRoot::Map(macPath), host);
    CMachineRoot::Set("rel");
    EXPECT_EQ(CMachineRoot::Get(), fs::current_path().string() + "/rel");
    CMachineRoot::Set("");
    EXPECT_EQ(CMachineRoot::Map("/../etc"), "/../etc");
}

TEST(Failpoints, SyntaxAndForms) {
    int code = 0;
    for (const char* bad :
         {"Op=", "Op=abc", "Op=4", "=-4", "Op@=-4", "Op=-9999999999", "Op=-4;x"}) {
        ASSERT_EQ(CFailpoints::Set("Keep=-7"), 0);
        EXPECT_EQ(CFailpoints::Set(bad), kInvalidArgument) << bad;
        EXPECT_TRUE(CFailpoints::Check("Keep", code)) << bad << ": no change";
    }
    ASSERT_EQ(CFailpoints::Set(" ; ;"), 0);
    ASSERT_EQ(CFailpoints::Set(" Any = -4 ;P@/My VMs/a=b.vmx=-32;P@/x=-2;P@/x=-3;Tool@vmrun=-1;"),
              0);
    // clang-format off
    const std::tuple<const char*, const wchar_t*, int> cases[] = {  // 0: does not fire
        {"Any", L"/whatever", -4}, {"Any", nullptr, -4}, {"P", L"/My VMs/a=b.vmx", -32},
        {"P", L"/My VMs/a", 0}, {"P", L"/x", -2}, {"P", nullptr, 0}, {"Tool", L"VMRUN", 0}};
    // clang-format on
    for (const auto& [op, subject, expected] : cases) {
        code = 0;
        EXPECT_EQ(subject ? CFailpoints::Check(op, subject, code) : CFailpoints::Check(op, code),
                  expected != 0)
            << op;
        EXPECT_EQ(code, expected) << op;
    }
    CFailpoints::Clear();
    EXPECT_FALSE(CFailpoints::Check("Any", code));
}

TEST(Concurrency, RootAndFailpointsChangeUnderReaders) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&stop] {
            for (int code = 0; !stop; code = 0) {
                const std::string mapped = CMachineRoot::Map("/etc/x");
                ASSERT_TRUE(mapped == "/etc/x" || mapped == "/r1/etc/x" || mapped == "/r2/etc/x");
                ASSERT_TRUE(!CFailpoints::Check("Op", L"/p", code) || code == -4);
            }
        });
    for (int i = 0; i < 2000; ++i) {
        CMachineRoot::Set(i % 3 == 0 ? "" : (i % 3 == 1 ? "/r1" : "/r2"));
        i % 2 ? (void)CFailpoints::Set("Op@/p=-4") : CFailpoints::Clear();
    }
    stop = true;
    for (auto& reader : readers) reader.join();
    CMachineRoot::Set("");
    CFailpoints::Clear();
}

// KALDO_ROOT and KALDO_FAILPOINTS are read at first use: check them in a
// fresh copy of this test program. KALDO_FAILPOINTS only with test hooks: a
// product build ignores it.
TEST(Environment, ReadAtFirstUse) {
    int code = 0;
    if (std::getenv("KALDO_ENV_CHILD")) {
        EXPECT_EQ(CFailpoints::Check("ReadFromTextFile", L"/a b=c", code), IMPLVM_TEST_HOOKS != 0);
        if (IMPLVM_TEST_HOOKS) {
            EXPECT_EQ(code, -32);
        }
        EXPECT_EQ(CMachineRoot::Get(), "/tmp/env-root");
        return;
    }
    const auto r = implvm_test::RunProcess(
        {fs::read_symlink("/proc/self/exe").string(), "--gtest_filter=Environment.*"},
        {{"KALDO_ENV_CHILD", "1"},
         {"KALDO_ROOT", "/tmp/env-root/"},
         {"KALDO_FAILPOINTS", "ReadFromTextFile@/a b=c=-32"}});
    EXPECT_EQ(r.exitCode, 0) << r.out;
}

}  // namespace
