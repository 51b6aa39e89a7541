// implvm's VM commands end to end, on copies of the simulated Mac: the one
// line each prints, its exit status, and the state the simulators leave.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "Commands.h"
#include "Golden.h"
#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::ProcessResult;

namespace {

const std::string kVbox = "/Users/robin/VirtualBox VMs/",
                  kVmx = "/Users/robin/Virtual Machines.localized/";
const std::string kWin7Vmx = kVmx + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx";
const std::string kMacVmx = kVmx + "macOS 10.15.vmwarevm/macOS 10.15.vmx";
const std::string kDebianVbox = kVbox + "Debian 12/Debian 12.vbox";

// Every VM's "State" as the inventory reports it, or its failure code.
std::map<std::string, int> States(const implvm_test::TestMachine& mac) {
    const Json document =
        Json::parse(implvm_test::Implvm({"--root", mac.root(), "inventory", "--json"}).out);
    std::map<std::string, int> byId;
    for (const Json& section : document["hypervisors"])
        for (const Json& vm : section["vms"])
            byId[vm["id"].get<std::string>()] = vm["info"]["result"] < 0
                                                    ? vm["info"]["result"].get<int>()
                                                    : vm["info"]["outputs"]["State"].get<int>();
    return byId;
}

class VmCommands : public testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }

    ProcessResult Implvm(std::vector<std::string> args) {
        args.insert(args.begin(), {"--root", mac_.root()});
        return implvm_test::Implvm(args);
    }

    implvm_test::TestMachine mac_;
};

// Each file of tests/data/implvm_session: commands run one after another on
// one Mac (unless a command names its own root), each answered with what
// implvm said and which VMs' states it changed (the inventory's "State", or
// its failure code). A command given as an object may first put a fake tool
// in place of a simulator ("tool", "respond": its answers in turn) and set
// variables ("env"); its answer then shows the tool's runs instead.
TEST(ImplvmSession, CommandsSayWhatHappenedAndChangeOnlyTheirVm) {
    implvm_test::CheckGoldenFiles("implvm_session", "json", [](const std::string& input) {
        implvm_test::TestMachine mac;
        mac.copyDemoMac();
        std::map<std::string, int> states = States(mac);
        const Json commands = Json::parse(input);
        Json answers = Json::object();
        for (const auto& [name, given] : commands.items()) {
            const Json command = given.is_array() ? Json{{"args", given}} : given;
            std::vector<std::string> argv = command["args"];
            if (std::find(argv.begin(), argv.end(), "--root") == argv.end())
                argv.insert(argv.begin(), {"--root", mac.root()});
            argv.insert(argv.begin(), IMPLVM_BIN);
            std::map<std::string, std::string> env = {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}};
            if (command.contains("env"))
                for (const auto& [key, value] : command["env"].items()) env[key] = value;
            implvm_test::FakeTool* tool = nullptr;
            if (command.contains("tool")) {
                tool = &mac.installTool(command["tool"]);
                for (const Json& r : command["respond"])
                    tool->respond({.out = r.value("out", ""),
                                   .err = r.value("err", ""),
                                   .exitCode = r.value("exit", 0),
                                   .sleepSeconds = r.value("sleep", 0.0)});
            }
            const ProcessResult r = implvm_test::RunProcess(argv, env);
            Json& answer = answers[name] = {{"exit", r.exitCode}, {"out", r.out}, {"err", r.err}};
            if (tool != nullptr) {
                for (const implvm_test::FakeInvocation& run : tool->invocations())
                    answer["ran"].push_back(run.args);
                continue;
            }
            for (const auto& [id, state] : States(mac))
                if (states[id] != state) answer["changed"][id] = states[id] = state;
        }
        return answers;
    });
}

// A second machine of the same name: the name no longer picks one.
TEST_F(VmCommands, ANameOfTwoVmsPicksNone) {
    mac_.writeFile(kVbox + "Copy/Debian 12.vbox", mac_.readFile(kDebianVbox));
    const std::string registry = "/Users/robin/Library/VirtualBox/VirtualBox.xml";
    std::string xml = mac_.readFile(registry);
    xml.insert(xml.find("</MachineRegistry>"),
               "<MachineEntry uuid=\"{bc31c968-bbb2-4bea-b045-321f9f32e056}\" src=\"" + kVbox +
                   "Copy/Debian 12.vbox\"/>\n");
    mac_.writeFile(registry, xml);
    const ProcessResult r = Implvm({"stop", "Debian 12"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err,
              "implvm: 'Debian 12' names 2 VMs; give one of them by its identifier:\n  "
              "VirtualBox: " +
                  kDebianVbox + "\n  VirtualBox: " + kVbox + "Copy/Debian 12.vbox\n");
}

const std::string kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage",
                  kVmrun = "/Applications/VMware Fusion.app/Contents/Library/vmrun";

// A VirtualBox action names the machine by its UUID, read from the settings
// file, so that of two machines with one name the one meant is acted on. A
// fake VBoxManage answers each showvminfo of a name lookup in registry order
// and records what it was given.
TEST_F(VmCommands, VirtualBoxActionsNameTheMachineByItsUuid) {
    const std::string copy = kVbox + "Copy/Debian 12.vbox", broken = kVbox + "Broken/Broken.vbox",
                      copyUuid = "0f6c5e1a-3b2d-4c8e-9a71-5d2e8b4c7f10";
    std::string settings = mac_.readFile(kDebianVbox);
    settings.replace(settings.find("bc31c968-bbb2-4bea-b045-321f9f32e056"), copyUuid.size(),
                     copyUuid);
    mac_.writeFile(copy, settings);
    // No uuid on <Machine>: the disk's must not stand in for it.
    mac_.writeFile(broken,
                   "<VirtualBox>\n  <Machine name=\"Broken\" OSType=\"Debian_64\">\n"
                   "    <HardDisk uuid=\"{1a172fff-5f79-4d3b-87b0-4026768f1420}\"/>\n"
                   "  </Machine>\n</VirtualBox>\n");
    const std::string registry = "/Users/robin/Library/VirtualBox/VirtualBox.xml";
    std::string xml = mac_.readFile(registry);
    for (const std::string& file : {copy, broken})
        xml.insert(xml.find("</MachineRegistry>"),
                   "<MachineEntry uuid=\"{" + copyUuid + "}\" src=\"" + file + "\"/>\n");
    mac_.writeFile(registry, xml);

    const std::string names[] = {"Ubuntu 22.04 Server", "Windows 10", "Debian 12",
                                 "Fedora 39",           "Debian 12",  "Broken"};
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::vector<std::string> action;  // VBoxManage's arguments, none when not run
    } rows[] = {
        // clang-format off
        {{"stop", copy}, 0, {"controlvm", copyUuid, "poweroff"}},
        {{"pause", kDebianVbox}, 0, {"controlvm", "bc31c968-bbb2-4bea-b045-321f9f32e056", "pause"}},
        {{"start", "Fedora 39", "--jobs", "1"}, 0, {"startvm", "453b652d-2e4a-4ad7-82f9-bd0bb583c4c4"}},
        {{"stop", "Debian 12", "--jobs", "1"}, 2, {}},
        {{"start", broken}, 1, {}},
        // clang-format on
    };
    for (const auto& row : rows) {
        implvm_test::FakeTool& tool = mac_.installTool(kVBoxManage);
        for (const std::string& name : names)
            tool.respond("Name:            " + name +
                         "\nGuest OS:        Debian (64-bit)\nState:           powered off (since "
                         "2024-03-01T09:12:44.000000000)\n");
        tool.respond("");
        const ProcessResult r = Implvm(row.args);
        EXPECT_EQ(r.exitCode, row.exitCode) << row.args[1] << ": " << r.err;
        std::vector<std::vector<std::string>> actions;
        for (const implvm_test::FakeInvocation& run : tool.invocations())
            if (run.args.at(0) != "showvminfo") actions.push_back(run.args);
        EXPECT_EQ(actions, row.action.empty() ? decltype(actions){} : decltype(actions){row.action})
            << row.args[1];
    }
    // A VBoxManage that hangs ends the name lookup at once: the name read
    // last may be the one, so nothing is acted on.
    implvm_test::FakeTool& hung = mac_.installTool(kVBoxManage);
    hung.respond(implvm_test::FakeResponse{.sleepSeconds = 600});
    const ProcessResult lookup = implvm_test::RunProcess(
        {IMPLVM_BIN, "--root", mac_.root(), "start", "Fedora 39", "--jobs", "1"},
        {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}, {"KALDO_TOOL_TIMEOUT", "0.3"}});
    EXPECT_EQ(lookup.exitCode, 1);
    EXPECT_EQ(lookup.err,
              "implvm: Fedora 39: the names of the VMs cannot all be read: VBoxManage did not "
              "answer within 0.3 s\n");
    EXPECT_EQ(hung.invocations().size(), 1u);

    EXPECT_EQ(Implvm({"start", broken}).err,
              "implvm: " + broken +
                  ": could not start: the machine's UUID cannot be read: its "
                  "settings file " +
                  broken + " names none\n");
}

// A NUL would end a tool's argument early, and the tool would act on another
// VM or snapshot: implvm refuses such a name before it runs anything. Only
// the commands' own code can be handed one, since no program's arguments
// can hold a NUL; so they run here, in this process.
TEST_F(VmCommands, ANulInAVmOrSnapshotNameIsAUsageError) {
    implvm_test::FakeTool& vboxManage = mac_.installTool(kVBoxManage);
    implvm_test::FakeTool& vmrun = mac_.installTool(kVmrun);
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"start", std::string("Debian 12\0x", 11)}, "VM 'Debian 12\\x00x' "},
        {{"stop", std::string("\0", 1)}, "VM '\\x00' "},
        {{"snapshot", "take", kWin7Vmx, std::string("a\0b", 3)}, "NAME 'a\\x00b' "},
        {{"snapshot", "delete", kWin7Vmx, std::string("Clean install\0", 14)},
         "NAME 'Clean install\\x00' "},
    };
    for (const auto& [args, start] : rows) {
        implvm::Host host("implvm");
        CLI::App app;
        implvm::AddVmCommands(app, host);
        std::vector<std::string> reversed(args.rbegin(), args.rend());  // as CLI11 takes them
        try {
            app.parse(reversed);
            ADD_FAILURE() << "accepted " << args[1];
        } catch (const implvm::UsageError& e) {
            const std::string message = e.what();
            EXPECT_EQ(message.rfind(start, 0), 0u) << message;
            EXPECT_NE(message.find("holds a NUL character (U+0000)"), std::string::npos) << message;
        }
    }
    EXPECT_TRUE(vboxManage.invocations().empty());
    EXPECT_TRUE(vmrun.invocations().empty());
}

// What the user typed and what the VM's files hold reach the terminal with
// their control characters escaped: the result line and the snapshot names.
TEST_F(VmCommands, NamesInResultLinesAreEscaped) {
    const std::string bundle = kVmx + "mac\x1b[2J.vmwarevm", vm = bundle + "/mac\x1b[2J.vmx";
    std::filesystem::rename(mac_.hostPath(kVmx + "macOS 10.15.vmwarevm"), mac_.hostPath(bundle));
    std::filesystem::rename(mac_.hostPath(bundle + "/macOS 10.15.vmx"), mac_.hostPath(vm));
    const std::string inventory =
        "/Users/robin/Library/Application Support/VMware Fusion/vmInventory";
    std::string list = mac_.readFile(inventory);
    list.replace(list.find(kMacVmx), kMacVmx.size(), vm);
    mac_.writeFile(inventory, list);

    const std::string shown = kVmx + "mac\\e[2J.vmwarevm/mac\\e[2J.vmx",
                      how = " (VMware Fusion 13.5.0, VirtualMachineImpl_VmWareFusion";
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"snapshot", "take", vm, "\x1b]0;x\x07\ttab\x7f"},
         shown + ": took snapshot \"\\e]0;x\\x07\\ttab\\x7f\"" + how +
             "4_AddSnapshot answered 0)\n"},
        {{"snapshot", "list", vm},
         shown + ": 1 snapshot" + how + "4_ListSnapshots answered 0)\n  \\e]0;x\\x07\\ttab\\x7f\n"},
        {{"start", vm}, shown + ": started" + how + "1_StartVM answered 0)\n"},
    };
    for (const auto& [args, out] : rows) {
        const ProcessResult r = Implvm(args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.out, out);
    }
}

}  // namespace
