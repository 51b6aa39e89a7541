// The Parallels Desktop adapter on simulated Macs: the VM list, the
// config.pvs reader, and the start and prlctl methods, through fake tools.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ImplVirtualMachine.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "ParallelsMachine.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::CallResult;
using implvm_test::Json;
using implvm_test::TestMachine;
using namespace parallels_test;

// Link seams: this executable's sleep() and fork() take the place of the C
// library's for the module loaded into it. The 9.x start pauses a second
// before each prlctl run; here the pauses are counted instead of waited out
// (parallels_slow_test waits them out for real). fork() can be made to fail.
namespace {
int g_pauses = 0;
bool g_failFork = false;
}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned int sleep(unsigned int) {
    ++g_pauses;
    return 0;
}

extern "C" __attribute__((visibility("default"))) pid_t fork() noexcept {
    if (g_failFork) {
        errno = EAGAIN;
        return -1;
    }
    using Fork = pid_t (*)();
    static const Fork realFork = reinterpret_cast<Fork>(dlsym(RTLD_NEXT, "fork"));
    return realFork();
}

namespace {

const std::string kDirectoryList = "/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
const std::string kVmFolder = "/Users/ann/Documents/Parallels/";

std::string DirectoryList(const std::vector<std::string>& homes) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<VirtualMachinesList>\n"
        " <VirtualMachineItems>\n";
    for (const std::string& home : homes)
        xml +=
            "  <VirtualMachine>\n"
            "   <VmHome>" +
            home +
            "</VmHome>\n"
            "   <RegisteredBy>ann</RegisteredBy>\n"
            "  </VirtualMachine>\n";
    return xml + " </VirtualMachineItems>\n</VirtualMachinesList>\n";
}

// A bundle with a config.pvs and the given further entries.
void WriteBundle(TestMachine& mac, const std::string& bundle, const Config& config,
                 const std::vector<std::string>& entries = {}) {
    mac.writeFile(bundle + "/config.pvs", ConfigPvs(config));
    for (const std::string& entry : entries) mac.writeFile(bundle + "/" + entry, "");
}

std::vector<std::string> ArgsOf(const implvm_test::FakeTool& tool) {
    std::vector<std::string> args;
    for (const auto& run : tool.invocations())
        for (const std::string& arg : run.args) args.push_back(arg);
    return args;
}

// ---- The VM list ----

TEST(ParallelsInventory, ListsRegisteredBundlesThatExistInFileOrder) {
    TestMachine mac;
    const std::string f = kVmFolder;
    for (const char* bundle : {"Windows XP.pvm", "Ubuntu.pvm", "Plain VM", "Old.pvm.d/Leopard.pvm"})
        mac.makeDir(f + bundle);
    mac.writeFile(kDirectoryList, DirectoryList({
                                      f + "Windows XP.pvm/",         // trailing separator
                                      f + "Gone.pvm",                // bundle deleted
                                      f + "Ubuntu.pvm/config.pvs",   // trailing file name
                                      f + "Old.pvm.d/Leopard.pvm/",  // cut after the last .pvm
                                      f + "Plain VM",                // no .pvm: kept whole
                                  }));

    std::vector<std::wstring> homes = {L"kept"};
    EXPECT_EQ(VirtualMachineImpl_Parallels4_GetAllVms(homes), 0);
    EXPECT_EQ(homes.size(), 5u) << "appends to the caller's list";

    const CallResult r = Call(VirtualMachineImpl_Parallels4_EnumerateVMs);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs, Json::parse(R"({"VMs": [
        "/Users/ann/Documents/Parallels/Windows XP.pvm",
        "/Users/ann/Documents/Parallels/Ubuntu.pvm",
        "/Users/ann/Documents/Parallels/Old.pvm.d/Leopard.pvm",
        "/Users/ann/Documents/Parallels/Plain VM"]})"));
    EXPECT_TRUE(r.errors.empty());
}

TEST(ParallelsInventory, UnreadableListIsRecordedAndShowsAsNoVms) {
    struct Row {
        const char* what;
        std::string failpoint;  // "": the directory list is missing
        int code;
    };
    const std::string failRead = "ReadFromTextFile@" + kDirectoryList + "=";
    const Row rows[] = {
        {"no directory list", "", -1},
        {"read refused", failRead + "-4", -4},
        {"read busy", failRead + "-32", -32},
        {"read failed", failRead + "-8", -1},
        {"homes unparsable", "ParseSubstringFromStringEx@<VmHome>=-3", -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TestMachine mac;
        mac.makeDir(kVmFolder + "Ubuntu.pvm");
        if (!row.failpoint.empty()) {
            mac.writeFile(kDirectoryList, DirectoryList({kVmFolder + "Ubuntu.pvm"}));
            ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        }
        std::vector<std::wstring> homes = {L"kept"};
        KALDO::CErrorInfo::clearErrors();
        EXPECT_EQ(VirtualMachineImpl_Parallels4_GetAllVms(homes), row.code);
        EXPECT_EQ(homes, std::vector<std::wstring>{L"kept"});

        const CallResult r = Call(VirtualMachineImpl_Parallels4_EnumerateVMs);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, Json::parse(R"({"VMs": []})"));
        EXPECT_EQ(ParallelsCodes(r), std::vector<int>{row.code});
        KALDO::CFailpoints::Clear();
    }
}

// ---- The configuration reader ----

TEST(ParallelsReader, DescribesEveryVmOfTheMachine) {
    struct Vm {
        std::string bundle;
        Config config;
        std::vector<std::string> entries;
        const char* info;
        const char* networks;
    };
    const std::vector<Vm> vms = {
        {"Windows XP.pvm",
         Guest("Windows XP", "8", "2055",
               {{"1", "1", "1", std::nullopt}, {"1", "0", "2", "Office LAN"}}),
         {"Windows XP.mem", "Windows XP-0.hdd"},
         R"({"UserFriendlyName": "Windows XP", "OS": {"Type": 3, "Distribution": "Windows XP"},
             "State": 1})",
         R"({"Networks": [
             {"Name": "Network Adapter 1", "Type": 1, "IsConnected": 1, "MacAddress": ""},
             {"Name": "Office LAN", "Type": 2, "IsConnected": 0, "MacAddress": ""}]})"},
        {"Ubuntu Server.pvm",
         Guest("Ubuntu Server", "9", "2305",
               {{"0", "1", "2", std::nullopt}, {"1", std::nullopt, "0", "Private"}}),
         {"Ubuntu Server.mem", "config.sav"},
         R"({"UserFriendlyName": "Ubuntu Server", "OS": {"Type": 1, "Distribution": "Linux"},
             "State": 2})",
         R"({"Networks": [
             {"Name": "Private", "Type": 3, "IsConnected": 1, "MacAddress": ""}]})"},
        {"Leopard Server.pvm",
         Guest("Leopard Server", "7", "1794"),
         {},
         R"({"UserFriendlyName": "Leopard Server",
             "OS": {"Type": 2, "Distribution": "Mac OS X Server 10.5"}, "State": 3})",
         R"({"Networks": []})"},
        {"Windows 8.pvm",
         Guest("Windows 8", "8", "2062",
               {{"1", "1", "5", std::nullopt},
                {std::nullopt, std::nullopt, std::nullopt, std::nullopt}}),
         {"config.sav"},
         R"({"UserFriendlyName": "Windows 8", "OS": {"Type": 3, "Distribution": "Linux"},
             "State": 3})",
         R"({"Networks": [
             {"Name": "Network Adapter 1", "IsConnected": 1, "MacAddress": ""},
             {"Name": "Network Adapter 2", "IsConnected": 1, "MacAddress": ""}]})"},
    };
    TestMachine mac;
    std::vector<std::string> homes;
    for (const Vm& vm : vms) {
        WriteBundle(mac, kVmFolder + vm.bundle, vm.config, vm.entries);
        homes.push_back(kVmFolder + vm.bundle);
    }
    mac.writeFile(kDirectoryList, DirectoryList(homes));

    const CallResult list = Call(VirtualMachineImpl_Parallels4_EnumerateVMs);
    ASSERT_EQ(list.outputs["VMs"], Json(homes));
    for (size_t i = 0; i < vms.size(); ++i) {
        SCOPED_TRACE(vms[i].bundle);
        const Json name = {{"Name", list.outputs["VMs"][i]}};
        const CallResult info = Call(VirtualMachineImpl_Parallels4_GetVMInfo, name);
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(info.outputs, Json::parse(vms[i].info));
        const CallResult net = Call(VirtualMachineImpl_Parallels4_GetVMNetwork, name);
        EXPECT_EQ(net.result, 0);
        EXPECT_EQ(net.outputs, Json::parse(vms[i].networks));
        EXPECT_TRUE(info.errors.empty() && net.errors.empty());
    }
}

TEST(ParallelsReader, OsCodesComeFromClosedTablesOfExactTexts) {
    struct Row {
        const char* osType;
        const char* osNumber;
        int type;
        const char* distribution;
    };
    const Row rows[] = {
        {"8", "2058", 3, "Windows Server 2008"},
        {"8", "2049", 3, "Windows 3.11"},
        {"8", "2059", 3, "Linux"},
        {"7", "1795", 2, "Linux"},
        {"9", "2057", 1, "Windows Vista"},
        {"10", "2050", 0, "Windows 95"},
        {" 9", "2305", 0, "Linux"},
        {"1", " 2055", 0, "Linux"},
    };
    TestMachine mac;
    const std::string home = kVmFolder + "Guest.pvm";
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.osType) + "/" + row.osNumber);
        WriteBundle(mac, home, Guest("Guest", row.osType, row.osNumber));
        const CallResult r = Call(VirtualMachineImpl_Parallels4_GetVMInfo, {{"Name", home}});
        EXPECT_EQ(r.outputs["OS"], (Json{{"Type", row.type}, {"Distribution", row.distribution}}));
    }
}

TEST(ParallelsReader, StateComesFromTheBundlesEntryNames) {
    struct Row {
        std::vector<std::string> entries;
        int state;
    };
    const Row rows[] = {
        {{"Windows XP.mem"}, 1},
        {{"Windows XP.mem", "config.sav"}, 2},
        {{"config.sav", "Windows XP.mem"}, 2},
        {{"config.sav"}, 3},
        {{}, 3},
        {{"Windows XP.mem.tmp", "config.sav"}, 3},
        {{"Windows XP.mem", "config.sav.backup"}, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.entries));
        TestMachine mac;
        const std::string home = kVmFolder + "Windows XP.pvm";
        WriteBundle(mac, home, {}, row.entries);
        const CallResult r = Call(VirtualMachineImpl_Parallels4_GetVMInfo, {{"Name", home}});
        EXPECT_EQ(r.outputs["State"], row.state);
    }
}

TEST(ParallelsReader, AdaptersKeepTheirNumberWhenOthersAreDisabled) {
    TestMachine mac;
    const std::string home = kVmFolder + "Windows XP.pvm";
    Config config;
    config.adapters = {{"1", "1", "1", std::nullopt},
                       {"0", "1", "1", std::nullopt},
                       {"1", "1", "0", std::nullopt},
                       {"1", "1", "2", ""}};  // an empty friendly name counts as none
    WriteBundle(mac, home, config);
    const CallResult r = Call(VirtualMachineImpl_Parallels4_GetVMNetwork, {{"Name", home}});
    std::vector<std::string> names;
    for (const Json& adapter : r.outputs["Networks"]) names.push_back(adapter["Name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"Network Adapter 1", "Network Adapter 3",
                                               "Network Adapter 4"}));
}

TEST(ParallelsReader, FailuresAreRecordedAndWriteNothing) {
    const std::string home = kVmFolder + "Windows XP.pvm";
    struct Row {
        const char* what;
        std::function<void(TestMachine&)> setUp;
        std::vector<int> codes;  // the reader's record, then the method's
    };
    auto withConfig = [&](Config c) {
        return [=](TestMachine& mac) { WriteBundle(mac, home, c); };
    };
    auto failing = [&](std::string failpoint) {
        return [=](TestMachine& mac) {
            WriteBundle(mac, home, {});
            ASSERT_EQ(KALDO::CFailpoints::Set(failpoint), 0);
        };
    };
    Config noName, noOsType, noOsNumber;
    noName.name = "";
    noOsType.osType = "";
    noOsNumber.osNumber = std::nullopt;
    const std::string config = home + "/config.pvs";
    const std::vector<Row> rows = {
        {"no config.pvs", [&](TestMachine& mac) { mac.makeDir(home); }, {-1, -1}},
        {"config.pvs refused", failing("ReadFromTextFile@" + config + "=-4"), {-4, -4}},
        {"config.pvs busy", failing("ReadFromTextFile@" + config + "=-32"), {-32, -32}},
        {"empty VmName", withConfig(noName), {-1, -1}},
        {"empty OsType", withConfig(noOsType), {-1, -1}},
        {"no OsNumber", withConfig(noOsNumber), {-1, -1}},
        {"bundle unlistable", failing("GetDirectoryList@" + home + "=-5"), {-1, -1}},
        {"bundle refused", failing("GetDirectoryList@" + home + "=-4"), {-4, -4}},
        {"adapters unparsable",
         failing("ParseSubstringFromStringEx@<NetworkAdapter>=-32"),
         {-32, -32}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TestMachine mac;
        row.setUp(mac);
        for (ImplVmMethod* method : {VirtualMachineImpl_Parallels4_GetVMInfo,
                                     VirtualMachineImpl_Parallels4_GetVMNetwork}) {
            const CallResult r = Call(method, {{"Name", home}});
            EXPECT_EQ(r.result, row.codes.back());
            EXPECT_TRUE(NothingWritten(r.outputs)) << r.outputs;
            EXPECT_EQ(ParallelsCodes(r), row.codes);
        }
        KALDO::CFailpoints::Clear();
    }
}

TEST(ParallelsReader, MissingNameInputIsRecordedAndWritesNothing) {
    TestMachine mac;
    for (ImplVmMethod* method :
         {VirtualMachineImpl_Parallels4_GetVMInfo, VirtualMachineImpl_Parallels4_GetVMNetwork}) {
        for (const Json& inputs : {Json::object(), Json{{"Name", 7}}}) {
            const CallResult r = Call(method, inputs);
            EXPECT_EQ(r.result, -1);
            EXPECT_TRUE(NothingWritten(r.outputs));
            EXPECT_EQ(ParallelsCodes(r), std::vector<int>{-1});
        }
    }
}

TEST(ParallelsReader, DescriptionIsEmptiedFirstAndStaysEmptyOnFailure) {
    TestMachine mac;
    const std::string home = kVmFolder + "Windows XP.pvm";
    KALDO::typeProperty description;
    description.addMapVal(L"Stale", 1);
    EXPECT_EQ(VirtualMachineImpl_Parallels4_GetInfoForVm(KALDO::CStringUtils::StringToWString(home),
                                                         &description),
              -1);
    EXPECT_TRUE(description.isEmpty());

    WriteBundle(mac, home, {});
    description.addMapVal(L"Stale", 1);
    EXPECT_EQ(VirtualMachineImpl_Parallels4_GetInfoForVm(KALDO::CStringUtils::StringToWString(home),
                                                         &description),
              0);
    std::vector<std::wstring> keys;
    description.getMapKeys(keys);
    EXPECT_EQ(keys, (std::vector<std::wstring>{L"UserFriendlyName", L"OS", L"State", L"Networks"}));
}

// ---- Starting with "open" ----

TEST(Parallels4StartVM, OpensTheBundleAndJudgesByExitStatus) {
    const std::string home = kVmFolder + "Windows XP.pvm";
    struct Row {
        const char* what;
        Json inputs;
        bool installOpen;
        int exitCode;
        const char* failpoint;
        int code;
    };
    const Row rows[] = {
        {"opened", {{"Name", home}}, true, 0, nullptr, 0},
        {"open fails", {{"Name", home}}, true, 1, nullptr, -1},
        {"no open tool", {{"Name", home}}, false, 0, nullptr, -1},
        {"open busy", {{"Name", home}}, true, 0, "ExecuteSafeToText@open=-32", -32},
        {"open refused", {{"Name", home}}, true, 0, "ExecuteSafeToText@open=-4", -4},
        {"no Name", Json::object(), true, 0, nullptr, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TestMachine mac;
        if (row.installOpen) mac.installTool("/usr/bin/open").respond("", row.exitCode);
        if (row.failpoint) {
            ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        }
        const CallResult r = Call(VirtualMachineImpl_Parallels4_StartVM, row.inputs);
        EXPECT_EQ(r.result, row.code);
        EXPECT_TRUE(NothingWritten(r.outputs));
        EXPECT_EQ(ParallelsCodes(r),
                  row.code < 0 ? std::vector<int>{row.code} : std::vector<int>{});
        KALDO::CFailpoints::Clear();
    }
    TestMachine mac;
    auto& open = mac.installTool("/usr/bin/open");
    EXPECT_EQ(Call(VirtualMachineImpl_Parallels4_StartVM, {{"Name", home}}).result, 0);
    EXPECT_EQ(ArgsOf(open), std::vector<std::string>{home});
}

// ---- prlctl commands ----

struct Ids {
    uid_t uid = getuid(), euid = geteuid();
    bool operator==(const Ids&) const = default;
};

// As root the tools run with the console user's effective id; elsewhere the
// process may not switch and they run as the test's own user.
int ExpectedToolEuid() {
    return geteuid() == 0 ? kConsoleUid : int(geteuid());
}

TEST(Parallels9OperateVM, RunsPrlctlWithCommandUuidAndOptionAsConsoleUser) {
    struct Row {
        Json inputs;
        std::vector<std::string> args;
    };
    Parallels9Mac vm;
    const Row rows[] = {
        {{{"Name", vm.config}, {"COMMAND", "stop"}}, {"stop", kUuid}},
        {{{"Name", vm.config}, {"COMMAND", "stop"}, {"OPTION", ""}}, {"stop", kUuid}},
        {{{"Name", vm.config}, {"COMMAND", "stop"}, {"OPTION", "--kill"}},
         {"stop", kUuid, "--kill"}},
        {{{"Name", vm.config}, {"COMMAND", "set"}, {"OPTION", "--cpus 2"}},
         {"set", kUuid, "--cpus 2"}},
    };
    for (const Row& row : rows) {
        vm.prlctl.resetInvocations();
        const Ids before;
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM, row.inputs);
        EXPECT_EQ(Ids(), before) << "the user ids are restored";
        EXPECT_EQ(r.result, 0);
        ASSERT_EQ(vm.prlctl.invocations().size(), 1u);
        EXPECT_EQ(vm.prlctl.invocations()[0].args, row.args);
        EXPECT_EQ(vm.prlctl.invocations()[0].euid, ExpectedToolEuid());
    }
}

TEST(Parallels9OperateVM, CodeFromPrlctlsAnswer) {
    struct Row {
        const char* what;
        implvm_test::FakeResponse answer;
        std::string failpoint;  // "" for none; "missing" removes prlctl
        int code;
    };
    const std::string login = "Login failed: Unable to connect to Parallels Service\n";
    const std::string failRun = "ExecuteSafeToText@" + kPrlctl + "=";
    const Row rows[] = {
        {"done", {"The VM has been successfully stopped.\n", "", 0}, "", 0},
        {"exit status is not looked at", {"", "Failed to stop the VM\n", 255}, "", 0},
        {"login refused", {"", login, 1}, "", -4},
        {"login text on stdout only", {login, "", 1}, "", 0},
        {"prlctl missing", {}, "missing", -2},
        {"prlctl busy", {}, failRun + "-32", -32},
        {"prlctl timed out", {}, failRun + "-7", -7},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        vm.prlctl.respond(row.answer);
        if (row.failpoint == "missing") {
            vm.mac.remove(kPrlctl);
        } else if (!row.failpoint.empty()) {
            ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        }
        const Ids before;
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM,
                                  {{"Name", vm.config}, {"COMMAND", "stop"}});
        EXPECT_EQ(Ids(), before);
        EXPECT_EQ(r.result, row.code);
        EXPECT_EQ(ParallelsCodes(r),
                  row.code < 0 ? std::vector<int>{row.code} : std::vector<int>{});
        KALDO::CFailpoints::Clear();
    }
}

// The failures that end a 9.x method before prlctl runs, shared by both.
struct EarlyFailure {
    const char* what;
    std::function<Json(Parallels9Mac&)> setUp;  // gives the inputs
    int operateCode;
    int startCode;
};

std::vector<EarlyFailure> EarlyFailures() {
    auto withConfig = [](Config c) {
        return [c](Parallels9Mac& vm) {
            vm.mac.writeFile(vm.config, ConfigPvs(c));
            return Json{{"Name", vm.config}, {"COMMAND", "stop"}};
        };
    };
    Config noBraces, attributes;
    noBraces.uuidElement = "<VmUuid>" + kUuid + "</VmUuid>";
    return {
        {"no Name",
         [](Parallels9Mac&) {
             return Json{{"COMMAND", "stop"}};
         },
         -3, -3},
        {"config.pvs missing",
         [](Parallels9Mac& vm) {
             vm.mac.remove(vm.config);
             return Json{{"Name", vm.config}, {"COMMAND", "stop"}};
         },
         -6, -6},
        {"bundle passed instead of config.pvs",
         [](Parallels9Mac&) {
             return Json{{"Name", "/Users/ann/Documents/Parallels/Windows XP.pvm"},
                         {"COMMAND", "stop"}};
         },
         -1, -6},
        {"config.pvs unreadable",
         [](Parallels9Mac& vm) {
             EXPECT_EQ(KALDO::CFailpoints::Set("ReadFromTextFile@" + vm.config + "=-4"), 0);
             return Json{{"Name", vm.config}, {"COMMAND", "stop"}};
         },
         -1, -6},
        {"UUID without braces", withConfig(noBraces), -6, -6},
    };
}

TEST(Parallels9OperateVM, FailuresBeforeTheRunAreRecordedAndRunNothing) {
    std::vector<EarlyFailure> rows = EarlyFailures();
    rows.push_back({"no COMMAND",
                    [](Parallels9Mac& vm) {
                        return Json{{"Name", vm.config}};
                    },
                    -3, 0});
    rows.push_back({"console user unknown",
                    [](Parallels9Mac& vm) {
                        EXPECT_EQ(KALDO::CFailpoints::Set("GetCurrentLoggedInUserInfo=-2"), 0);
                        return Json{{"Name", vm.config}, {"COMMAND", "stop"}};
                    },
                    -1, 0});
    for (const EarlyFailure& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM, row.setUp(vm));
        EXPECT_EQ(r.result, row.operateCode);
        EXPECT_EQ(ParallelsCodes(r), std::vector<int>{row.operateCode});
        EXPECT_TRUE(vm.prlctl.invocations().empty());
        KALDO::CFailpoints::Clear();
    }
}

TEST(Parallels9OperateVM, FindsTheUuidInAnIdentificationWithAttributes) {
    Parallels9Mac vm;
    Config config;
    config.identification = "<Identification dyn_lists=\"\">";
    vm.mac.writeFile(vm.config, ConfigPvs(config));
    const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM,
                              {{"Name", vm.config}, {"COMMAND", "resume"}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(ArgsOf(vm.prlctl), (std::vector<std::string>{"resume", kUuid}));
}

// ---- Starting with the client application and prlctl ----

// Calls the 9.x start and waits for the child it left behind.
struct StartRun {
    CallResult call;
    int pauses = 0;
    int childStatus = -1;  // -1: no child
};

StartRun Start9(const Json& inputs) {
    StartRun run;
    g_pauses = 0;
    run.call = Call(ImplVirtualMachine_Parallels_9_X_StartVM, inputs);
    run.pauses = g_pauses;
    run.childStatus = ReapStartChild();
    return run;
}

TEST(Parallels9StartVM, CodeFromPrlctlsAnswersOverTheAttempts) {
    using Answers = std::vector<implvm_test::FakeResponse>;
    const std::string serviceDown = "Login failed: Unable to connect to Parallels Service\n";
    const std::string refused = "Failed to start the VM: Unable to complete the operation.\n";
    const std::string starting = "Starting the VM...\n";
    const std::string started = "The VM has been successfully started.\n";
    const std::string running = "Failed to start the VM: the VM \"Windows XP\" is not stopped\n";
    struct Row {
        const char* what;
        Answers answers;
        int code;
        int attempts;
    };
    const Row rows[] = {
        {"started", {{starting + started, "", 0}}, 0, 1},
        {"already running", {{starting + running, "", 1}}, 0, 1},
        {"started despite a refusal text", {{starting + started, refused, 0}}, 0, 1},
        {"no refusal, any exit status", {{"", "", 3}}, 0, 1},
        {"started without starting is no success",
         {{started, serviceDown, 0}, {starting + started, "", 0}},
         0,
         2},
        {"service comes up on the third attempt",
         {{"", serviceDown, 255}, {"", serviceDown, 255}, {starting + started, "", 0}},
         0,
         3},
        {"start refused once", {{"", refused, 255}, {starting + started, "", 0}}, 0, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        for (const auto& answer : row.answers) vm.prlctl.respond(answer);
        const Ids before;
        const StartRun run = Start9({{"Name", vm.config}});
        EXPECT_EQ(Ids(), before) << "the user ids are restored";
        EXPECT_EQ(run.call.result, row.code);
        EXPECT_EQ(ParallelsCodes(run.call),
                  row.code < 0 ? std::vector<int>{row.code} : std::vector<int>{});
        EXPECT_EQ(run.pauses, 1 + row.attempts) << "one after the service wait, one per attempt";
        const auto runs = vm.prlctl.invocations();
        ASSERT_EQ(runs.size(), size_t(row.attempts));
        for (const auto& r : runs) {
            EXPECT_EQ(r.args, (std::vector<std::string>{"start", kUuid}));
            EXPECT_EQ(r.euid, ExpectedToolEuid());
        }
        EXPECT_EQ(run.childStatus, 0);
    }
}

TEST(Parallels9StartVM, LastFailureToRunPrlctlIsReturnedAfterAllAttempts) {
    struct Row {
        const char* what;
        std::string failpoint;
        int code;
    };
    const Row rows[] = {
        {"prlctl missing", "", -2},
        {"prlctl busy", "ExecuteSafeToText@" + kPrlctl + "=-32", -32},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        if (row.failpoint.empty()) {
            vm.mac.remove(kPrlctl);
        } else {
            ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        }
        const StartRun run = Start9({{"Name", vm.config}});
        EXPECT_EQ(run.call.result, row.code);
        EXPECT_EQ(ParallelsCodes(run.call), std::vector<int>{row.code});
        EXPECT_EQ(run.pauses, 41);
        KALDO::CFailpoints::Clear();
    }
}

TEST(Parallels9StartVM, WaitsForTheServiceWithBoundedLooks) {
    struct Row {
        const char* what;
        implvm_test::FakeResponse listing;
        size_t looks;
    };
    const Row rows[] = {
        {"service up", {ServiceListing(), "", 0}, 1},
        {"no listing", {"", "ps: operation not permitted\n", 1}, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        auto& ps = vm.mac.installTool("/bin/ps");
        ps.respond(row.listing);
        vm.prlctl.respond("Starting the VM...\nThe VM has been successfully started.\n");
        const StartRun run = Start9({{"Name", vm.config}});
        EXPECT_EQ(run.call.result, 0);
        // The child looks once for the client application before starting it.
        EXPECT_EQ(ps.invocations().size(), row.looks + 1);
    }
}

TEST(Parallels9StartVM, ChildStartsTheClientAppAsConsoleUserAndEndsQuietly) {
    Parallels9Mac vm;
    vm.prlctl.respond("Starting the VM...\nThe VM has been successfully started.\n");
    // A line left in a stdio buffer of this process: a child that ended with
    // exit() instead of _exit() would write it a second time.
    const std::string bufferFile = vm.mac.root() + "/host-buffer.txt";
    FILE* buffered = fopen(bufferFile.c_str(), "w");
    ASSERT_NE(buffered, nullptr);
    fputs("host line\n", buffered);

    const StartRun run = Start9({{"Name", vm.config}});
    fclose(buffered);
    EXPECT_EQ(run.call.result, 0);
    EXPECT_TRUE(WIFEXITED(run.childStatus) && WEXITSTATUS(run.childStatus) == 0);
    FILE* in = fopen(bufferFile.c_str(), "r");
    ASSERT_NE(in, nullptr);
    char text[64] = {};
    EXPECT_EQ(fread(text, 1, sizeof text - 1, in), 10u);
    fclose(in);
    EXPECT_STREQ(text, "host line\n");

    const auto apps = vm.clientApp.invocations();
    ASSERT_EQ(apps.size(), 1u);
    EXPECT_EQ(apps[0].args, std::vector<std::string>{""});
    if (geteuid() == 0) {
        EXPECT_EQ(apps[0].uid, kConsoleUid);
        EXPECT_EQ(apps[0].euid, kConsoleUid);
    }
}

TEST(Parallels9StartVM, FailuresBeforeTheRunAreRecordedAndRunNothing) {
    std::vector<EarlyFailure> rows = EarlyFailures();
    rows.push_back({"fork fails",
                    [](Parallels9Mac& vm) {
                        g_failFork = true;
                        return Json{{"Name", vm.config}};
                    },
                    0, -1});
    for (const EarlyFailure& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        const Json inputs = row.setUp(vm);
        const StartRun run = Start9(inputs);
        g_failFork = false;
        EXPECT_EQ(run.call.result, row.startCode);
        EXPECT_EQ(ParallelsCodes(run.call), std::vector<int>{row.startCode});
        EXPECT_TRUE(vm.prlctl.invocations().empty());
        // Only a missing Name or a failed fork leave no child behind.
        const bool forked = row.startCode != -3 && row.startCode != -1;
        EXPECT_EQ(run.childStatus != -1, forked);
        EXPECT_EQ(vm.clientApp.invocations().size(), forked ? 1u : 0u);
        KALDO::CFailpoints::Clear();
    }
}

// Runs `body` in a forked copy of this test process; every process that
// comes back out of it reports one line, then ends at once. Returns the
// lines. The module's own child reports like its parent.
std::vector<std::string> LinesFromIsolatedRun(const std::function<std::string()>& body) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t isolated = fork();
    if (isolated == 0) {
        close(fds[0]);
        const std::string line = body() + "\n";
        if (write(fds[1], line.data(), line.size()) < 0) _exit(2);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    pollfd watch = {fds[0], POLLIN, 0};
    char chunk[256];
    while (poll(&watch, 1, 30000) > 0) {
        const ssize_t n = read(fds[0], chunk, sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, size_t(n));
    }
    close(fds[0]);
    int status = 0;
    waitpid(isolated, &status, 0);
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

TEST(Parallels9StartVM, UnknownConsoleUserFailsInTheParentAndInTheChild) {
    // The lookup runs after the fork, so the child comes back to its caller
    // too; isolating the call keeps that second return out of this test run.
    Parallels9Mac vm;
    vm.mac.remove("/.machine");
    const std::vector<std::string> lines = LinesFromIsolatedRun([&] {
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", vm.config}});
        std::string line = std::to_string(r.result);
        for (int code : ParallelsCodes(r)) line += " " + std::to_string(code);
        return line;
    });
    EXPECT_EQ(lines, (std::vector<std::string>{"-4 -4", "-4 -4"}));
    EXPECT_TRUE(vm.clientApp.invocations().empty());
    EXPECT_TRUE(vm.prlctl.invocations().empty());
}

// ---- Through implvm, on the simulated Mac ----

class ParallelsOnDemoMac : public ::testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }

    Json Run(const std::string& method, const std::vector<std::string>& inputs = {}) {
        std::vector<std::string> argv = {IMPLVM_BIN, "--root", mac_.root(), "call", method};
        for (const std::string& input : inputs) {
            argv.push_back("--in");
            argv.push_back(input);
        }
        const implvm_test::ProcessResult p = implvm_test::RunProcess(argv);
        EXPECT_EQ(p.err, "");
        return Json::parse(p.out);
    }

    TestMachine mac_;
};

const std::string kRobin = "/Users/robin/Parallels/";

TEST_F(ParallelsOnDemoMac, InventoryOfEveryVm) {
    const Json list = Run("VirtualMachineImpl_Parallels4_EnumerateVMs");
    EXPECT_EQ(list, Json::parse(R"({"result": 0, "outputs": {"VMs": [
        "/Users/robin/Parallels/Windows XP.pvm",
        "/Users/robin/Parallels/Windows Server 2008.pvm",
        "/Users/robin/Parallels/Ubuntu 22.04.pvm"]}, "errors": []})"));

    const char* expected[][2] = {
        {R"({"UserFriendlyName": "Windows XP", "OS": {"Type": 3, "Distribution": "Windows XP"},
             "State": 1})",
         R"([{"Name": "Network Adapter 1", "Type": 1, "IsConnected": 1, "MacAddress": ""}])"},
        {R"({"UserFriendlyName": "Windows Server 2008",
             "OS": {"Type": 3, "Distribution": "Windows Server 2008"}, "State": 2})",
         R"([{"Name": "Network Adapter 1", "Type": 2, "IsConnected": 1, "MacAddress": ""},
             {"Name": "Network Adapter 2", "Type": 3, "IsConnected": 0, "MacAddress": ""}])"},
        {R"({"UserFriendlyName": "Ubuntu 22.04", "OS": {"Type": 1, "Distribution": "Linux"},
             "State": 3})",
         R"([{"Name": "Network Adapter 1", "Type": 1, "IsConnected": 1, "MacAddress": ""},
             {"Name": "Lab network", "Type": 2, "IsConnected": 1, "MacAddress": ""}])"},
    };
    for (size_t i = 0; i < 3; ++i) {
        const std::string name = "Name=" + list["outputs"]["VMs"][i].get<std::string>();
        SCOPED_TRACE(name);
        const Json info = Run("VirtualMachineImpl_Parallels4_GetVMInfo", {name});
        EXPECT_EQ(info["result"], 0);
        EXPECT_EQ(info["outputs"], Json::parse(expected[i][0]));
        const Json net = Run("VirtualMachineImpl_Parallels4_GetVMNetwork", {name});
        EXPECT_EQ(net["result"], 0);
        EXPECT_EQ(net["outputs"]["Networks"], Json::parse(expected[i][1]));
    }
}

TEST_F(ParallelsOnDemoMac, ControlMethodsChangeTheVmsState) {
    auto state = [this] {
        return Run("VirtualMachineImpl_Parallels4_GetVMInfo",
                   {"Name=" + kRobin + "Ubuntu 22.04.pvm"})["outputs"]["State"];
    };
    EXPECT_EQ(Run("VirtualMachineImpl_Parallels4_StartVM",
                  {"Name=" + kRobin + "Ubuntu 22.04.pvm"})["result"],
              0);
    EXPECT_EQ(state(), 1);
    EXPECT_EQ(Run("ImplVirtualMachine_Parallels_9_X_OperateVM",
                  {"Name=" + kRobin + "Ubuntu 22.04.pvm/config.pvs", "COMMAND=suspend"})["result"],
              0);
    EXPECT_EQ(state(), 2);
}

}  // namespace
