// The Parallels Desktop adapter on simulated Macs, through fake tools.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ImplVirtualMachine.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::CallResult;
using implvm_test::Json;
using implvm_test::TestMachine;
using Codes = std::vector<int>;
using Args = std::vector<std::string>;

// Link seams for the module loaded into this executable: the 9.x start's
// one-second pauses are counted, not waited out, and fork() can be made to
// fail.
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
    static const auto realFork = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
    return realFork();
}

namespace {

const std::string kPrlctl = "/Applications/Parallels Desktop.app/Contents/MacOS/prlctl";
const std::string kClientApp = "/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app";
const std::string kUuid = "5c1e8a0f-3b7d-4e62-9a14-d2f07b6c8e39";
constexpr int kConsoleUid = 501;

// One <NetworkAdapter>; an unset field leaves its element out.
struct Adapter {
    std::optional<std::string> enabled, connected, emulatedType, friendlyName;
};

// A config.pvs reduced to what the adapter reads.
struct Config {
    std::string name = "Windows XP", osType = "8";
    std::optional<std::string> osNumber = "2055";
    std::vector<Adapter> adapters;
    std::string identification = "<Identification>";
    std::string uuid = "{" + kUuid + "}";
};

Config Guest(const std::string& name, const std::string& osType, const std::string& osNumber,
             const std::vector<Adapter>& adapters = {}) {
    Config c;
    c.name = name;
    c.osType = osType;
    c.osNumber = osNumber;
    c.adapters = adapters;
    return c;
}

std::string ConfigPvs(const Config& c) {
    auto element = [](const char* tag, const std::optional<std::string>& value) {
        return value ? std::string("<") + tag + ">" + *value + "</" + tag + ">\n" : "";
    };
    std::string xml = "<ParallelsVirtualMachine>\n" + c.identification + "\n<VmUuid>" + c.uuid +
                      "</VmUuid>\n<VmName>" + c.name + "</VmName>\n</Identification>\n<General>\n" +
                      element("OsType", c.osType) + element("OsNumber", c.osNumber) +
                      "</General>\n<Hardware>\n";
    for (size_t i = 0; i < c.adapters.size(); ++i) {
        const Adapter& a = c.adapters[i];
        xml += "<NetworkAdapter>\n<Index>" + std::to_string(i) + "</Index>\n" +
               element("Enabled", a.enabled) + element("Connected", a.connected) +
               element("EmulatedType", a.emulatedType) +
               element("UserFriendlyName", a.friendlyName) + "</NetworkAdapter>\n";
    }
    return xml + "</Hardware>\n</ParallelsVirtualMachine>\n";
}

// The codes the call recorded, all against the Parallels adapter's file.
std::vector<int> ParallelsCodes(const implvm_test::CallResult& r) {
    std::vector<int> codes;
    for (const auto& e : implvm_test::ErrorsFrom(r.errors, "ImplVirtualMachine_Parallels.cpp"))
        codes.push_back(e.code);
    EXPECT_EQ(codes.size(), r.errors.size()) << "records from another source file";
    return codes;
}

// A "ps wwax" listing of the given command columns.
std::string PsListing(const std::vector<std::string>& commands) {
    std::string text =
        "  PID   TT  STAT      TIME COMMAND\n    1   ??  Ss     2:01.17 /sbin/launchd\n";
    for (const std::string& command : commands)
        text += "  310   ??  Ss     0:03.52 " + command + "\n";
    return text;
}

// A console user (uid 501), Parallels' tools, its service running, one VM.
struct Parallels9Mac {
    implvm_test::TestMachine mac;
    implvm_test::FakeTool& ps = mac.installTool("/bin/ps");
    implvm_test::FakeTool& clientApp = mac.installTool(kClientApp);
    implvm_test::FakeTool& prlctl = mac.installTool(kPrlctl);
    std::string config = "/Users/ann/Documents/Parallels/Windows XP.pvm/config.pvs";

    Parallels9Mac() {
        mac.setConsoleUser("ann", kConsoleUid, "/Users/ann");
        ps.respond(
            PsListing({"/Applications/Parallels Desktop.app/Contents/MacOS/prl_disp_service"}));
        mac.writeFile(config, ConfigPvs({}));
    }
};

// Waits for the child the 9.x start leaves behind, so that no child outlives
// its test's machine root. Its wait status, or -1 when there is none.
int ReapStartChild() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, WNOHANG);
        if (pid > 0) return status;
        if (pid < 0 && errno == ECHILD) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ADD_FAILURE() << "the start's child did not end";
    return -1;
}

const std::string kDirectoryList = "/Library/Preferences/Parallels/vmdirectorylist.desktop.xml";
const std::string kVmFolder = "/Users/ann/Documents/Parallels/";
const std::string kHome = kVmFolder + "Windows XP.pvm";

std::string DirectoryList(const std::vector<std::string>& homes) {
    std::string xml = "<VirtualMachinesList>\n";
    for (const std::string& home : homes)
        xml += "<VirtualMachine>\n<VmHome>" + home + "</VmHome>\n</VirtualMachine>\n";
    return xml + "</VirtualMachinesList>\n";
}

void WriteBundle(TestMachine& mac, const std::string& bundle, const Config& config,
                 const std::vector<std::string>& entries = {}) {
    mac.writeFile(bundle + "/config.pvs", ConfigPvs(config));
    for (const std::string& entry : entries) mac.writeFile(bundle + "/" + entry, "");
}

Codes Recorded(int code) {
    return code < 0 ? Codes{code} : Codes{};
}

void SetFailpoint(const std::string& failpoint) {
    KALDO::CFailpoints::Clear();
    if (!failpoint.empty()) {
        ASSERT_EQ(KALDO::CFailpoints::Set(failpoint), 0) << failpoint;
    }
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
    EXPECT_EQ(r.outputs["VMs"], Json({f + "Windows XP.pvm", f + "Ubuntu.pvm",
                                      f + "Old.pvm.d/Leopard.pvm", f + "Plain VM"}));
    EXPECT_TRUE(r.errors.empty());
}

TEST(ParallelsInventory, UnreadableListIsRecordedAndShowsAsNoVms) {
    const std::string failRead = "ReadFromTextFile@" + kDirectoryList + "=";
    const struct {
        std::string failpoint;  // "": the directory list is missing
        int code;
    } rows[] = {
        {"", -1},
        {failRead + "-32", -32},
        {failRead + "-8", -1},
        {"ParseSubstringFromStringEx@<VmHome>=-3", -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failpoint);
        TestMachine mac;
        if (!row.failpoint.empty()) {
            mac.writeFile(kDirectoryList, DirectoryList({kHome}));
            SetFailpoint(row.failpoint);
        }
        std::vector<std::wstring> homes = {L"kept"};
        EXPECT_EQ(VirtualMachineImpl_Parallels4_GetAllVms(homes), row.code);
        EXPECT_EQ(homes, std::vector<std::wstring>{L"kept"});
        KALDO::CErrorInfo::clearErrors();
        const CallResult r = Call(VirtualMachineImpl_Parallels4_EnumerateVMs);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, Json::parse(R"({"VMs": []})"));
        EXPECT_EQ(ParallelsCodes(r), Codes{row.code});
    }
}

// ---- The configuration reader ----

TEST(ParallelsReader, DescribesVmsNumberingAdaptersAmongAllOfThem) {
    const auto none = std::nullopt;
    Config xp, ubuntu, leopard;
    xp.adapters = {{"1", "1", "1", none},
                   {"0", "1", "1", none},  // disabled, but it keeps its number
                   {"1", "0", "2", "Office LAN"},
                   {"1", "1", "5", ""},  // an empty friendly name counts as none
                   {none, none, none, none}};
    ubuntu =
        Guest("Ubuntu Server", "9", "2305", {{"0", "1", "2", none}, {"1", none, "0", "Private"}});
    leopard = Guest("Leopard Server", "7", "1794");
    const struct {
        Config config;
        std::vector<std::string> entries;
        const char* info;
        const char* networks;
    } vms[] = {
        // The state: a *.mem entry, a config.sav entry, both; names match exactly.
        {xp,
         {"Windows XP.mem", "config.sav.backup", "Windows XP-0.hdd"},
         R"({"UserFriendlyName": "Windows XP", "OS": {"Type": 3, "Distribution": "Windows XP"},
             "State": 1})",
         R"([{"Name": "Network Adapter 1", "Type": 1, "IsConnected": 1, "MacAddress": ""},
             {"Name": "Office LAN", "Type": 2, "IsConnected": 0, "MacAddress": ""},
             {"Name": "Network Adapter 4", "IsConnected": 1, "MacAddress": ""},
             {"Name": "Network Adapter 5", "IsConnected": 1, "MacAddress": ""}])"},
        {ubuntu,
         {"x.mem", "config.sav"},
         R"({"UserFriendlyName": "Ubuntu Server", "OS": {"Type": 1, "Distribution": "Linux"},
             "State": 2})",
         R"([{"Name": "Private", "Type": 3, "IsConnected": 1, "MacAddress": ""}])"},
        {leopard,
         {"Windows XP.mem.tmp", "config.sav"},
         R"({"UserFriendlyName": "Leopard Server",
             "OS": {"Type": 2, "Distribution": "Mac OS X Server 10.5"}, "State": 3})",
         "[]"},
    };
    for (const auto& vm : vms) {
        SCOPED_TRACE(vm.config.name);
        TestMachine mac;
        WriteBundle(mac, kHome, vm.config, vm.entries);
        const CallResult info = Call(VirtualMachineImpl_Parallels4_GetVMInfo, {{"Name", kHome}});
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(info.outputs, Json::parse(vm.info));
        const CallResult net = Call(VirtualMachineImpl_Parallels4_GetVMNetwork, {{"Name", kHome}});
        EXPECT_EQ(net.result, 0);
        EXPECT_EQ(net.outputs, Json({{"Networks", Json::parse(vm.networks)}}));
        EXPECT_TRUE(info.errors.empty() && net.errors.empty());
    }
}

TEST(ParallelsReader, OsCodesComeFromClosedTablesOfExactTexts) {
    const struct {
        const char *osType, *osNumber;
        int type;
        const char* distribution;
    } rows[] = {
        {"8", "2058", 3, "Windows Server 2008"},
        {"8", "2059", 3, "Linux"},
        {"7", "1795", 2, "Linux"},
        {"9", "2057", 1, "Windows Vista"},
        {"10", "2050", 0, "Windows 95"},
        {" 9", "2305", 0, "Linux"},
        {"1", " 2055", 0, "Linux"},
    };
    TestMachine mac;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.osType) + "/" + row.osNumber);
        WriteBundle(mac, kHome, Guest("Guest", row.osType, row.osNumber));
        const CallResult r = Call(VirtualMachineImpl_Parallels4_GetVMInfo, {{"Name", kHome}});
        EXPECT_EQ(r.outputs["OS"], (Json{{"Type", row.type}, {"Distribution", row.distribution}}));
    }
}

TEST(ParallelsReader, FailuresAreRecordedAndWriteNothing) {
    Config noName, noOsNumber;
    noName.name = "";
    noOsNumber.osNumber = std::nullopt;
    const std::string config = kHome + "/config.pvs";
    const struct {
        const char* what;
        std::optional<Config> config;  // nullopt: an empty bundle
        std::string failpoint;
        Codes codes;  // the reader's record, then the method's
        bool named = true;
    } rows[] = {
        {"no config.pvs", std::nullopt, "", {-1, -1}},
        {"config.pvs refused", Config{}, "ReadFromTextFile@" + config + "=-4", {-4, -4}},
        {"empty VmName", noName, "", {-1, -1}},
        {"no OsNumber", noOsNumber, "", {-1, -1}},
        {"bundle unlistable", Config{}, "GetDirectoryList@" + kHome + "=-5", {-1, -1}},
        {"adapters busy", Config{}, "ParseSubstringFromStringEx@<NetworkAdapter>=-32", {-32, -32}},
        {"no Name input", Config{}, "", {-1}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TestMachine mac;
        mac.makeDir(kHome);
        if (row.config) WriteBundle(mac, kHome, *row.config);
        SetFailpoint(row.failpoint);
        const Json inputs = row.named ? Json{{"Name", kHome}} : Json::object();
        for (ImplVmMethod* method : {VirtualMachineImpl_Parallels4_GetVMInfo,
                                     VirtualMachineImpl_Parallels4_GetVMNetwork}) {
            const CallResult r = Call(method, inputs);
            EXPECT_EQ(r.result, row.codes.back());
            EXPECT_TRUE(r.outputs.empty()) << r.outputs;
            EXPECT_EQ(ParallelsCodes(r), row.codes);
        }
    }
    KALDO::CFailpoints::Clear();
}

TEST(ParallelsReader, DescriptionIsEmptiedFirst) {
    TestMachine mac;
    const std::wstring home = KALDO::CStringUtils::StringToWString(kHome);
    KALDO::typeProperty description;
    description.addMapVal(L"Stale", 1);
    EXPECT_EQ(VirtualMachineImpl_Parallels4_GetInfoForVm(home, &description), -1);
    EXPECT_TRUE(description.isEmpty());
    WriteBundle(mac, kHome, {});
    description.addMapVal(L"Stale", 1);
    EXPECT_EQ(VirtualMachineImpl_Parallels4_GetInfoForVm(home, &description), 0);
    std::vector<std::wstring> keys;
    description.getMapKeys(keys);
    EXPECT_EQ(keys, (std::vector<std::wstring>{L"UserFriendlyName", L"OS", L"State", L"Networks"}));
}

// ---- Starting with "open" ----

TEST(Parallels4StartVM, OpensTheBundleAndJudgesByExitStatus) {
    const struct {
        Json inputs;
        bool installOpen;
        int exitCode;
        std::string failpoint;
        int code;
    } rows[] = {
        {{{"Name", kHome}}, true, 0, "", 0},
        {{{"Name", kHome}}, true, 1, "", -1},
        {{{"Name", kHome}}, false, 0, "", -1},
        {{{"Name", kHome}}, true, 0, "ExecuteSafeToText@open=-32", -32},
        {Json::object(), true, 0, "", -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.inputs.dump() + row.failpoint + std::to_string(row.exitCode));
        TestMachine mac;
        implvm_test::FakeTool* open = nullptr;
        if (row.installOpen) open = &mac.installTool("/usr/bin/open").respond("", row.exitCode);
        SetFailpoint(row.failpoint);
        const CallResult r = Call(VirtualMachineImpl_Parallels4_StartVM, row.inputs);
        EXPECT_EQ(r.result, row.code);
        EXPECT_TRUE(r.outputs.empty());
        EXPECT_EQ(ParallelsCodes(r), Recorded(row.code));
        if (open && row.code == 0) {
            EXPECT_EQ(open->invocations().at(0).args, Args{kHome});
        }
    }
    KALDO::CFailpoints::Clear();
}

// ---- prlctl commands ----

struct Ids {
    uid_t uid = getuid(), euid = geteuid();
    bool operator==(const Ids&) const = default;
};

// As root the tools run as the console user; elsewhere as the test's user.
int ExpectedToolEuid() {
    return geteuid() == 0 ? kConsoleUid : int(geteuid());
}

TEST(Parallels9OperateVM, RunsPrlctlAsConsoleUserAndCodesItsAnswer) {
    const std::string login = "Login failed: Unable to connect to Parallels Service\n";
    const Json stop = {{"COMMAND", "stop"}};
    const struct {
        const char* what;
        Json inputs;
        implvm_test::FakeResponse answer;
        std::string failpoint;  // "missing" removes prlctl
        Args args;
        int code;
    } rows[] = {
        // clang-format off
        {"no option", stop, {}, "", {"stop", kUuid}, 0},
        {"empty option", {{"COMMAND", "stop"}, {"OPTION", ""}}, {}, "", {"stop", kUuid}, 0},
        {"option as one argument", {{"COMMAND", "set"}, {"OPTION", "--cpus 2"}}, {}, "",
         {"set", kUuid, "--cpus 2"}, 0},
        {"exit status is not looked at", stop, {"", "Failed\n", 255}, "", {"stop", kUuid}, 0},
        {"login refused", stop, {"", login, 1}, "", {"stop", kUuid}, -4},
        {"login text on stdout only", stop, {login, "", 1}, "", {"stop", kUuid}, 0},
        {"prlctl missing", stop, {}, "missing", {}, -2},
        {"prlctl timed out", stop, {}, "ExecuteSafeToText@" + kPrlctl + "=-7", {}, -7},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        Config withAttributes;
        withAttributes.identification = "<Identification dyn_lists=\"\">";
        vm.mac.writeFile(vm.config, ConfigPvs(withAttributes));
        vm.prlctl.respond(row.answer);
        if (row.failpoint == "missing")
            vm.mac.remove(kPrlctl);
        else
            SetFailpoint(row.failpoint);
        Json inputs = row.inputs;
        inputs["Name"] = vm.config;
        const Ids before;
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM, inputs);
        EXPECT_EQ(Ids(), before) << "the user ids are restored";
        EXPECT_EQ(r.result, row.code);
        EXPECT_EQ(ParallelsCodes(r), Recorded(row.code));
        const auto runs = vm.prlctl.invocations();
        EXPECT_EQ(runs.empty() ? Args{} : runs.at(0).args, row.args);
        if (!runs.empty()) {
            EXPECT_EQ(runs[0].euid, ExpectedToolEuid());
        }
    }
    KALDO::CFailpoints::Clear();
}

// ---- Starting with the client application and prlctl ----

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

TEST(Parallels9StartVM, RetriesPrlctlAndStartsTheClientAppAsConsoleUser) {
    const std::string serviceDown = "Login failed: Unable to connect to Parallels Service\n";
    const std::string refused = "Failed to start the VM: Unable to complete the operation.\n";
    const std::string starting = "Starting the VM...\n";
    const std::string started = "The VM has been successfully started.\n";
    const std::string running = "Failed to start the VM: the VM \"Windows XP\" is not stopped\n";
    const struct {
        const char* what;
        std::vector<implvm_test::FakeResponse> answers;
        int attempts;
        bool psFails = false;  // a failed listing counts as the service up
    } rows[] = {
        {"started", {{starting + started, "", 0}}, 1},
        {"already running", {{starting + running, "", 1}}, 1, true},
        {"started without starting is no success",
         {{started, serviceDown, 0}, {starting + started, "", 0}},
         2},
        {"service comes up on the third attempt",
         {{"", serviceDown, 255}, {"", serviceDown, 255}, {starting + started, "", 0}},
         3},
        {"start refused once", {{"", refused, 255}, {starting + started, "", 0}}, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        implvm_test::FakeTool* ps = &vm.ps;
        if (row.psFails) ps = &vm.mac.installTool("/bin/ps").respond("", 1, "ps: not permitted\n");
        for (const auto& answer : row.answers) vm.prlctl.respond(answer);
        // A line in a stdio buffer: a child ending with exit() would write it twice.
        FILE* buffered = fopen(vm.mac.hostPath("/buffer").c_str(), "w");
        ASSERT_NE(buffered, nullptr);
        fputs("host line\n", buffered);
        const Ids before;
        const StartRun run = Start9({{"Name", vm.config}});
        fclose(buffered);
        EXPECT_EQ(vm.mac.readFile("/buffer"), "host line\n");
        EXPECT_EQ(Ids(), before) << "the user ids are restored";
        EXPECT_EQ(run.call.result, 0);
        EXPECT_TRUE(run.call.errors.empty());
        EXPECT_EQ(run.pauses, 1 + row.attempts) << "one after the service wait, one per attempt";
        const auto runs = vm.prlctl.invocations();
        ASSERT_EQ(runs.size(), size_t(row.attempts));
        for (const auto& r : runs) {
            EXPECT_EQ(r.args, (Args{"start", kUuid}));
            EXPECT_EQ(r.euid, ExpectedToolEuid());
        }
        EXPECT_EQ(run.childStatus, 0);
        EXPECT_EQ(ps->invocations().size(), 2u) << "the service, then the client app by the child";
        const auto apps = vm.clientApp.invocations();
        ASSERT_EQ(apps.size(), 1u);
        EXPECT_EQ(apps[0].args, Args{""});
        if (geteuid() == 0) {
            EXPECT_EQ(apps[0].uid, kConsoleUid);
            EXPECT_EQ(apps[0].euid, kConsoleUid);
        }
    }
}

// Forty looks for the service (no pause between them), then forty prlctl
// attempts a pause apart: the last attempt's code is the answer.
TEST(Parallels9StartVM, BoundedLoopsEndWithTheLastAnswer) {
    const std::string refused = "Login failed: Unable to connect to Parallels Service\n";
    const struct {
        const char* what;
        std::string failpoint;  // or "missing", "refused", "no service"
        int code;
        size_t prlctlRuns, psRuns;  // the client app's child lists processes once
        int pauses;
    } rows[] = {
        {"prlctl missing", "missing", -2, 0, 2, 41},
        {"prlctl cannot run", "ExecuteSafeToText@" + kPrlctl + "=-32", -32, 0, 2, 41},
        {"login refused every time", "refused", -4, 40, 2, 41},
        {"service never listed", "no service", 0, 1, 41, 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Parallels9Mac vm;
        implvm_test::FakeTool* ps = &vm.ps;
        if (row.failpoint == "missing")
            vm.mac.remove(kPrlctl);
        else if (row.failpoint == "refused")
            vm.prlctl.respond("", 255, refused);
        else if (row.failpoint == "no service")
            ps = &vm.mac.installTool("/bin/ps").respond(PsListing({"/usr/sbin/cfprefsd agent"}));
        else
            SetFailpoint(row.failpoint);
        const StartRun run = Start9({{"Name", vm.config}});
        KALDO::CFailpoints::Clear();
        EXPECT_EQ(run.call.result, row.code);
        EXPECT_EQ(ParallelsCodes(run.call), Recorded(row.code));
        EXPECT_EQ(run.childStatus, 0);
        EXPECT_EQ(vm.prlctl.invocations().size(), row.prlctlRuns);
        EXPECT_EQ(ps->invocations().size(), row.psRuns);
        EXPECT_EQ(run.pauses, row.pauses);
    }
}

TEST(Parallels9, FailuresBeforeTheRunAreRecordedAndRunNothing) {
    const std::string config = kHome + "/config.pvs";
    const Json named = {{"Name", config}, {"COMMAND", "stop"}};
    Config noBraces;
    noBraces.uuid = kUuid;
    const struct {
        const char* what;
        Json inputs;
        std::optional<Config> config;  // nullopt: no config.pvs
        std::string failpoint;         // "fork" makes fork() fail
        int operateCode, startCode;    // 0: not a failure of that method
    } rows[] = {
        // clang-format off
        {"no Name", {{"COMMAND", "stop"}}, Config{}, "", -3, -3},
        {"config.pvs missing", named, std::nullopt, "", -6, -6},
        {"bundle instead of config.pvs", {{"Name", kHome}, {"COMMAND", "stop"}}, Config{}, "",
         -1, -6},
        {"UUID without braces", named, noBraces, "", -6, -6},
        {"no COMMAND", {{"Name", config}}, Config{}, "", -3, 0},
        {"console user unknown", named, Config{}, "GetCurrentLoggedInUserInfo=-2", -1, 0},
        {"fork fails", named, Config{}, "fork", 0, -1},
        // clang-format on
    };
    for (const auto& row : rows) {
        for (const bool start : {false, true}) {
            const int code = start ? row.startCode : row.operateCode;
            if (code == 0) continue;
            SCOPED_TRACE(std::string(row.what) + (start ? " (start)" : " (operate)"));
            Parallels9Mac vm;
            if (row.config)
                vm.mac.writeFile(config, ConfigPvs(*row.config));
            else
                vm.mac.remove(config);
            g_failFork = row.failpoint == "fork";
            if (!g_failFork) SetFailpoint(row.failpoint);
            const StartRun run =
                start ? Start9(row.inputs)
                      : StartRun{Call(ImplVirtualMachine_Parallels_9_X_OperateVM, row.inputs)};
            g_failFork = false;
            EXPECT_EQ(run.call.result, code);
            EXPECT_EQ(ParallelsCodes(run.call), Codes{code});
            EXPECT_TRUE(vm.prlctl.invocations().empty());
            // Only a missing Name or a failed fork leave no child behind.
            const bool forked = start && code != -3 && code != -1;
            EXPECT_EQ(run.childStatus != -1, forked);
            EXPECT_EQ(vm.clientApp.invocations().size(), forked ? 1u : 0u);
        }
    }
    KALDO::CFailpoints::Clear();
}

TEST(Parallels9StartVM, UnknownConsoleUserFailsInTheParentAndInTheChild) {
    // The lookup runs after the fork, so the child returns to its caller too.
    // The call runs in a forked copy of this test; each process that comes
    // back out of it appends its answer to a file, then ends.
    Parallels9Mac vm;
    vm.mac.remove("/.machine");
    const std::string answers = vm.mac.hostPath("/answers");
    const pid_t isolated = fork();
    if (isolated == 0) {
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", vm.config}});
        std::string line = std::to_string(r.result);
        for (int code : ParallelsCodes(r)) line += " " + std::to_string(code);
        line += "\n";
        const int fd = open(answers.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const bool written = fd >= 0 && write(fd, line.data(), line.size()) == ssize_t(line.size());
        while (wait(nullptr) > 0) continue;  // the module's child, when this is its parent
        _exit(written ? 0 : 1);
    }
    ASSERT_EQ(waitpid(isolated, nullptr, 0), isolated);
    EXPECT_EQ(vm.mac.readFile("/answers"), "-4 -4\n-4 -4\n");
    EXPECT_TRUE(vm.clientApp.invocations().empty());
    EXPECT_TRUE(vm.prlctl.invocations().empty());
}

}  // namespace
