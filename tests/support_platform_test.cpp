// Tool runs, process lookup, console user, property lists and the real
// network interfaces.
#include <plist/plist.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Golden.h"
#include "KALDO/KALDO.h"
#include "TestMachine.h"
#include "ToolTimeLimit.h"
#include "platform/LinkTypes.h"
#include "platform/Process.h"

namespace fs = std::filesystem;
using namespace KALDO;
using implvm_test::FakeResponse;
using implvm_test::TestMachine;

namespace {

struct ToolResult {
    int rc = 0;
    int exitCode = -99;
    std::wstring out, err, diagnostic;
};

ToolResult Execute(const std::wstring& tool, const std::vector<std::wstring>& args = {},
                   bool separate = false) {
    ToolResult r;
    r.rc = CProcessUtils::ExecuteSafeToText(tool, args, r.exitCode, &r.out,
                                            separate ? &r.err : nullptr, &r.diagnostic);
    return r;
}

bool HasUnreapedChild() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) > 0;
}

TEST(ExecuteSafeToText, ArgumentsReachTheToolByteForByte) {
    TestMachine mac;
    auto& tool = mac.installTool("/usr/local/bin/echoer");
    const std::vector<std::wstring> args = {
        L"two words", L"\"quoted\" 'single'", L"$(rm -rf /)", L"a;b|c&d", L"line\nbreak",
        L"",          L"caf\u00e9 \u4f4d"};
    EXPECT_EQ(Execute(L"/usr/local/bin/echoer", args).rc, 0);
    std::vector<std::string> expected;
    for (const auto& a : args) expected.push_back(CStringUtils::WStringToString(a));
    ASSERT_EQ(tool.invocations().size(), 1u);
    EXPECT_EQ(tool.invocations()[0].args, expected);
}

// 8 MB on each stream: a reader that drains one stream before the other
// deadlocks.
TEST(ExecuteSafeToText, SeparateAndMergedStreams) {
    TestMachine mac;
    const size_t size = 8 << 20;
    const FakeResponse big{std::string(size, 'x'), std::string(size, 'y'), 3};
    mac.installTool("/bin/big").respond(big);
    const ToolResult separate = Execute(L"/bin/big", {}, true), merged = Execute(L"/bin/big");
    EXPECT_TRUE(separate.rc == 0 && separate.exitCode == 3 &&
                separate.out == std::wstring(size, L'x') &&
                separate.err == std::wstring(size, L'y'));
    EXPECT_EQ(merged.out.size(), 2 * size);
    EXPECT_EQ(static_cast<size_t>(std::count(merged.out.begin(), merged.out.end(), L'y')), size);
}

// Nothing runs, nothing leaks, and the exit status is left alone.
TEST(ExecuteSafeToText, ToolsThatCannotRun) {
    TestMachine mac;
    mac.writeFile("/bin/plain", "not a program");
    mac.makeDir("/bin/folder");
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = descriptors();
    const std::pair<const wchar_t*, int> cases[] = {{L"/bin/missing", kNotFound},
                                                    {L"missing-everywhere", kNotFound},
                                                    {L"/bin/plain", kAccessDenied},
                                                    {L"/bin/folder", kAccessDenied}};
    for (const auto& [tool, code] : cases) {
        const ToolResult r = Execute(tool, {}, code == kNotFound);
        EXPECT_EQ(r.rc, code) << tool;
        EXPECT_EQ(r.exitCode, -99) << tool;
        EXPECT_FALSE(r.diagnostic.empty()) << tool;
    }
    EXPECT_EQ(descriptors(), before);
    EXPECT_FALSE(HasUnreapedChild());
}

TEST(ExecuteSafeToText, ToolsSeeTheRootAndAnEnglishLocale) {
    TestMachine mac;
    mac.writeFile("/bin/env-dump", "#!/bin/sh\necho \"$KALDO_ROOT|$LC_ALL|$LANG\"\n");
    ::chmod(mac.hostPath("/bin/env-dump").c_str(), 0755);
    ::setenv("LC_ALL", "de_DE.UTF-8", 1);
    const std::wstring out = Execute(L"/bin/env-dump").out,
                       root = CStringUtils::StringToWString(mac.root());
    ::unsetenv("LC_ALL");
    EXPECT_THAT(out,
                testing::AnyOf(root + L"|C.UTF-8|C.UTF-8\n", root + L"|en_US.UTF-8|en_US.UTF-8\n"));
}

// Hanging with its output open, and after closing it (which ends the reading
// but not the tool).
TEST(ExecuteSafeToText, AHangingToolIsKilledAtTheLimit) {
    TestMachine mac;
    ::setenv("KALDO_TOOL_TIMEOUT", "0.5", 1);
    for (const bool hangUp : {false, true}) {
        mac.installTool("/bin/hang")
            .respond(FakeResponse{.out = "never", .sleepSeconds = 30, .hangUp = hangUp});
        const ToolResult r = Execute(L"/bin/hang");
        EXPECT_TRUE(r.rc == kTimedOut && r.exitCode == 128 + SIGKILL)
            << "hang up first: " << hangUp;
        EXPECT_THAT(r.diagnostic, testing::HasSubstr(L"killed after"));
        EXPECT_FALSE(HasUnreapedChild());
    }
    // A program meant to keep running (an application) is left to end itself.
    auto& app = mac.installTool("/bin/app").respond(FakeResponse{.sleepSeconds = 0.8});
    int exitCode = -1;
    EXPECT_EQ(CProcessUtils::ExecuteSafeToText(L"/bin/app", {}, exitCode, nullptr, nullptr, nullptr,
                                               {.noTimeLimit = true}),
              0);
    EXPECT_TRUE(app.invocations().at(0).ended);
    ::unsetenv("KALDO_TOOL_TIMEOUT");
}

struct HostIds {
    uid_t uid = ::getuid(), euid = ::geteuid();
    gid_t gid = ::getgid(), egid = ::getegid();
    bool operator==(const HostIds&) const = default;
};

// The tool, not the host, becomes the console user: every id, the groups and
// the user's variables are switched in the tool's own process, so the host
// keeps its ids and a tool another thread starts meanwhile runs as the host.
TEST(ExecuteSafeToText, AsTheConsoleUserWhollyAndOnlyInTheTool) {
    TestMachine mac;
    const HostIds host;
    auto& probe = mac.installTool("/bin/probe").respond(FakeResponse{.sleepSeconds = 0.3});
    auto& plain = mac.installTool("/bin/plain");
    int exitCode = -1;
    const CProcessUtils::RunOptions asUser{.asConsoleUser = true};
    EXPECT_EQ(CProcessUtils::ExecuteSafeToText(L"/bin/probe", {}, exitCode, nullptr, nullptr,
                                               nullptr, asUser),
              kNotFound);
    EXPECT_TRUE(probe.invocations().empty()) << "no console user: nothing runs";

    mac.setConsoleUser("ann", 4711, "/Users/ann", 4712, "20, 12 61");
    std::thread other([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        Execute(L"/bin/plain");
    });
    EXPECT_EQ(CProcessUtils::ExecuteSafeToText(L"/bin/probe", {L"x"}, exitCode, nullptr, nullptr,
                                               nullptr, asUser),
              0);
    other.join();
    EXPECT_EQ(HostIds(), host);

    const implvm_test::FakeInvocation tool = probe.invocations().at(0);
    std::vector<int> groups = tool.groups;
    std::sort(groups.begin(), groups.end());
    const std::map<std::string, std::string> annsEnv = {
        {"HOME", "/Users/ann"}, {"USER", "ann"}, {"LOGNAME", "ann"}};
    if (host.euid == 0) {
        EXPECT_EQ(
            (std::vector<int>{tool.uid, tool.euid, tool.suid, tool.gid, tool.egid, tool.sgid}),
            (std::vector<int>{4711, 4711, 4711, 4712, 4712, 4712}));
        EXPECT_EQ(groups, (std::vector<int>{12, 20, 61, 4712}));
        EXPECT_EQ(tool.env, annsEnv);
    } else {  // cannot switch: runs as the host, as without the option
        EXPECT_EQ(tool.euid, int(host.euid));
        EXPECT_NE(tool.env, annsEnv);
    }
    const implvm_test::FakeInvocation meanwhile = plain.invocations().at(0);
    EXPECT_TRUE(meanwhile.uid == int(host.uid) && meanwhile.euid == int(host.euid) &&
                meanwhile.gid == int(host.gid));
    EXPECT_NE(meanwhile.env, annsEnv);
    EXPECT_FALSE(HasUnreapedChild());
}

// A minute for a reading tool, five for an action; the host's setting, when
// it is a number, for every tool.
TEST(ExecuteSafeToText, TimeLimitsByKindAndSetting) {
    // clang-format off
    const std::tuple<bool, const char*, double> rows[] = {
        {false, nullptr, 60}, {true, nullptr, 300}, {false, "", 60}, {true, "0.5", 0.5},
        {false, "0", 0}, {false, "soon", 60}, {true, "-3", 300}, {false, "120", 120}};
    // clang-format on
    for (const auto& [action, setting, seconds] : rows)
        EXPECT_EQ(detail::ToolTimeLimit(action, setting), seconds)
            << (action ? "action " : "reading ") << (setting ? setting : "unset");
}

// Only root can take another user's ids; a host that is the user needs none.
TEST(ExecuteSafeToText, WhoSwitchesToTheConsoleUser) {
    using platform::UserSwitch;
    // clang-format off
    const std::tuple<int, int, UserSwitch> rows[] = {
        {0, 501, UserSwitch::kSwitch}, {0, 0, UserSwitch::kSwitch},
        {501, 501, UserSwitch::kAlreadyThatUser}, {501, 502, UserSwitch::kAsHost},
        {501, 0, UserSwitch::kAsHost}};
    // clang-format on
    for (const auto& [host, console, plan] : rows)
        EXPECT_EQ(platform::PlanUserSwitch(host, console), plan) << host << " for " << console;
}

// Module tests write the facts one way; a trailing slash and a missing gid here.
TEST(ConsoleUser, ComesFromTheMachineFacts) {
    TestMachine mac;
    std::wstring home = L"unchanged";
    int uid = -1, gid = -1;
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(home, &uid, &gid), kNotFound);
    mac.setConsoleUser("ann", 501, "/Users/ann/");
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(home, &uid, &gid), 0);
    EXPECT_EQ(home + L" " + std::to_wstring(uid) + L" " + std::to_wstring(gid),
              L"/Users/ann 501 501");
}

TEST(PropertyLists, XmlAndBinaryReadTheSameTaggedTree) {
    TestMachine mac;
    const std::string xml =
        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
        R"(<key>VMFavoritesListDefaults2</key><array><dict><key>path</key>)"
        R"(<string>/Users/ann/VMs/Win.vmx</string></dict></array><key>count</key>)"
        R"(<integer>-3</integer><key>on</key><true/><key>blob</key><data>AAH/</data></dict></plist>)";
    mac.writeFile("/p.xml.plist", xml);
    plist_t parsed = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &parsed);
    char* bin = nullptr;
    uint32_t binSize = 0;
    plist_to_bin(parsed, &bin, &binSize);
    mac.writeFile("/p.bin.plist", std::string(bin, binSize));
    std::free(bin);
    plist_free(parsed);

    typeProperty fromXml, fromBin;
    ASSERT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/p.xml.plist", fromXml), 0);
    ASSERT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/p.bin.plist", fromBin), 0);
    EXPECT_EQ(fromXml, fromBin);
    EXPECT_EQ(implvm::TreeToJson(fromXml).dump(),
              R"({"\\sVMFavoritesListDefaults2":[{"\\spath":"\\s/Users/ann/VMs/Win.vmx"}],)"
              R"("\\scount":"\\i-3","\\son":"\\btrue","\\sblob":"\\x0001ff"})");
    mac.writeFile("/junk.plist", "not a property list");
    EXPECT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/junk.plist", fromXml) +
                  CAppleUtils::ReadPlistFileToTypePropertyTree(L"/none.plist", fromXml),
              kInvalidArgument + kNotFound);
}

// What a Mac's getifaddrs reports (sdl_type, address length) and a Linux
// machine's (sll_hatype): only Ethernet-like links are interfaces with a
// hardware address, and such a link without one is listed as unreadable.
// Each case of tests/data/listed_interface: system, name, type, address length.
TEST(Network, OnlyEthernetLikeLinksAreListed) {
    implvm_test::CheckGoldenTable("listed_interface", [](const implvm::Json& c) {
        const unsigned char address[20] = {0x3C, 0x22, 0xFB, 0x6E, 0x91, 0x04};
        const auto listed = platform::ListedInterface(
            c[0] == "mac" ? platform::LinkTypes::kMac : platform::LinkTypes::kLinux,
            c[1].get<std::string>().c_str(), c[2], address, c[3]);
        if (!listed) return implvm::Json("not listed");
        if (listed->hardwareAddress.empty()) return implvm::Json("unreadable");
        std::string hex;
        for (const unsigned char byte : listed->hardwareAddress) {
            char two[4];
            std::snprintf(two, sizeof two, ":%02X", byte);
            hex += two;
        }
        return implvm::Json(hex.substr(1));
    });
}

TEST(Network, RealInterfacesHaveUpperCaseColonAddresses) {
    CMachineRoot::Set("");
    std::vector<typeProperty> devices;
    ASSERT_EQ(CNetworkUtils::GetNetworkDevices(devices), 0);
    for (const typeProperty& device : devices) {
        std::wstring name, address;
        device.getMapVal(L"Name", name);
        EXPECT_NE(name, L"lo");
        if (CNetworkUtils::GetMACAddress(device, address) == 0) {
            EXPECT_THAT(CStringUtils::WStringToString(address),
                        testing::MatchesRegex("([0-9A-F][0-9A-F]:)*[0-9A-F][0-9A-F]"));
        }
    }
}

}  // namespace
