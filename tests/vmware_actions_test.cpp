// VMware Fusion: power actions and snapshots through vmrun.
#include <gtest/gtest.h>

#include <sstream>

#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::Json;
using Runs = std::vector<std::vector<std::string>>;

namespace {

const std::string kFolder = "/Users/ann/VMs/Win.vmwarevm";
const std::string kVmx = kFolder + "/Win.vmx";

class VmWareActions : public ::testing::Test {
protected:
    implvm_test::TestMachine mac;
    implvm_test::FakeTool* vmrun = nullptr;

    // A fresh vmrun that answers each run with the next of `outs` (exit
    // status 1 for an "Error" text, else 0), the last one repeating.
    void Vmrun(const std::vector<std::string>& outs, int exitCode = -1) {
        vmrun = &mac.installTool("/Applications/VMware Fusion.app/Contents/Library/vmrun");
        for (const std::string& out : outs)
            vmrun->respond(out, exitCode >= 0 ? exitCode : out.find("Error") != std::string::npos);
    }
    Runs Ran() const {
        Runs runs;
        for (const auto& run : vmrun->invocations()) runs.push_back(run.args);
        return runs;
    }
};

TEST_F(VmWareActions, VmrunAnswers) {
    const std::string unchanged =
        "Error: The state of the virtual machine has not changed since "
        "the last snapshot operation";
    const struct {
        int exitCode;
        std::string out;
        int power, snapshot;
    } cases[] = {
        {0, "Error: Cannot open VM", 0, 0},
        {1, "", 0, 0},
        {1, "Warning\nError: Cannot open VM", 0, 0},
        {1, " Error: Cannot lock VM", 0, 0},
        {1, "error: cannot open vm", 0, 0},
        {1, "Error: Cannot open VM: /x.vmx", -6, -6},
        {1, "Error: The virtual machine cannot be found", -6, -6},
        {1, "Error: Cannot lock VM", -32, -32},
        {1, "Error: Insufficient permissions", -1, 0},
        {1, "Error: A file by that name does not exist", -1, -6},
        {1, "Error: The snapshot does not exist", -1, -6},
        {1, "Error: The name does not uniquely identify one snapshot", -1, -4},
        {1, unchanged, -1, -5},
        {1, "Taking snapshot\n" + unchanged, 0, -5},
    };
    for (const auto& c : cases) {
        Vmrun({c.out}, c.exitCode);
        EXPECT_EQ(Call(VirtualMachineImpl_VmWareFusion1_StartVM, {{"Name", kVmx}}).result, c.power)
            << c.out;
        const Json snap = {{"Name", kVmx}, {"Snapshot", "s 1"}};
        auto r = Call(VirtualMachineImpl_VmWareFusion4_AddSnapshot, snap);
        EXPECT_EQ(r.result, c.snapshot) << c.out;
        EXPECT_EQ(implvm_test::ErrorsFrom(r.errors, "_VmWare.cpp").size(), c.snapshot ? 2u : 0u);
        EXPECT_EQ(Call(VirtualMachineImpl_VmWareFusion4_DeleteSnapshot, snap).result, c.snapshot);
        EXPECT_EQ(
            Ran(),
            (Runs{{"start", kVmx}, {"snapshot", kVmx, "s 1"}, {"deleteSnapshot", kVmx, "s 1"}}));
    }
}

TEST_F(VmWareActions, StopAndSuspendByState) {
    const auto stop = VirtualMachineImpl_VmWareFusion1_StopVM;
    const auto suspend = VirtualMachineImpl_VmWareFusion1_SuspendVM;
    const struct {
        ImplVmMethod* method;
        std::string files;  // Fusion 3: memory and lock files give the state
        std::vector<std::string> answers;
        Runs runs;
        int code;
    } cases[] = {
        {stop, "", {""}, {}, 0},
        {stop, "Win.vmem.lck/x Win.vmem", {""}, {{"stop", kVmx}}, 0},
        {stop, "Win.vmem", {""}, {{"start", kVmx}, {"stop", kVmx}}, 0},
        {stop, "Win.vmem", {"Error: Cannot lock VM"}, {{"start", kVmx}}, -32},
        {suspend, "Win.vmem", {""}, {}, 0},
        {suspend, "Win.vmem.lck/x Win.vmem", {""}, {{"suspend", kVmx}}, 0},
        {suspend, "", {""}, {{"start", kVmx}, {"suspend", kVmx}}, 0},
        {suspend, "", {"", "Error: Cannot open VM"}, {{"start", kVmx}, {"suspend", kVmx}}, -6},
    };
    for (const auto& c : cases) {
        mac.remove(kFolder);
        mac.writeFile(kVmx, "displayName = \"Win\"\nguestOS = \"winxppro\"\n");
        std::istringstream files(c.files);
        for (std::string f; files >> f;) mac.writeFile(kFolder + "/" + f, "");
        Vmrun(c.answers);
        EXPECT_EQ(Call(c.method, {{"Name", kVmx}}, "3.1.2").result, c.code) << c.files;
        EXPECT_EQ(Ran(), c.runs) << c.files;
    }
}

TEST_F(VmWareActions, FailuresBeforeVmrunAnswers) {
    mac.writeFile(kVmx, "guestOS = \"winxppro\"\n");  // no displayName: only StartVM works
    const Json name = {{"Name", kVmx}}, snap = {{"Name", kVmx}, {"Snapshot", "s"}};
    const struct {
        ImplVmMethod* method;
        Json inputs;
        std::string failpoint;
        int code;
    } cases[] = {
        {VirtualMachineImpl_VmWareFusion1_StartVM, Json::object(), "", -1},
        {VirtualMachineImpl_VmWareFusion1_StartVM, name, "", 0},
        {VirtualMachineImpl_VmWareFusion1_StartVM, name, "ExecuteSafeToText=-4", -4},
        {VirtualMachineImpl_VmWareFusion1_StopVM, Json::object(), "", -1},
        {VirtualMachineImpl_VmWareFusion1_StopVM, name, "", -1},
        {VirtualMachineImpl_VmWareFusion1_SuspendVM, name, "", -1},
        {VirtualMachineImpl_VmWareFusion4_AddSnapshot, name, "", KALDO::kNotFound},
        {VirtualMachineImpl_VmWareFusion4_DeleteSnapshot,
         {{"Snapshot", "s"}},
         "",
         KALDO::kNotFound},
        {VirtualMachineImpl_VmWareFusion4_AddSnapshot, snap, "ExecuteSafeToText=-32", -32},
        {VirtualMachineImpl_VmWareFusion4_DeleteSnapshot, snap, "ExecuteSafeToText=-2", -1},
        {VirtualMachineImpl_VmWareFusion4_ListSnapshots, Json::object(), "", KALDO::kNotFound},
        {VirtualMachineImpl_VmWareFusion4_ListSnapshots, name, "ExecuteSafeToText=-4", -4},
        {VirtualMachineImpl_VmWareFusion4_ListSnapshots, name, "ExecuteSafeToText=-2", -1},
    };
    for (const auto& c : cases) {
        Vmrun({""});
        if (c.failpoint.empty())
            KALDO::CFailpoints::Clear();
        else
            KALDO::CFailpoints::Set(c.failpoint);
        EXPECT_EQ(Call(c.method, c.inputs, "5.0.3").result, c.code) << c.inputs << c.failpoint;
        EXPECT_EQ(Ran().size(), c.code == 0 ? 1u : 0u);
    }
}

TEST_F(VmWareActions, ListSnapshots) {
    const struct {
        std::string out;
        int code;
        Json snapshots;
    } cases[] = {
        {"Total snapshots: 2\r\nsnap1\r\nsnap 2\r\n",
         0,
         {{{"Snapshot", "snap1"}}, {{"Snapshot", "snap 2"}}}},
        {"Total snapshots: 0\r\n", 0, Json::array()},
        {"Total snapshots: 2\nsnap1\nsnap2\n", 0, Json::array()},
        {"Error: Cannot open VM: x", -6, nullptr},
        {"Error: Cannot lock VM", -1, nullptr},
    };
    for (const auto& c : cases) {
        Vmrun({c.out}, 1);  // the exit status does not matter here
        auto r = Call(VirtualMachineImpl_VmWareFusion4_ListSnapshots, {{"Name", kVmx}});
        EXPECT_EQ(r.result, c.code) << c.out;
        EXPECT_EQ(r.outputs.contains("Snapshots") ? r.outputs["Snapshots"] : Json(), c.snapshots);
        EXPECT_EQ(Ran(), (Runs{{"listSnapshots", kVmx}}));
    }
}

}  // namespace
