// VMware Fusion, what the adapter collects: the files and folders it reads,
// the process table, vmrun's runs and exits, and the error records the
// methods leave. What the texts say is the readers' (golden_vmware_test);
// the corpus suite runs real files through the methods.
#include <gtest/gtest.h>

#include <sstream>

#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::Json;
using Runs = std::vector<std::vector<std::string>>;

namespace {

const std::string kHome = "/Users/ann";
const std::string kBundle = kHome + "/VMs/Win.vmwarevm";
const std::string kVmx = kBundle + "/Win.vmx";
const std::string kVmxText = "displayName = \"W\"\nguestOS = \"ubuntu\"\n";

int AdapterError(const std::vector<KALDO::ErrorRecord>& errors) {
    auto own = implvm_test::ErrorsFrom(errors, "ImplVirtualMachine_VmWare.cpp");
    return own.empty() ? 0 : own.back().code;
}

class VmWare : public ::testing::Test {
protected:
    VmWare() { mac.setConsoleUser("ann", 501, kHome); }
    implvm_test::TestMachine mac;
    implvm_test::FakeTool* vmrun = nullptr;

    // Each run answers the next of `outs` (exit 1 for an "Error" text unless
    // exitCode says otherwise), the last one repeating.
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
    // Space-separated names in the bundle; a trailing "/x" makes a folder.
    void Files(const std::string& names) {
        std::istringstream in(names);
        for (std::string f; in >> f;)
            mac.writeFile(kBundle + "/" + f, f.ends_with(".vmx") ? kVmxText : "");
    }
};

// A bad entry fails the list; EnumerateVMs still publishes what came before.
TEST_F(VmWare, Fusion1LibraryPublishedUpToAFailure) {
    const std::string prefs = kHome + "/Library/Preferences/com.vmware.fusion.plist";
    const std::string damaged =
        "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict><key>VMFavoritesListDefaults2</key>"
        "<array><dict><key>path</key><string>/v/C.vmx</string></dict><dict/></array></dict></"
        "plist>\n";
    for (const auto& [content, vms] :
         {std::pair{damaged, Json::array({"/v/C.vmx"})}, std::pair{std::string(), Json::array()}}) {
        mac.remove(prefs);
        if (!content.empty()) mac.writeFile(prefs, content);  // else no preferences file
        auto r = Call(VirtualMachineImpl_VmWareFusion1_EnumerateVMs);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(AdapterError(r.errors), -1);
        EXPECT_EQ(r.outputs, (Json{{"VMs", vms}}));
    }
}

TEST_F(VmWare, Fusion5WithoutInventoryHasAnEmptyLibrary) {
    auto r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
    EXPECT_EQ(r.outputs, (Json{{"VMs", Json::array()}}));
    EXPECT_TRUE(r.result == 0 && r.errors.empty());
}

TEST_F(VmWare, StateRulesAndReaderFailures) {
    const std::string on = "VMAutomation_Pause: pause = TRUE\n";
    const std::string ps = "  PID COMMAND\n 77 vmware-vmx " + kVmx + "\n";
    const std::string readLog = "ReadFromTextFile@" + kBundle + "/vmware.log=-32";
    // clang-format off
    struct {
        std::string version, name, vmx, ps, log, files, failpoint;
        int expect;  // > 0: the state; else the code, with nothing written
    } const cases[] = {
        {"5.0.3", kVmx, kVmxText + "vmState = \"off\"\n", ps, on, "", "", 3},  // no log read
        {"5.0.3", kVmx, kVmxText, ps, on, "", "", 2},
        {"5.0.3", kVmx, kVmxText, "  PID COMMAND\n", on, "", "", 3},  // not in the process table
        {"5.0.3", kVmx, kVmxText, "", on, "", "", -1},  // no process table
        {"3.1.2", kVmx, kVmxText, ps, on, "Win.vmem.lck/x Win.vmem", "", 1},  // the folder, not the log
        {"", kBundle + "/Gone.vmx", "", "", "", "A.vmx", "", 3},  // the folder's only .vmx
        {"", kBundle + "/Gone.vmx", "", "", "", "A.vmx B.vmx", "", -1},  // which one cannot be told
        {"5.0", kVmx, kVmxText, ps, on, "", readLog, -32},
        {"4.0", kVmx, kVmxText, ps, on, "", "", -1},  // 4 looks inside the identifier
        {"3.0", kVmx, kVmxText, "", "", "", "GetDirectoryList=-4", -4},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version + " " + c.name + " " + c.vmx + c.log + c.files + c.failpoint);
        mac.remove(kBundle);
        if (!c.vmx.empty()) mac.writeFile(kVmx, c.vmx);
        mac.installTool("/bin/ps").respond(c.ps);
        if (!c.log.empty()) mac.writeFile(kBundle + "/vmware.log", "x\n" + c.log + "y\n");
        Files(c.files);
        ASSERT_EQ(KALDO::CFailpoints::Set(c.failpoint), 0);
        auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", c.name}}, c.version);
        EXPECT_EQ(r.result, std::min(c.expect, 0));
        EXPECT_EQ(AdapterError(r.errors), std::min(c.expect, 0));
        EXPECT_EQ(r.outputs.empty() ? 0 : r.outputs["State"].get<int>(), std::max(c.expect, 0));
    }
}

TEST_F(VmWare, VmrunAnswersOfAFailingExit) {
    // clang-format off
    struct { int exitCode; std::string out; int power, snapshot; } const cases[] = {
        {0, "Error: Cannot open VM", 0, 0},  // a clean exit is never judged
        {1, "Error: Insufficient permissions", -1, 0},
        {1, "Error: The name does not uniquely identify one snapshot", -1, -4},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.out);
        Vmrun({c.out}, c.exitCode);
        EXPECT_EQ(Call(VirtualMachineImpl_VmWareFusion1_StartVM, {{"Name", kVmx}}).result, c.power);
        const Json snap = {{"Name", kVmx}, {"Snapshot", "s 1"}};
        auto r = Call(VirtualMachineImpl_VmWareFusion4_AddSnapshot, snap);
        EXPECT_EQ(r.result, c.snapshot);
        EXPECT_EQ(implvm_test::ErrorsFrom(r.errors, "_VmWare.cpp").size(), c.snapshot ? 2u : 0u);
        EXPECT_EQ(Call(VirtualMachineImpl_VmWareFusion4_DeleteSnapshot, snap).result, c.snapshot);
        EXPECT_EQ(
            Ran(),
            (Runs{{"start", kVmx}, {"snapshot", kVmx, "s 1"}, {"deleteSnapshot", kVmx, "s 1"}}));
    }
}

TEST_F(VmWare, StopAndSuspendByState) {
    const auto stop = VirtualMachineImpl_VmWareFusion1_StopVM;
    const auto suspend = VirtualMachineImpl_VmWareFusion1_SuspendVM;
    // Fusion 3: the memory and lock files give the state.
    // clang-format off
    struct { ImplVmMethod* method; std::string files; std::vector<std::string> answers; Runs runs; int code; } const cases[] = {
        {stop, "", {""}, {}, 0},
        {stop, "Win.vmem.lck/x Win.vmem", {""}, {{"stop", kVmx}}, 0},
        {stop, "Win.vmem", {""}, {{"start", kVmx}, {"stop", kVmx}}, 0},
        {stop, "Win.vmem", {"Error: Cannot lock VM"}, {{"start", kVmx}}, -32},
        {suspend, "Win.vmem", {""}, {}, 0},
        {suspend, "Win.vmem.lck/x Win.vmem", {""}, {{"suspend", kVmx}}, 0},
        {suspend, "", {""}, {{"start", kVmx}, {"suspend", kVmx}}, 0},
        {suspend, "", {"", "Error: Cannot open VM"}, {{"start", kVmx}, {"suspend", kVmx}}, -6},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.files);
        mac.remove(kBundle);
        mac.writeFile(kVmx, kVmxText);
        Files(c.files);
        Vmrun(c.answers);
        EXPECT_EQ(Call(c.method, {{"Name", kVmx}}, "3.1.2").result, c.code);
        EXPECT_EQ(Ran(), c.runs);
    }
}

TEST_F(VmWare, ListSnapshotsWhateverTheExitStatus) {
    const Json two = Json::parse(R"([{"Snapshot": "snap1"}, {"Snapshot": "snap 2"}])");
    // clang-format off
    struct { std::string out; int code; Json snapshots; } const cases[] = {
        {"Total snapshots: 2\nsnap1\r\nsnap 2", 0, two},
        {"Error: Cannot open VM: x", -6, nullptr},
    };
    // clang-format on
    for (const auto& c : cases) {
        Vmrun({c.out}, 1);  // the exit status does not matter here
        auto r = Call(VirtualMachineImpl_VmWareFusion4_ListSnapshots, {{"Name", kVmx}});
        EXPECT_EQ(r.result, c.code) << c.out;
        EXPECT_EQ(r.outputs.contains("Snapshots") ? r.outputs["Snapshots"] : Json(), c.snapshots);
        EXPECT_EQ(Ran(), (Runs{{"listSnapshots", kVmx}}));
    }
}

}  // namespace
