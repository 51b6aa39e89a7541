// implvm's VM commands end to end, on copies of the simulated Mac: the one
// line each prints, its exit status, and the state the simulators leave.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::Json;
using implvm_test::ProcessResult;
using implvm_test::RunProcess;
using implvm_test::TestMachine;

namespace {

const std::string kParallelsDir = "/Users/robin/Parallels/";
const std::string kFusionDir = "/Users/robin/Virtual Machines.localized/";
const std::string kVBoxDir = "/Users/robin/VirtualBox VMs/";

const std::string kUbuntuPvm = kParallelsDir + "Ubuntu 22.04.pvm";                     // stopped
const std::string kXpPvm = kParallelsDir + "Windows XP.pvm";                           // running
const std::string kServerPvm = kParallelsDir + "Windows Server 2008.pvm";              // suspended
const std::string kWin7Vmx = kFusionDir + "Windows 7 x64.vmwarevm/Windows 7 x64.vmx";  // running
const std::string kUbuntuVmx =
    kFusionDir + "Ubuntu 64-bit.vmwarevm/Ubuntu 64-bit.vmx";                      // suspended
const std::string kMacVmx = kFusionDir + "macOS 10.15.vmwarevm/macOS 10.15.vmx";  // off
const std::string kDebianVbox = kVBoxDir + "Debian 12/Debian 12.vbox";            // off
const std::string kUbuntuVbox =
    kVBoxDir + "Ubuntu 22.04 Server/Ubuntu 22.04 Server.vbox";  // running

enum class Product { kParallels, kFusion, kVBox };

// The VM's "State" as the module reads it now, in this process (the test
// machine is the machine root here too).
int StateOf(Product product, const std::string& id) {
    ImplVmMethod* info = product == Product::kParallels ? VirtualMachineImpl_Parallels4_GetVMInfo
                         : product == Product::kFusion  ? VirtualMachineImpl_VmWareFusion1_GetVMInfo
                                                        : VirtualMachineImpl_VirtualBox2_GetVMInfo;
    const auto r = Call(info, {{"Name", id}}, product == Product::kFusion ? "13.5.0" : "");
    EXPECT_EQ(r.result, 0) << id;
    return r.outputs.value("State", 0);
}

class VmCommands : public testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }

    ProcessResult Implvm(std::vector<std::string> args) {
        args.insert(args.begin(), {IMPLVM_BIN, "--root", mac_.root()});
        return RunProcess(args, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
    }

    // Makes the installed product's bundle say `version`.
    void SetVersion(const std::string& app, const std::string& from, const std::string& to) {
        const std::string plist = "/Applications/" + app + "/Contents/Info.plist";
        std::string text = mac_.readFile(plist);
        text.replace(text.find("<string>" + from + "</string>"), from.size() + 17,
                     "<string>" + to + "</string>");
        mac_.writeFile(plist, text);
    }

    TestMachine mac_;
};

struct ActionCase {
    const char* name;
    std::vector<std::string> args;
    Product product;
    std::string id;  // the VM whose state is checked afterwards
    int stateBefore;
    int stateAfter;
    std::string line;  // what standard output says
};

class VmActions : public VmCommands, public testing::WithParamInterface<ActionCase> {};

TEST_P(VmActions, ChangeTheVmAndSayWhatHappened) {
    const ActionCase& c = GetParam();
    EXPECT_EQ(StateOf(c.product, c.id), c.stateBefore);
    const ProcessResult r = Implvm(c.args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, c.line + "\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(StateOf(c.product, c.id), c.stateAfter);
}

std::string Said(const std::string& vm, const std::string& what, const std::string& product,
                 const std::string& method) {
    return vm + ": " + what + " (" + product + ", " + method + " answered 0)";
}

const std::string kPd = "Parallels Desktop 18.3.2";
const std::string kVf = "VMware Fusion 13.5.0";
const std::string kVb = "VirtualBox 7.0.14";

INSTANTIATE_TEST_SUITE_P(
    Hypervisors, VmActions,
    testing::Values(
        ActionCase{"VirtualBoxStartByName",
                   {"start", "Debian 12"},
                   Product::kVBox,
                   kDebianVbox,
                   3,
                   1,
                   Said("Debian 12", "started", kVb, "VirtualMachineImpl_VirtualBox_4_X_StartVM")},
        ActionCase{"VirtualBoxStopBySettingsFile",
                   {"stop", kUbuntuVbox},
                   Product::kVBox,
                   kUbuntuVbox,
                   1,
                   3,
                   Said(kUbuntuVbox, "stopped", kVb, "VirtualMachineImpl_VirtualBox_4_X_StopVM")},
        ActionCase{"VirtualBoxPause",
                   {"pause", "Ubuntu 22.04 Server"},
                   Product::kVBox,
                   kUbuntuVbox,
                   1,
                   2,
                   Said("Ubuntu 22.04 Server", "paused", kVb,
                        "VirtualMachineImpl_VirtualBox_4_X_PauseVM")},
        ActionCase{"FusionSuspend",
                   {"suspend", kWin7Vmx},
                   Product::kFusion,
                   kWin7Vmx,
                   1,
                   2,
                   Said(kWin7Vmx, "suspended", kVf, "VirtualMachineImpl_VmWareFusion1_SuspendVM")},
        ActionCase{"FusionStartResumesASuspendedVm",
                   {"start", kUbuntuVmx},
                   Product::kFusion,
                   kUbuntuVmx,
                   2,
                   1,
                   Said(kUbuntuVmx, "started", kVf, "VirtualMachineImpl_VmWareFusion1_StartVM")},
        ActionCase{"FusionStopOfAStoppedVm",
                   {"stop", kMacVmx},
                   Product::kFusion,
                   kMacVmx,
                   3,
                   3,
                   Said(kMacVmx, "stopped", kVf, "VirtualMachineImpl_VmWareFusion1_StopVM")},
        ActionCase{"Parallels9Start",
                   {"start", kUbuntuPvm},
                   Product::kParallels,
                   kUbuntuPvm,
                   3,
                   1,
                   Said(kUbuntuPvm, "started", kPd, "ImplVirtualMachine_Parallels_9_X_StartVM")},
        ActionCase{"Parallels9SuspendByConfigFile",
                   {"suspend", kXpPvm + "/config.pvs"},
                   Product::kParallels,
                   kXpPvm,
                   1,
                   2,
                   Said(kXpPvm + "/config.pvs", "suspended", kPd,
                        "ImplVirtualMachine_Parallels_9_X_OperateVM")},
        ActionCase{
            "Parallels9Stop",
            {"stop", kServerPvm + "/"},
            Product::kParallels,
            kServerPvm,
            2,
            3,
            Said(kServerPvm + "/", "stopped", kPd, "ImplVirtualMachine_Parallels_9_X_OperateVM")}),
    [](const auto& param) { return std::string(param.param.name); });

struct RefusalCase {
    const char* name;
    std::vector<std::string> args;
    int exitCode;
    std::string error;  // the one line on standard error, as a pattern
};

class VmRefusals : public VmCommands, public testing::WithParamInterface<RefusalCase> {};

TEST_P(VmRefusals, SayWhyInOneLine) {
    const RefusalCase& c = GetParam();
    const ProcessResult r = Implvm(c.args);
    EXPECT_EQ(r.exitCode, c.exitCode);
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(std::regex_match(r.err, std::regex("implvm: " + c.error + "\n"))) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Errors, VmRefusals,
    testing::Values(
        RefusalCase{"FusionHasNoPause",
                    {"pause", kWin7Vmx},
                    2,
                    "VMware Fusion 13.5.0 cannot pause: the module's methods for its VMs offer "
                    "start, stop, suspend, snapshot take, snapshot delete, snapshot list"},
        RefusalCase{
            "FusionHasNoResume", {"resume", kWin7Vmx}, 2, "VMware Fusion 13.5.0 cannot resume: .*"},
        RefusalCase{"VirtualBoxHasNoSuspend",
                    {"suspend", "Debian 12"},
                    2,
                    "VirtualBox 7.0.14 cannot suspend: the module's methods for its VMs offer "
                    "start, stop, pause, resume"},
        RefusalCase{"NoSnapshotsOutsideFusion",
                    {"snapshot", "take", kUbuntuPvm, "s"},
                    2,
                    "Parallels Desktop 18.3.2 cannot take snapshot: .*"},
        RefusalCase{"UnknownVm", {"start", "Windows 95"}, 2, "no VM 'Windows 95' on this Mac: .*"},
        // Names are VirtualBox's only; other VMs go by their identifiers.
        RefusalCase{"FusionVmByItsName", {"start", "Windows 7 x64"}, 2, "no VM .*"},
        RefusalCase{
            "SnapshotNameRequired", {"snapshot", "take", kWin7Vmx}, 2, "NAME is required.*"},
        RefusalCase{"MethodFails",
                    {"pause", "Debian 12"},
                    1,
                    "Debian 12: could not pause: failed \\(VirtualBox 7.0.14, "
                    "VirtualMachineImpl_VirtualBox_4_X_PauseVM answered -1\\)"},
        RefusalCase{"SnapshotMissing",
                    {"snapshot", "delete", kWin7Vmx, "nope"},
                    1,
                    ".*: could not delete snapshot \"nope\": the VM, its configuration file or "
                    "the snapshot cannot be found or opened \\(.* answered -6\\)"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(VmCommands, RefusedActionsChangeNothing) {
    Implvm({"pause", kWin7Vmx});
    Implvm({"suspend", "Debian 12"});
    EXPECT_EQ(StateOf(Product::kFusion, kWin7Vmx), 1);
    EXPECT_EQ(StateOf(Product::kVBox, kDebianVbox), 3);
}

TEST_F(VmCommands, SnapshotsTakenListedAndDeleted) {
    const std::string how = " (" + kVf + ", VirtualMachineImpl_VmWareFusion4_";
    EXPECT_EQ(Implvm({"snapshot", "take", kWin7Vmx, "Before update"}).out,
              kWin7Vmx + ": took snapshot \"Before update\"" + how + "AddSnapshot answered 0)\n");
    EXPECT_EQ(
        Implvm({"snapshot", "delete", kWin7Vmx, "Clean install"}).out,
        kWin7Vmx + ": deleted snapshot \"Clean install\"" + how + "DeleteSnapshot answered 0)\n");
    const ProcessResult list = Implvm({"snapshot", "list", kWin7Vmx});
    EXPECT_EQ(list.exitCode, 0);
    EXPECT_EQ(list.out, kWin7Vmx + ": 2 snapshots" + how +
                            "ListSnapshots answered 0)\n  Service Pack 1\n  Before update\n");

    // A VM that is off and unchanged since its last snapshot: nothing to take.
    EXPECT_EQ(Implvm({"snapshot", "take", kMacVmx, "a"}).exitCode, 0);
    const ProcessResult again = Implvm({"snapshot", "take", kMacVmx, "b"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.err.find("nothing changed since the last snapshot"), std::string::npos);
    EXPECT_EQ(Implvm({"snapshot", "list", kMacVmx}).out,
              kMacVmx + ": 1 snapshot" + how + "ListSnapshots answered 0)\n  a\n");
}

// The inventory sees exactly the started VMs change, one of each hypervisor
// (a broken VM counts by its failure code).
TEST_F(VmCommands, InventoryShowsTheStartedVms) {
    const auto states = [this] {
        const Json document = Json::parse(Implvm({"inventory", "--json"}).out);
        std::map<std::string, int> byId;
        for (const Json& section : document["hypervisors"]) {
            for (const Json& vm : section["vms"]) {
                const Json& info = vm["info"];
                byId[vm["id"].get<std::string>()] = info["result"] < 0
                                                        ? info["result"].get<int>()
                                                        : info["outputs"]["State"].get<int>();
            }
        }
        return byId;
    };
    std::map<std::string, int> expected = states();
    for (const std::string& vm : {kUbuntuPvm, kMacVmx, kDebianVbox}) {
        ASSERT_EQ(Implvm({"start", vm}).exitCode, 0) << vm;
        expected[vm] = 1;
    }
    EXPECT_EQ(states(), expected);
}

// An older product gets the methods of its generation.
TEST_F(VmCommands, MethodsFollowTheInstalledVersion) {
    SetVersion("Parallels Desktop.app", "18.3.2", "8.0.18494");
    const ProcessResult start = Implvm({"start", kUbuntuPvm});
    EXPECT_EQ(start.out, Said(kUbuntuPvm, "started", "Parallels Desktop 8.0.18494",
                              "VirtualMachineImpl_Parallels4_StartVM") +
                             "\n");
    EXPECT_EQ(StateOf(Product::kParallels, kUbuntuPvm), 1);
    const ProcessResult stop = Implvm({"stop", kUbuntuPvm});
    EXPECT_EQ(stop.exitCode, 2);
    EXPECT_EQ(stop.err,
              "implvm: Parallels Desktop 8.0.18494 cannot stop: the module's methods for its VMs "
              "offer start\n");
}

}  // namespace
