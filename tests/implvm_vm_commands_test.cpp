// implvm's VM commands end to end, on copies of the simulated Mac: the one
// line each prints, its exit status, and the state the simulators leave.
#include <gtest/gtest.h>

#include <map>
#include <regex>

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
        // Names are VirtualBox's only; other VMs go by their identifiers.
        {{"start", "Windows 7 x64"}, 2, "no VM .*"},
        {{"snapshot", "take", kWin7Vmx}, 2, "NAME is required.*"},
        {{"pause", "Debian 12"}, 1, "Debian 12: could not pause: failed \\(VirtualBox 7.0.14, "
                                    "VirtualMachineImpl_VirtualBox_4_X_PauseVM answered -1\\)"},
        {{"snapshot", "delete", kWin7Vmx, "nope"}, 1, ".*: could not delete snapshot \"nope\": the VM, its "
            "configuration file or the snapshot cannot be found or opened \\(.* answered -6\\)"},
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
              "implvm: 'Debian 12' names 2 VirtualBox machines; give the settings file "
              "instead (implvm inventory lists it)\n");
}

}  // namespace
