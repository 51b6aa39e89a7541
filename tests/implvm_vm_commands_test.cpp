// implvm's VM commands end to end, on copies of the simulated Mac: the one
// line each prints, its exit status, and the state the simulators leave.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>

#include "Commands.h"
#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::ProcessResult;

namespace {

const std::string kPvm = "/Users/robin/Parallels/", kVbox = "/Users/robin/VirtualBox VMs/",
                  kVmx = "/Users/robin/Virtual Machines.localized/";
const std::string kUbuntuPvm = kPvm + "Ubuntu 22.04.pvm";                          // stopped
const std::string kXpPvm = kPvm + "Windows XP.pvm";                                // running
const std::string kServerPvm = kPvm + "Windows Server 2008.pvm";                   // suspended
const std::string kWin7Vmx = kVmx + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx";    // running
const std::string kUbuntuVmx = kVmx + "Ubuntu 64-bit.vmwarevm/Ubuntu 64-bit.vmx";  // suspended
const std::string kMacVmx = kVmx + "macOS 10.15.vmwarevm/macOS 10.15.vmx";         // off
const std::string kDebianVbox = kVbox + "Debian 12/Debian 12.vbox";                // off
const std::string kUbuntuVbox = kVbox + "Ubuntu 22.04 Server/Ubuntu 22.04 Server.vbox";  // running

class VmCommands : public testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }

    ProcessResult Implvm(std::vector<std::string> args) {
        args.insert(args.begin(), {"--root", mac_.root()});
        return implvm_test::Implvm(args);
    }

    // Every VM's "State" as the inventory reports it, or its failure code.
    std::map<std::string, int> States() {
        const Json document = Json::parse(Implvm({"inventory", "--json"}).out);
        std::map<std::string, int> byId;
        for (const Json& section : document["hypervisors"])
            for (const Json& vm : section["vms"])
                byId[vm["id"].get<std::string>()] = vm["info"]["result"] < 0
                                                        ? vm["info"]["result"].get<int>()
                                                        : vm["info"]["outputs"]["State"].get<int>();
        return byId;
    }

    implvm_test::TestMachine mac_;
};

// One after another on one Mac; each row names the VM's state after it, and
// no other VM changes.
TEST_F(VmCommands, ActionsChangeTheVmAndSayWhatHappened) {
    std::map<std::string, int> expected = States();
    const std::string pd = "Parallels Desktop 18.3.2, ", vf = "VMware Fusion 13.5.0, ",
                      vb = "VirtualBox 7.0.14, ", pd9 = "ImplVirtualMachine_Parallels_9_X_",
                      vf1 = "VirtualMachineImpl_VmWareFusion1_",
                      vf4 = "VirtualMachineImpl_VmWareFusion4_",
                      vb4 = "VirtualMachineImpl_VirtualBox_4_X_";
    const struct {
        std::vector<std::string> args;
        std::string id;  // the VM whose state is checked
        int after;
        std::string line;  // standard output without "answered 0)\n"
    } rows[] = {
        // clang-format off
        {{"start", "Debian 12"}, kDebianVbox, 1, "Debian 12: started (" + vb + vb4 + "StartVM"},
        {{"stop", kUbuntuVbox}, kUbuntuVbox, 3, kUbuntuVbox + ": stopped (" + vb + vb4 + "StopVM"},
        {{"pause", "Debian 12"}, kDebianVbox, 2, "Debian 12: paused (" + vb + vb4 + "PauseVM"},
        {{"suspend", kWin7Vmx}, kWin7Vmx, 2, kWin7Vmx + ": suspended (" + vf + vf1 + "SuspendVM"},
        {{"snapshot", "take", kWin7Vmx, "Before update"}, kWin7Vmx, 2,
         kWin7Vmx + ": took snapshot \"Before update\" (" + vf + vf4 + "AddSnapshot"},
        {{"snapshot", "delete", kWin7Vmx, "Clean install"}, kWin7Vmx, 2,
         kWin7Vmx + ": deleted snapshot \"Clean install\" (" + vf + vf4 + "DeleteSnapshot"},
        {{"start", kUbuntuVmx}, kUbuntuVmx, 1, kUbuntuVmx + ": started (" + vf + vf1 + "StartVM"},
        {{"stop", kMacVmx}, kMacVmx, 3, kMacVmx + ": stopped (" + vf + vf1 + "StopVM"},
        {{"start", kUbuntuPvm}, kUbuntuPvm, 1, kUbuntuPvm + ": started (" + pd + pd9 + "StartVM"},
        {{"suspend", kXpPvm + "/config.pvs"}, kXpPvm, 2,
         kXpPvm + "/config.pvs: suspended (" + pd + pd9 + "OperateVM"},
        {{"stop", kServerPvm + "/"}, kServerPvm, 3, kServerPvm + "/: stopped (" + pd + pd9 + "OperateVM"},
        // A VMware bundle, a VirtualBox UUID (braces and case as users paste
        // them), a display name no other VM has.
        {{"start", kVmx + "Windows 7 x64.vmwarevm"}, kWin7Vmx, 1,
         kVmx + "Windows 7 x64.vmwarevm: started (" + vf + vf1 + "StartVM"},
        {{"resume", "{BC31C968-BBB2-4BEA-B045-321F9F32E056}"}, kDebianVbox, 1,
         "{BC31C968-BBB2-4BEA-B045-321F9F32E056}: resumed (" + vb + vb4 + "ResumeVM"},
        {{"suspend", "Ubuntu 64-bit"}, kUbuntuVmx, 2, "Ubuntu 64-bit: suspended (" + vf + vf1 + "SuspendVM"},
        // clang-format on
    };
    for (const auto& row : rows) {
        const ProcessResult r = Implvm(row.args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.out, row.line + " answered 0)\n");
        EXPECT_EQ(r.err, "");
        expected[row.id] = row.after;
    }
    EXPECT_EQ(States(), expected);
    const ProcessResult list = Implvm({"snapshot", "list", kWin7Vmx});
    EXPECT_EQ(list.exitCode, 0);
    EXPECT_EQ(list.out, kWin7Vmx + ": 2 snapshots (" + vf + vf4 +
                            "ListSnapshots answered 0)\n  Service Pack 1\n  Before update\n");
}

// Refused and failed commands say why in one line and change nothing.
TEST_F(VmCommands, RefusalsSayWhyAndChangeNothing) {
    const std::map<std::string, int> expected = States();
    ASSERT_EQ(Implvm({"snapshot", "take", kMacVmx, "a"}).exitCode, 0);
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::string error;  // the line on standard error, as a pattern
    } rows[] = {
        // clang-format off
        {{"pause", kWin7Vmx}, 2, "VMware Fusion 13.5.0 cannot pause: the module's methods for its VMs "
                                 "offer start, stop, suspend, snapshot take, snapshot delete, snapshot list"},
        {{"suspend", "Debian 12"}, 2, "VirtualBox 7.0.14 cannot suspend: the module's methods for "
                                      "its VMs offer start, stop, pause, resume"},
        {{"snapshot", "take", kUbuntuPvm, "s"}, 2, "Parallels Desktop 18.3.2 cannot take snapshot: .*"},
        {{"start", "Windows 95"}, 2, "no VM 'Windows 95' on this Mac: .*"},
        {{"snapshot", "take", kWin7Vmx}, 2, "snapshot take: NAME is required \\(see implvm help snapshot take\\)"},
        // Why, in the tool's own words.
        {{"pause", "Debian 12"}, 1, "Debian 12: could not pause: failed; VBoxManage: error: Machine 'Debian 12' "
                                    "is not currently running \\(VirtualBox 7.0.14, "
                                    "VirtualMachineImpl_VirtualBox_4_X_PauseVM answered -1\\)"},
        {{"snapshot", "delete", kWin7Vmx, "nope"}, 1, ".*: could not delete snapshot \"nope\": the VM, its "
            "configuration file or the snapshot cannot be found or opened; vmrun: Error: The snapshot "
            "does not exist \\(.* answered -6\\)"},
        // Off and unchanged since its last snapshot.
        {{"snapshot", "take", kMacVmx, "b"}, 1, ".*nothing changed since the last snapshot.*"},
        // clang-format on
    };
    for (const auto& row : rows) {
        const ProcessResult r = Implvm(row.args);
        EXPECT_EQ(r.exitCode, row.exitCode) << row.error;
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(std::regex_match(r.err, std::regex("implvm: " + row.error + "\n"))) << r.err;
    }
    EXPECT_EQ(States(), expected);

    // A second machine of the same name: the name no longer picks one.
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
