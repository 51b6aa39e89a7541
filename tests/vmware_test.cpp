// VMware Fusion: the VM library of Fusion 1-4 and 5, the state rules and the
// reader's failures, and vmrun's actions and answers. The corpus suite covers
// the guest-OS table, the adapters and the usual states.
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

TEST_F(VmWare, Fusion1LibraryFromEitherFavouritesForm) {
    const std::string prefs = kHome + "/Library/Preferences/com.vmware.fusion.plist";
    const std::string older =
        "<key>VMFavoritesListDefaults</key><array><string>/v/A.vmx</string><string></string>";
    const std::string newer =
        "<key>VMFavoritesListDefaults2</key><array><dict><key>path</key>"
        "<string>/v/C.vmx</string></dict>";
    // A bad entry fails the list; EnumerateVMs still publishes what came before.
    // clang-format off
    struct { std::string dict; int code; std::vector<std::string> vms; } const cases[] = {
        {newer + "</array>", 0, {"/v/C.vmx"}},
        {older + "</array>" + newer + "</array>", 0, {"/v/A.vmx", ""}},  // never merged
        {newer + "<dict/></array>", -1, {"/v/C.vmx"}},
        {"", -1, {}},  // no preferences file
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dict);
        mac.remove(prefs);
        if (!c.dict.empty())
            mac.writeFile(prefs, "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict>" + c.dict +
                                     "</dict></plist>\n");
        auto r = Call(VirtualMachineImpl_VmWareFusion1_EnumerateVMs);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(AdapterError(r.errors), c.code);
        EXPECT_EQ(r.outputs, (Json{{"VMs", c.vms}}));
    }
}

TEST_F(VmWare, Fusion5InventoryMeetsARepeatedPathAgain) {
    // The scan resumes after a path's first occurrence, so one that also
    // stands earlier (index0.id) is met twice; an unterminated entry ends it.
    const std::string inventory = kHome + "/Library/Application Support/VMware Fusion/vmInventory";
    mac.writeFile(inventory, "vmlist1.config = \"" + kVmx + "\"\nvmlist2.Config = \"\"\n" +
                                 "vmlist3.config = \"/v/U.vmx\"\nindex0.id = \"" + kVmx +
                                 "\"\nvmlist4.config = \"" + kVmx + "\"\nvmlist5.config = \"/v");
    auto r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
    EXPECT_EQ(r.outputs, (Json{{"VMs", {kVmx, "/v/U.vmx", kVmx, kVmx}}}));
    mac.remove(inventory);
    r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
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
        {"5.0.3", kVmx, kVmxText + "vmState = \"off\"\n", ps, on, "", "", 3},
        {"3.1.2", kVmx, kVmxText, "", "", "Win.vmem.lck/x", "", 3},  // a lock without memory
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

TEST_F(VmWare, AdaptersKeepTheirNumbersPastAbsentOnes) {
    // "FALSE" ones are skipped, the first index without "present" ends them;
    // the corpus has no "FALSE" adapter before a present one.
    mac.writeFile(kVmx, kVmxText + R"(ethernet0.present = "FALSE"
ethernet1.present = "TRUE"
ethernet1.connectionType = "bridged"
ethernet1.startConnected = "FALSE"
ethernet2.present = "yes"
ethernet3.present = "TRUE"
ethernet5.present = "TRUE"
)");
    auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", kVmx}}, "3.1");
    EXPECT_EQ(r.outputs, Json::parse(R"({"Networks": [
        {"Name": "Network 2", "Type": 2, "IsConnected": 0, "MacAddress": ""},
        {"Name": "Network 3", "IsConnected": 1, "MacAddress": ""},
        {"Name": "Network 4", "IsConnected": 1, "MacAddress": ""}]})"));
}

// The adapter keys are read in one pass, yet as each key alone would be: its
// first occurrence anywhere (inside a longer key or a value too), letters in
// any case, the number only as plain decimal, up to the quote ending a line.
TEST_F(VmWare, AdapterKeysAsTheirFirstOccurrence) {
    // clang-format off
    struct { std::string keys; const char* networks; } const rows[] = {
        {"ETHERNET0.Present = \"TRUE\"\nEthernet0.CONNECTIONTYPE = \"nat\"\n",
         R"([{"Name": "Network", "Type": 1, "IsConnected": 1, "MacAddress": ""}])"},
        {"x.ethernet0.present = \"TRUE\"\nethernet0.present = \"FALSE\"\n",
         R"([{"Name": "Network", "IsConnected": 1, "MacAddress": ""}])"},
        {"ethernet0.present = \"\"\nethernet0.present = \"TRUE\"\n", "null"},
        {"ethernet00.present = \"TRUE\"\nethernet01.present = \"TRUE\"\n", "null"},
        {"annotation = \"ethernetethernet0.present = \"TRUE\"\n", R"([{"Name": "Network", "IsConnected": 1, "MacAddress": ""}])"},
        {"ethernet0.present = \"TRUE\"\nethernet0.startConnected = \"FALSE\r\n"
         "ethernet1.present = \"TRUE\"\r\nethernet1.connectionType = \"hostonly\"",
         R"([{"Name": "Network", "IsConnected": 1, "MacAddress": ""},
             {"Name": "Network 2", "IsConnected": 1, "MacAddress": ""}])"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.keys);
        mac.writeFile(kVmx, kVmxText + row.keys);
        const auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", kVmx}}, "3.1");
        EXPECT_EQ(r.outputs.value("Networks", Json()), Json::parse(row.networks));
    }
}

TEST_F(VmWare, VmrunAnswersOfAFailingExit) {
    const std::string unchanged =
        "Error: The state of the virtual machine has not changed since the last snapshot operation";
    // clang-format off
    struct { int exitCode; std::string out; int power, snapshot; } const cases[] = {
        {0, "Error: Cannot open VM", 0, 0},
        {1, "Warning\nError: Cannot open VM", 0, 0},  // the text must begin with it
        {1, "error: cannot open vm", 0, 0},           // case-sensitive
        {1, "Error: Cannot open VM: /x.vmx", -6, -6},
        {1, "Error: Cannot lock VM", -32, -32},
        {1, "Error: Insufficient permissions", -1, 0},
        {1, "Error: The name does not uniquely identify one snapshot", -1, -4},
        {1, "Taking snapshot\n" + unchanged, 0, -5},  // anywhere in the text
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

// Any line end separates snapshots (the corpus shows LF lists as a Mac's
// vmrun prints them); the header alone is an empty list.
TEST_F(VmWare, ListSnapshotsAtEveryLineEnd) {
    const Json two = Json::parse(R"([{"Snapshot": "snap1"}, {"Snapshot": "snap 2"}])");
    // clang-format off
    struct { std::string out; int code; Json snapshots; } const cases[] = {
        {"Total snapshots: 2\nsnap1\r\nsnap 2", 0, two},
        {"Total snapshots: 2\r\nsnap1\rsnap 2\r\n", 0, two},
        {"Total snapshots: 0\n", 0, Json::array()},
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
