// File reading and listing, the machine root and fault injection.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "KALDO/CFileUtils.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "KALDO/MachineRoot.h"
#include "KALDO/Result.h"
#include "TestMachine.h"

extern char** environ;

namespace fs = std::filesystem;
using namespace KALDO;
using Names = std::vector<std::wstring>;

namespace {

class FilesTest : public ::testing::Test {
protected:
    implvm_test::TestMachine mac;
    fs::path host(const std::string& macPath) const { return mac.hostPath(macPath); }
    void write(const std::string& macPath, const std::string& bytes) {
        mac.writeFile(macPath, bytes);
    }
    void mkdir(const std::string& macPath) { mac.makeDir(macPath); }
    std::wstring read(const std::wstring& path, int expected = 0) const {
        std::wstring text = L"before";
        EXPECT_EQ(CFileUtils::ReadFromTextFile(path, text), expected);
        return text;
    }
    Names listing(std::wstring path, bool recursive, int mask, int depth, int full) const {
        typeProperty list;
        EXPECT_EQ(CFileUtils::POSIX_ListFilesInDirectory(path, list, recursive, mask, depth, full),
                  0);
        Names names;
        int size = 0;
        list.getVecSize(size);
        for (int i = 0; i < size; ++i) names.emplace_back(), list.getVecVal(i, names.back());
        return names;
    }
};

TEST_F(FilesTest, ReadDecodesAndKeepsWhatTheFileHolds) {
    write("/bom", "\xEF\xBB\xBFhi\xC3\xA9");
    write("/nul", std::string("a\0b\xFFz", 5));
    write("/short", "\xEF\xBB");
    write("/empty", "");
    write("/midbom", "x\xEF\xBB\xBF");
    EXPECT_EQ(read(L"/bom"), L"hi\u00E9");
    EXPECT_EQ(read(L"/nul"), std::wstring(L"a\0b\uFFFDz", 5));
    EXPECT_EQ(read(L"/short"), L"\uFFFD");
    EXPECT_EQ(read(L"/empty"), L"");
    EXPECT_EQ(read(L"/midbom"), L"x\uFEFF");
}

TEST_F(FilesTest, ReadFailuresLeaveTheTextAlone) {
    mkdir("/folder");
    ASSERT_EQ(mkfifo(host("/fifo").c_str(), 0600), 0);  // must not block the reader
    write("/file", "x");
    EXPECT_EQ(read(L"/missing", kNotFound), L"before");
    EXPECT_EQ(read(L"/file/below", kNotFound), L"before");
    EXPECT_EQ(read(L"/folder", kInvalidArgument), L"before");
    EXPECT_EQ(read(L"/fifo", kInvalidArgument), L"before");
    EXPECT_EQ(read(L"", kInvalidArgument), L"before");
    EXPECT_EQ(read(std::wstring(L"/file\0x", 7), kInvalidArgument), L"before");
}

// An 11-byte pattern puts each power-of-two chunk boundary at another place
// within a sequence; random bytes add broken ones.
TEST_F(FilesTest, ReadMatchesOneShotDecodingAcrossChunks) {
    std::string pattern;
    for (int i = 0; i < 80000; ++i) pattern += "ab\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    std::string noise(1 << 20, '\0');
    std::mt19937 rng(11);
    for (char& c : noise) c = static_cast<char>(rng() % 8 ? 'a' + rng() % 26 : rng() % 256);
    for (const std::string* bytes : {&pattern, &noise}) {
        write("/big", *bytes);
        EXPECT_TRUE(read(L"/big") == CStringUtils::StringToWString(*bytes));
    }
}

TEST_F(FilesTest, PresenceCountsFoldersAndNotDanglingLinks) {
    write("/dir/file", "x");
    fs::create_symlink(host("/dir/file"), host("/link"));
    fs::create_symlink(host("/nowhere"), host("/dangling"));
    // clang-format off
    struct Case {
        const wchar_t* path;
        int code;
    } cases[] = {
        {L"/dir", 0}, {L"/dir/", 0}, {L"/dir/file", 0}, {L"/link", 0}, {L"/dangling", kNotFound},
        {L"/missing", kNotFound}, {L"", kInvalidArgument}, {L"/../dir", 0},
    };
    // clang-format on
    for (const Case& c : cases) EXPECT_EQ(CFileUtils::IsFilePresent(c.path), c.code) << c.path;
}

TEST_F(FilesTest, DirectoryListIsBareAndSortedByBytes) {
    for (const char* name : {"b", "B", "a.mem", "config.sav", "\xC3\xA9t\xC3\xA9", "z"})
        write(std::string("/vm/") + name, "");
    mkdir("/vm/sub");
    Names names{L"stale"};
    ASSERT_EQ(CFileUtils::GetDirectoryList(L"/vm", names), 0);
    EXPECT_EQ(names, (Names{L"B", L"a.mem", L"b", L"config.sav", L"sub", L"z", L"\u00E9t\u00E9"}));
    names = {L"stale"};
    EXPECT_EQ(CFileUtils::GetDirectoryList(L"/none", names), kNotFound);
    EXPECT_EQ(CFileUtils::GetDirectoryList(L"/vm/b", names), kInvalidArgument);
    EXPECT_EQ(names, Names{L"stale"});
}

TEST_F(FilesTest, ListingOptions) {
    write("/vm/a.vmx", "");
    write("/vm/b.vmem", "");
    write("/vm/sub/c.txt", "");
    write("/vm/sub/deep/d.txt", "");
    fs::create_symlink("a.vmx", host("/vm/link-file"));
    fs::create_symlink("sub", host("/vm/link-dir"));
    fs::create_symlink("gone", host("/vm/link-gone"));
    // clang-format off
    struct Case {
        bool recursive;
        int mask;
        int depth;
        Names names;
    } cases[] = {
        {false, 0, 0, {L"a.vmx", L"b.vmem", L"link-dir", L"link-file", L"link-gone", L"sub"}},
        {false, 32, 0, {L"a.vmx", L"b.vmem", L"link-file"}},
        {true, 32, 0, {L"a.vmx", L"b.vmem", L"link-file", L"sub/c.txt", L"sub/deep/d.txt"}},
        {true, 32, 2, {L"a.vmx", L"b.vmem", L"link-file", L"sub/c.txt"}},
        {true, 48, 1, {L"a.vmx", L"b.vmem", L"link-dir", L"link-file", L"sub"}},
    };
    // clang-format on
    for (const Case& c : cases)
        EXPECT_EQ(listing(L"/vm", c.recursive, c.mask, c.depth, 0), c.names)
            << c.recursive << " " << c.mask << " " << c.depth;
    EXPECT_EQ(listing(L"/vm/", false, 32, 0, 1),
              (Names{L"/vm/a.vmx", L"/vm/b.vmem", L"/vm/link-file"}));

    std::wstring path = L"/missing";
    typeProperty list;
    list.setVal(L"kept");
    EXPECT_EQ(CFileUtils::POSIX_ListFilesInDirectory(path, list, false, 0, 0, 0), kNotFound);
    EXPECT_EQ(path, L"/missing");
    EXPECT_EQ(list.kind(), typeProperty::Kind::String);
}

TEST(SplitPath, Table) {
    struct Case {
        const wchar_t* path;
        const wchar_t* folder;
        const wchar_t* name;
        const wchar_t* ext;
    } cases[] = {{L"/Users/a/VMs/Win7.vmx", L"/Users/a/VMs", L"Win7", L".vmx"},
                 {L"/x/Win7.vmwarevm/", L"/x", L"Win7", L".vmwarevm"},
                 {L"Win.vmx", L"", L"Win", L".vmx"},
                 {L"/a//b.tar.gz", L"/a", L"b.tar", L".gz"},
                 {L"/home/.profile", L"/home", L".profile", L""},
                 {L"/a/dot.", L"/a", L"dot", L"."},
                 {L"/", L"/", L"", L""},
                 {L"/My VMs.d/Win 7", L"/My VMs.d", L"Win 7", L""}};
    for (const Case& c : cases) {
        std::wstring drive = L"x", folder, name, ext;
        ASSERT_EQ(rtSplitPath(c.path, drive, folder, name, ext), 0) << c.path;
        EXPECT_EQ(drive, L"");
        EXPECT_EQ(folder, c.folder) << c.path;
        EXPECT_EQ(name, c.name) << c.path;
        EXPECT_EQ(ext, c.ext) << c.path;
    }
    std::wstring d, f, n, e = L"kept";
    EXPECT_EQ(rtSplitPath(L"", d, f, n, e), kInvalidArgument);
    EXPECT_EQ(e, L"kept");
}

TEST(MachineRootMap, Table) {
    CMachineRoot::Set("/srv/mac/");
    EXPECT_EQ(CMachineRoot::Get(), "/srv/mac");
    EXPECT_TRUE(CMachineRoot::IsSet());
    struct Case {
        const char* mac;
        const char* host;
    } cases[] = {{"/Library/x.xml", "/srv/mac/Library/x.xml"},
                 {"/../../etc/passwd", "/srv/mac/etc/passwd"},
                 {"/a/../../../b", "/srv/mac/b"},
                 {"/a/./b//c/", "/srv/mac/a/b/c/"},
                 {"/", "/srv/mac"},
                 {"/..", "/srv/mac"},
                 {"relative/x", "relative/x"},
                 {"", ""}};
    for (const Case& c : cases) EXPECT_EQ(CMachineRoot::Map(c.mac), c.host) << c.mac;
    CMachineRoot::Set("/srv/x/../mac");
    EXPECT_EQ(CMachineRoot::Get(), "/srv/mac");
    CMachineRoot::Set("rel");
    EXPECT_EQ(CMachineRoot::Get(), fs::current_path().string() + "/rel");
    CMachineRoot::Set("");
    EXPECT_FALSE(CMachineRoot::IsSet());
    EXPECT_EQ(CMachineRoot::Map("/../etc"), "/../etc");
}

TEST_F(FilesTest, FactsFromTheMachineFile) {
    std::vector<std::string> values{"kept"};
    EXPECT_EQ(CMachineRoot::Facts("console_user", values), kNotFound);  // no file yet
    write("/.machine",
          "# a simulated Mac\n\nconsole_user = ann\r\nconsole_uid=501\n"
          "nic = en0 00:1c:42:aa:bb:cc\n  nic =   en1 -  \nnote = a=b\nbroken line\n");
    // clang-format off
    struct Case {
        const char* key;
        std::vector<std::string> values;
    } cases[] = {
        {"console_user", {"ann"}}, {"console_uid", {"501"}},
        {"nic", {"en0 00:1c:42:aa:bb:cc", "en1 -"}}, {"note", {"a=b"}},
    };
    // clang-format on
    for (const Case& c : cases) {
        ASSERT_EQ(CMachineRoot::Facts(c.key, values), 0) << c.key;
        EXPECT_EQ(values, c.values);
    }
    EXPECT_EQ(CMachineRoot::Facts("console_home", values), kNotFound);
    CMachineRoot::Set("");
    EXPECT_EQ(CMachineRoot::Facts("console_user", values), kNotFound);
    EXPECT_EQ(values, std::vector<std::string>{"a=b"});
}

TEST(Failpoints, SyntaxTable) {
    const auto check = [](const char* text, bool valid) {
        ASSERT_EQ(CFailpoints::Set("Keep=-7"), 0);
        EXPECT_EQ(CFailpoints::Set(text), valid ? 0 : kInvalidArgument) << text;
        int code = 0;
        EXPECT_EQ(CFailpoints::Check("Keep", code), !valid) << text;  // malformed: no change
    };
    for (const char* text : {"", " ; ;", "ReadFromTextFile=-4", "A=-4;B@x=-32;", "A@/p a=th/x=-2"})
        check(text, true);
    for (const char* text :
         {"Op=", "Op=abc", "Op=4", "=-4", "Op@=-4", "Op=-99999999999", "Op=-4;Broken"})
        check(text, false);
    CFailpoints::Clear();
}

TEST(Failpoints, EveryForm) {
    ASSERT_EQ(
        CFailpoints::Set(" Any = -4 ;Path@/My VMs/a=b.vmx=-32;Path@/x=-2;Path@/x=-3;Tool@vmrun=-1"),
        0);
    // clang-format off
    struct Case {
        const char* op;
        const wchar_t* subject;  // nullptr: the form without a subject
        int code;                // 0: does not fire
    } cases[] = {
        {"Any", L"/whatever", -4}, {"Any", nullptr, -4}, {"Path", L"/My VMs/a=b.vmx", -32},
        {"Path", L"/My VMs/a", 0}, {"Path", L"/x", -2}, {"Path", nullptr, 0},
        {"Tool", L"vmrun", -1}, {"Tool", L"VMRUN", 0}, {"Other", L"/x", 0},
    };
    // clang-format on
    for (const Case& c : cases) {
        int code = 0;
        const bool fired =
            c.subject ? CFailpoints::Check(c.op, c.subject, code) : CFailpoints::Check(c.op, code);
        EXPECT_EQ(fired, c.code != 0) << c.op;
        if (fired) {
            EXPECT_EQ(code, c.code) << c.op;
        }
    }
    CFailpoints::Clear();
    int code = 0;
    EXPECT_FALSE(CFailpoints::Check("Any", code));
}

// Each file operation fails for the path as the caller wrote it (not as the
// root maps it) and does nothing else.
TEST_F(FilesTest, FileOperationsHonourTheirFailpoints) {
    write("/vm/a.vmx", "text");
    ASSERT_EQ(CFailpoints::Set("ReadFromTextFile@/vm/a.vmx=-32;IsFilePresent@/vm=-4;"
                               "GetDirectoryList@/vm=-5;POSIX_ListFilesInDirectory@/vm=-6;"
                               "rtSplitPath@/vm/a.vmx=-9"),
              0);
    EXPECT_EQ(read(L"/vm/a.vmx", kBusy), L"before");
    EXPECT_EQ(read(L"/vm/../vm/a.vmx"), L"text");
    EXPECT_EQ(CFileUtils::IsFilePresent(L"/vm"), kAccessDenied);
    EXPECT_EQ(CFileUtils::IsFilePresent(L"/vm/a.vmx"), 0);
    Names names{L"kept"};
    EXPECT_EQ(CFileUtils::GetDirectoryList(L"/vm", names), -5);
    EXPECT_EQ(names, Names{L"kept"});
    std::wstring path = L"/vm";
    typeProperty list;
    EXPECT_EQ(CFileUtils::POSIX_ListFilesInDirectory(path, list, false, 0, 0, 0), -6);
    EXPECT_TRUE(list.isEmpty());
    std::wstring d, f, n, e;
    EXPECT_EQ(rtSplitPath(L"/vm/a.vmx", d, f, n, e), -9);
    EXPECT_EQ(f, L"");
}

TEST(Concurrency, RootAndFailpointsChangeUnderReaders) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&stop] {
            while (!stop) {
                const std::string mapped = CMachineRoot::Map("/etc/x");
                ASSERT_TRUE(mapped == "/etc/x" || mapped == "/r1/etc/x" || mapped == "/r2/etc/x");
                int code = 0;
                if (CFailpoints::Check("Op", L"/p", code)) {
                    ASSERT_EQ(code, -4);
                }
            }
        });
    for (int i = 0; i < 2000; ++i) {
        CMachineRoot::Set(i % 3 == 0 ? "" : (i % 3 == 1 ? "/r1" : "/r2"));
        if (i % 2)
            CFailpoints::Set("Op@/p=-4");
        else
            CFailpoints::Clear();
    }
    stop = true;
    for (auto& reader : readers) reader.join();
    CMachineRoot::Set("");
    CFailpoints::Clear();
}

// KALDO_ROOT and KALDO_FAILPOINTS are read at first use: check them in a
// fresh copy of this test program.
TEST(Environment, ReadAtFirstUse) {
    if (std::getenv("KALDO_ENV_CHILD")) {
        int code = 0;
        ASSERT_TRUE(CFailpoints::Check("ReadFromTextFile", L"/a b=c", code));
        EXPECT_EQ(code, -32);
        EXPECT_EQ(CMachineRoot::Get(), "/tmp/env-root");
        return;
    }
#ifdef __linux__
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    std::vector<std::string> env = {"KALDO_ENV_CHILD=1", "KALDO_ROOT=/tmp/env-root/",
                                    "KALDO_FAILPOINTS=ReadFromTextFile@/a b=c=-32"};
    std::vector<char*> envp;
    for (auto& s : env) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string filter = "--gtest_filter=Environment.ReadAtFirstUse";
    char* argv[] = {const_cast<char*>(self.c_str()), filter.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#else
    GTEST_SKIP() << "needs /proc/self/exe";
#endif
}

}  // namespace
