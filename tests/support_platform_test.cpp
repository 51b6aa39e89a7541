// Tool runs, process lookup, console user, property lists, applications and
// network interfaces, on a machine root with fake tools.
#include <dirent.h>
#include <plist/plist.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KALDO/KALDO.h"
#include "TestMachine.h"

using namespace KALDO;
using implvm_test::FakeResponse;
using implvm_test::TestMachine;
using testing::ElementsAre;

namespace {

int OpenDescriptors() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (dirent* e = ::readdir(dir)) count += e->d_name[0] != '.';
    ::closedir(dir);
    return count;
}

bool HasUnreapedChild() {
    int status = 0;
    return ::waitpid(-1, &status, WNOHANG) > 0;
}

struct ToolResult {
    int rc = 0;
    int exitCode = -99;
    std::wstring out, err, diagnostic;
};

ToolResult Execute(const std::wstring& tool, const std::vector<std::wstring>& args, bool separate) {
    ToolResult r;
    r.rc = CProcessUtils::ExecuteSafeToText(tool, args, r.exitCode, &r.out,
                                            separate ? &r.err : nullptr, &r.diagnostic);
    return r;
}

}  // namespace

TEST(ExecuteSafeToText, ArgumentsReachTheToolByteForByte) {
    TestMachine mac;
    auto& tool = mac.installTool("/usr/local/bin/echoer");
    const std::vector<std::wstring> args = {
        L"two words", L"\"quoted\" 'single'", L"$(rm -rf /)", L"a;b|c&d", L"line\nbreak",
        L"",          L"caf\u00e9 \u4f4d"};
    EXPECT_EQ(Execute(L"/usr/local/bin/echoer", args, false).rc, 0);
    ASSERT_EQ(tool.invocations().size(), 1u);
    std::vector<std::string> expected;
    for (const auto& a : args) expected.push_back(CStringUtils::WStringToString(a));
    EXPECT_EQ(tool.invocations()[0].args, expected);
}

TEST(ExecuteSafeToText, ExitStatusOutputsAndSignals) {
    TestMachine mac;
    mac.installTool("/bin/t")
        .respond("out text\n", 3, "err text\n")
        .respond(FakeResponse{"", "", 0, SIGTERM, 0});

    ToolResult merged = Execute(L"/bin/t", {}, false);
    EXPECT_EQ(merged.rc, 0);
    EXPECT_EQ(merged.exitCode, 3);
    EXPECT_EQ(merged.out, L"out text\nerr text\n");  // standard error merged when not asked apart

    ToolResult killed = Execute(L"/bin/t", {}, true);
    EXPECT_EQ(killed.rc, 0);
    EXPECT_EQ(killed.exitCode, 128 + SIGTERM);

    mac.installTool("/bin/t").respond("o", 0, "e");
    ToolResult separate = Execute(L"/bin/t", {}, true);
    EXPECT_EQ(separate.out, L"o");
    EXPECT_EQ(separate.err, L"e");
}

TEST(ExecuteSafeToText, LargeOutputOnBothStreamsDoesNotDeadlock) {
    TestMachine mac;
    const std::string big(8 << 20, 'x');
    mac.installTool("/bin/big").respond(big, 0, std::string(8 << 20, 'y'));
    ToolResult r = Execute(L"/bin/big", {}, true);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out.size(), big.size());
    EXPECT_EQ(r.err.size(), big.size());
}

TEST(ExecuteSafeToText, ToolsThatCannotRun) {
    TestMachine mac;
    mac.writeFile("/bin/plain", "not a program");
    mac.makeDir("/bin/folder");
    EXPECT_EQ(Execute(L"/bin/missing", {}, false).rc, kNotFound);
    EXPECT_EQ(Execute(L"missing-everywhere", {}, false).rc, kNotFound);
    mac.installTool("/usr/sbin/system_profiler").respond("report");  // bare names: in the root
    EXPECT_EQ(Execute(L"system_profiler", {L"SPHardwareDataType"}, false).out, L"report");
    EXPECT_EQ(Execute(L"/bin/plain", {}, false).rc, kAccessDenied);
    EXPECT_EQ(Execute(L"/bin/folder", {}, false).rc, kAccessDenied);
    ToolResult r = Execute(L"/bin/missing", {}, false);
    EXPECT_EQ(r.exitCode, -99) << "exit status untouched when nothing ran";
    EXPECT_FALSE(r.diagnostic.empty());
}

TEST(ExecuteSafeToText, ToolsSeeTheRootAndAnEnglishLocale) {
    TestMachine mac;
    mac.writeFile("/bin/env-dump", "#!/bin/sh\necho \"$KALDO_ROOT|$LC_ALL|$LANG\"\n");
    ::chmod(mac.hostPath("/bin/env-dump").c_str(), 0755);
    ::setenv("LC_ALL", "de_DE.UTF-8", 1);
    ToolResult r = Execute(L"/bin/env-dump", {}, false);
    ::unsetenv("LC_ALL");
    const std::wstring root = CStringUtils::StringToWString(mac.root());
    EXPECT_THAT(r.out,
                testing::AnyOf(root + L"|C.UTF-8|C.UTF-8\n", root + L"|en_US.UTF-8|en_US.UTF-8\n"));
}

TEST(ExecuteSafeToText, RepeatedRunsLeaveNoDescriptorsOrChildren) {
    TestMachine mac;
    mac.installTool("/bin/t").respond("x", 1, "y");
    const int before = OpenDescriptors();
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(Execute(L"/bin/t", {}, i % 2 == 0).rc, 0);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(HasUnreapedChild());
}

TEST(ExecuteSafeToText, AHangingToolIsKilledAtTheLimit) {
    TestMachine mac;
    // Hanging with its output open, and after closing it (which ends the
    // reading but not the tool).
    for (const bool hangUp : {false, true}) {
        FakeResponse hang{"never", "", 0, 0, 30};
        hang.hangUp = hangUp;
        mac.installTool("/bin/hang").respond(hang);
        ::setenv("KALDO_TOOL_TIMEOUT", "0.5", 1);
        ToolResult r = Execute(L"/bin/hang", {}, false);
        ::unsetenv("KALDO_TOOL_TIMEOUT");
        EXPECT_EQ(r.rc, kTimedOut) << "hang up first: " << hangUp;
        EXPECT_EQ(r.exitCode, 128 + SIGKILL);
        EXPECT_THAT(r.diagnostic, testing::HasSubstr(L"killed after"));
        EXPECT_FALSE(HasUnreapedChild());
    }
}

TEST(ProcessListing, LookupByNameInTheListing) {
    TestMachine mac;
    mac.installTool("/bin/ps").respond(
        "  PID   TT  STAT      TIME COMMAND\n"
        "    1   ??  Ss     0:10.00 /sbin/launchd\n"
        "  312   ??  S      0:01.00 /Applications/Parallels Desktop.app/Contents/MacOS/"
        "prl_disp_service --daemon\n"
        "  400   ??  S      0:01.00 /bin/sh -c prl_client_app\n");
    std::wstring listing;
    EXPECT_EQ(CProcessUtils::GetProcessListing_MAC(listing, "wwax"), 0);
    EXPECT_NE(listing.find(L"launchd"), std::wstring::npos);

    const struct {
        const wchar_t* name;
        bool exact, full;
        int pid;
    } cases[] = {
        {L"Parallels Desktop.app/Contents/MacOS/prl_disp_service", false, true, 312},
        {L"prl_client_app", false, true, 400},  // found in the arguments
        {L"prl_client_app", false, false, -1},  // not in a program path
        {L"launchd", true, false, 1},
        {L"launch", true, false, -1},
        {L"PID", false, true, -1},  // the header is not a process
    };
    for (const auto& c : cases) {
        int pid = -1;
        EXPECT_EQ(CProcessUtils::GetProcessIdByName(c.name, pid, c.exact, c.full), 0);
        EXPECT_EQ(pid, c.pid) << CStringUtils::WStringToString(c.name);
    }
    mac.installTool("/bin/ps").respond("", 1);
    int pid = -1;
    EXPECT_LT(CProcessUtils::GetProcessIdByName(L"x", pid, false, true), 0);
}

TEST(ConsoleUser, ComesFromTheMachineFacts) {
    TestMachine mac;
    std::wstring home = L"unchanged";
    int uid = -1, gid = -1;
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(home, &uid, &gid), kNotFound);
    EXPECT_EQ(home, L"unchanged");
    mac.setConsoleUser("ann", 501, "/Users/ann/");
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(home, &uid, &gid), 0);
    EXPECT_EQ(home, L"/Users/ann");
    EXPECT_EQ(uid, 501);
    EXPECT_EQ(gid, 501);
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(home, nullptr, nullptr), 0);
}

TEST(PropertyLists, XmlAndBinaryReadTheSameTaggedTree) {
    TestMachine mac;
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
        "<key>VMFavoritesListDefaults2</key><array><dict><key>path</key>"
        "<string>/Users/ann/VMs/Win.vmwarevm/Win.vmx</string></dict></array>"
        "<key>count</key><integer>-3</integer><key>on</key><true/>"
        "<key>blob</key><data>AAH/</data></dict></plist>";
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
              R"({"\\sVMFavoritesListDefaults2":[{"\\spath":"\\s/Users/ann/VMs/Win.vmwarevm/)"
              R"(Win.vmx"}],"\\scount":"\\i-3","\\son":"\\btrue","\\sblob":"\\x0001ff"})");

    mac.writeFile("/junk.plist", "not a property list");
    typeProperty junk;
    EXPECT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/junk.plist", junk), kInvalidArgument);
    EXPECT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/none.plist", junk), kNotFound);
}

TEST(Applications, FoundByBundleIdentifierWithTheirVersion) {
    TestMachine mac;
    mac.setConsoleUser("ann", 501, "/Users/ann");
    mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "13.5.2");
    mac.installApp("/Applications/Utilities/Other.app", "com.example.other", "1.0");
    mac.installApp("/Users/ann/Applications/VirtualBox.app", "org.virtualbox.app.VirtualBox",
                   "7.0.14");
    std::wstring path;
    EXPECT_EQ(CAppleUtils::LS_GetAppPathByAppId(L"com.vmware.fusion", path), 0);
    EXPECT_EQ(path, L"/Applications/VMware Fusion.app");
    EXPECT_EQ(CAppleUtils::LS_GetAppPathByAppId(L"com.example.other", path), 0);
    EXPECT_EQ(path, L"/Applications/Utilities/Other.app");
    EXPECT_EQ(CAppleUtils::LS_GetAppPathByAppId(L"org.virtualbox.app.VirtualBox", path), 0);
    EXPECT_EQ(path, L"/Users/ann/Applications/VirtualBox.app");
    EXPECT_EQ(CAppleUtils::LS_GetAppPathByAppId(L"com.parallels.desktop.console", path), kNotFound);

    typeProperty in, out;
    in.addMapVal(L"BundleId", std::wstring(L"com.vmware.fusion"));
    EXPECT_EQ(CAppleUtils::GetProductVersion(in, out), 0);
    EXPECT_EQ(implvm::TreeToJson(out).dump(),
              R"({"ProductVersion":"13.5.2","AppPath":"/Applications/VMware Fusion.app"})");
    typeProperty noId;
    EXPECT_EQ(CAppleUtils::GetProductVersion(noId, out), kInvalidArgument);
}

TEST(Network, InterfacesFromTheMachineFacts) {
    TestMachine mac;
    std::vector<typeProperty> devices;
    EXPECT_EQ(CNetworkUtils::GetNetworkDevices(devices), 0);
    EXPECT_TRUE(devices.empty());
    mac.addNic("en0", "08:00:27:AA:BB:CC");
    mac.addNic("en1", "-");
    mac.addNic("en2", "00:0c:29:01:02:03");
    ASSERT_EQ(CNetworkUtils::GetNetworkDevices(devices), 0);
    ASSERT_EQ(devices.size(), 3u);
    std::wstring mac0, mac1 = L"untouched", mac2;
    EXPECT_EQ(CNetworkUtils::GetMACAddress(devices[0], mac0), 0);
    EXPECT_EQ(mac0, L"08:00:27:AA:BB:CC");
    EXPECT_EQ(CNetworkUtils::GetMACAddress(devices[1], mac1), kNotFound);
    EXPECT_EQ(mac1, L"untouched");
    EXPECT_EQ(CNetworkUtils::GetMACAddress(devices[2], mac2), 0);
    EXPECT_EQ(mac2, L"00:0c:29:01:02:03") << "a machine root reports addresses as written";
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

TEST(Failpoints, PlatformOperationsFailOnDemand) {
    TestMachine mac;
    mac.setConsoleUser("ann", 501, "/Users/ann");
    mac.installTool("/bin/t");
    mac.addNic("en0", "08:00:27:AA:BB:CC");
    ASSERT_EQ(CFailpoints::Set("ExecuteSafeToText@/bin/t=-32;GetCurrentLoggedInUserInfo=-4;"
                               "GetNetworkDevices=-5;ReadPlistFileToTypePropertyTree@/p=-6;"
                               "LS_GetAppPathByAppId@com.x=-4"),
              0);
    EXPECT_EQ(Execute(L"/bin/t", {}, false).rc, -32);
    std::wstring text;
    EXPECT_EQ(CAppleUtils::GetCurrentLoggedInUserInfo(text, nullptr, nullptr), -4);
    std::vector<typeProperty> devices;
    EXPECT_EQ(CNetworkUtils::GetNetworkDevices(devices), -5);
    typeProperty tree;
    EXPECT_EQ(CAppleUtils::ReadPlistFileToTypePropertyTree(L"/p", tree), -6);
    EXPECT_EQ(CAppleUtils::LS_GetAppPathByAppId(L"com.x", text), -4);

    ASSERT_EQ(CFailpoints::Set("GetMACAddress@en0=-4"), 0);
    CFailpoints::Clear();
    ASSERT_EQ(CFailpoints::Set("GetMACAddress@en0=-4"), 0);
    ASSERT_EQ(CNetworkUtils::GetNetworkDevices(devices), 0);
    EXPECT_EQ(CNetworkUtils::GetMACAddress(devices.back(), text), -4);
}
