// VMware Fusion: the VM library of Fusion 1-4 and 5, the .vmx reader, and the
// power actions and snapshots through vmrun.
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::Json;
using Runs = std::vector<std::vector<std::string>>;

namespace {

const std::string kHome = "/Users/ann";
const std::string kPrefs = kHome + "/Library/Preferences/com.vmware.fusion.plist";
const std::string kInventory = kHome + "/Library/Application Support/VMware Fusion/vmInventory";
const std::string kBundle = kHome + "/VMs/Win.vmwarevm";
const std::string kVmx = kBundle + "/Win.vmx";

std::string Vmx(const std::string& guest, const std::string& more = "") {
    return "displayName = \"VM " + guest + "\"\nguestOS = \"" + guest + "\"\n" + more;
}

class VmWare : public ::testing::Test {
protected:
    VmWare() { mac.setConsoleUser("ann", 501, kHome); }
    implvm_test::TestMachine mac;

    static void Failpoint(const std::string& spec) {
        if (spec.empty())
            KALDO::CFailpoints::Clear();
        else
            ASSERT_EQ(KALDO::CFailpoints::Set(spec), 0) << spec;
    }
    // The last code the call recorded against the adapter's file (0: none).
    static int AdapterError(const std::vector<KALDO::ErrorRecord>& errors) {
        auto own = implvm_test::ErrorsFrom(errors, "ImplVirtualMachine_VmWare.cpp");
        return own.empty() ? 0 : own.back().code;
    }
};

TEST_F(VmWare, Fusion1Library) {
    const std::string older =
        "<key>VMFavoritesListDefaults</key><array><string>/v/A.vmx</string>"
        "<string></string><string>/v/B.vmwarevm</string>";
    const std::string newer =
        "<key>VMFavoritesListDefaults2</key><array><dict><key>path</key>"
        "<string>/v/C.vmx</string></dict>";
    const struct {
        std::string failpoint, dict;
        int code;  // of GetAllVms; EnumerateVMs publishes what it gathered and returns 0
        std::vector<std::string> vms;
    } cases[] = {
        {"", older + "</array>", 0, {"/v/A.vmx", "", "/v/B.vmwarevm"}},
        {"",
         newer + "<dict><key>path</key><string>/v/D.vmx</string></dict></array>",
         0,
         {"/v/C.vmx", "/v/D.vmx"}},
        {"", older + "</array>" + newer + "</array>", 0, {"/v/A.vmx", "", "/v/B.vmwarevm"}},
        {"", "<key>VMFavoritesListDefaults</key><array/>" + newer + "</array>", 0, {}},
        {"", "<key>x</key><string>y</string>", 0, {}},
        {"", older + "<dict/></array>", -1, {"/v/A.vmx", "", "/v/B.vmwarevm"}},
        {"", newer + "<dict/></array>", -1, {"/v/C.vmx"}},
        {"", "", -1, {}},  // no preferences file
        {"GetCurrentLoggedInUserInfo=-32", "", -32, {}},
        {"ReadPlistFileToTypePropertyTree=-4", "", -4, {}},
    };
    for (const auto& c : cases) {
        mac.remove(kPrefs);
        if (!c.dict.empty() || !c.failpoint.empty())
            mac.writeFile(kPrefs, "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict>" +
                                      c.dict + "</dict></plist>\n");
        Failpoint(c.failpoint);
        KALDO::CErrorInfo::clearErrors();
        std::vector<std::wstring> vms;
        EXPECT_EQ(VirtualMachineImpl_VmWareFusion1_GetAllVms(vms), c.code) << c.dict;
        EXPECT_EQ(AdapterError(KALDO::CErrorInfo::getErrors()), c.code) << c.dict;
        auto r = Call(VirtualMachineImpl_VmWareFusion1_EnumerateVMs);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, (Json{{"VMs", c.vms}})) << c.dict;
    }
}

TEST_F(VmWare, Fusion5Inventory) {
    // An empty entry is stepped over; a path that also stands earlier in the
    // text (index0.id) is met twice, since the scan resumes after its first
    // occurrence; an unterminated last entry ends the scan.
    mac.writeFile(kInventory, "vmlist1.config = \"" + kVmx + "\"\nvmlist2.Config = \"\"\n" +
                                  "vmlist3.config = \"/v/U.vmx\"\nindex0.id = \"" + kVmx +
                                  "\"\nvmlist4.config = \"" + kVmx + "\"\nvmlist5.config = \"/v");
    auto r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs, (Json{{"VMs", {kVmx, "/v/U.vmx", kVmx, kVmx}}}));

    mac.remove(kInventory);  // no Fusion 5 library: empty, nothing recorded
    r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
    EXPECT_EQ(r.outputs, (Json{{"VMs", Json::array()}}));
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(r.errors.empty());

    for (int code : {-2, -4}) {  // the user lookup's code as it is
        Failpoint("GetCurrentLoggedInUserInfo=" + std::to_string(code));
        r = Call(VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs);
        EXPECT_EQ(r.result, code);
        EXPECT_EQ(AdapterError(r.errors), code);
        EXPECT_TRUE(r.outputs.empty());
    }
}

TEST_F(VmWare, GuestOsTable) {
    // clang-format off
    const std::tuple<std::string, std::string, int> cases[] = {
        {"winnt", "Windows NT", 3}, {"winnt4", "Unknown OS", 0}, {"win2000AdvServ", "Windows 2000", 3},
        {"winxppro-64", "Windows XP x64 Edition", 3}, {"winxphome", "Windows XP", 3},
        {"windows7srv-64", "Windows Server 2008 R2", 3}, {"windows7-64", "Windows 7", 3},
        {"windows8srv-64", "Windows Server 2012", 3}, {"centos-64", "Cent OS", 1},
        {"sles11", "Suse Linux Enterprise", 1}, {"other26xlinux-64", "Linux 2.6", 1},
        {"otherlinux", "Unknown OS", 0}, {"darwin10-64", "Mac OS X", 2}, {"vmkernel5", "VMware ESX", 0},
    };
    // clang-format on
    for (const auto& [guest, name, type] : cases) {
        mac.writeFile(kVmx, Vmx(guest));
        auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", kVmx}}, "3.1.2");
        EXPECT_EQ(r.outputs, (Json{{"UserFriendlyName", "VM " + guest},
                                   {"OS", {{"Type", type}, {"Distribution", name}}},
                                   {"State", 3}}));
    }
}

TEST_F(VmWare, PowerState) {
    const std::string on = "VMAutomation_Pause: pause = TRUE\n";
    const std::string off = "VMAutomation_Pause: pause = FALSE\n";
    const std::string ps = "  PID COMMAND\n 77 vmware-vmx " + kVmx + "\n";
    const struct {
        std::string version, name, vmx, ps, log, files;
        int state;
    } cases[] = {
        {"5.0.3", kVmx, Vmx("ubuntu", "vmState = \"Win.vmss\"\n"), "", "", "", 2},
        {"5.0.3", kVmx, Vmx("ubuntu", "vmState = \"off\"\n"), "", "", "", 3},
        {"5.0.3", kVmx, Vmx("ubuntu"), "  PID COMMAND\n 5 vmware-vmx /v/U.vmx\n", "", "", 3},
        {"5.0.3", kVmx, Vmx("ubuntu"), ps, "start\n", "", 1},
        {"5.0.3", kVmx, Vmx("ubuntu"), ps, on + off, "", 1},
        {"6.0", kVmx, Vmx("ubuntu"), ps, on + off + on, "", 2},
        {"4.1", kBundle, Vmx("ubuntu"), ps, on, "", 2},
        {"5.0.3", kVmx, "displayName = \"W\"\r\nguestOS = \"ubuntu\"\r\nvmState = \"\"\r\n", ps,
         off + on, "", 2},
        {"3.1.2", kVmx, Vmx("ubuntu"), "", "", "Win.vmem.lck/x", 3},
        {"3.1.2", kVmx, Vmx("ubuntu"), "", "", "Win.vmem", 2},
        {"", kBundle, Vmx("ubuntu"), "", "", "Win.vmem", 2},  // no version: below Fusion 4
    };
    for (const auto& c : cases) {
        mac.remove(kBundle);
        mac.writeFile(kVmx, c.vmx);
        mac.installTool("/bin/ps").respond(c.ps);
        if (!c.log.empty()) mac.writeFile(kBundle + "/vmware.log", "x\n" + c.log + "y\n");
        if (!c.files.empty()) mac.writeFile(kBundle + "/" + c.files, "");
        auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", c.name}}, c.version);
        EXPECT_EQ(r.outputs["State"], c.state) << c.version << " " << c.vmx << c.log;
    }
    mac.writeFile(kBundle + "/Win.vmem.lck/x", "");  // with memory and lock: running
    auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMInfo, {{"Name", kVmx}}, "3.1.2");
    EXPECT_EQ(r.outputs["State"], 1);
}

TEST_F(VmWare, NetworkAdapters) {
    const auto adapter = [](const std::string& name, int type, int connected) {
        Json a = {{"Name", name}};
        if (type) a["Type"] = type;
        a["IsConnected"] = connected;
        a["MacAddress"] = "";
        return a;
    };
    const std::pair<std::string, Json> cases[] = {
        {"ethernet0.present = \"FALSE\"\nethernet1.present = \"TRUE\"\n"
         "ethernet1.connectionType = \"bridged\"\nethernet1.startConnected = \"FALSE\"\n"
         "ethernet2.present = \"yes\"\nethernet2.connectionType = \"nat\"\n"
         "ethernet3.present = \"TRUE\"\nethernet3.connectionType = \"custom\"\n"
         "ethernet5.present = \"TRUE\"\n",
         {adapter("Network 2", 2, 0), adapter("Network 3", 1, 1), adapter("Network 4", 0, 1)}},
        {"ethernet0.present = \"TRUE\"\nethernet0.connectionType = \"hostonly\"\n",
         Json::array({adapter("Network", 3, 1)})},
        {"ethernet1.present = \"TRUE\"\n", nullptr},  // never typed: shown as null
    };
    for (const auto& [ethernet, networks] : cases) {
        mac.writeFile(kVmx, Vmx("ubuntu", ethernet));
        auto r = Call(VirtualMachineImpl_VmWareFusion1_GetVMNetwork, {{"Name", kVmx}}, "3.1");
        EXPECT_EQ(r.outputs, (Json{{"Networks", networks}})) << ethernet;
    }
}

TEST_F(VmWare, VmxLookupAndReaderFailures) {
    const std::string ps = " 9 vmware-vmx " + kVmx + "\n";
    const struct {
        std::string name, version, failpoint, vmx, ps, others;
        int code;
    } cases[] = {
        {kBundle, "", "", Vmx("winxp"), "", "", 0},
        {kBundle, "", "", "", "", "A", 0},                // the bundle's only .vmx
        {kBundle + "/Gone.vmx", "", "", "", "", "A", 0},  // the folder's only .vmx
        {"-", "", "", "", "", "", -1},                    // no Name input
        {"", "", "", "", "", "", -1},                     // a path that cannot be split
        {kBundle, "", "", "", "", "", -1},
        {kBundle + "/Gone.vmx", "", "ReadFromTextFile@" + kBundle + "/A.vmx=-4", "", "", "A", -4},
        {kBundle + "/Gone.vmx", "", "", "", "", "AB", -1},  // two .vmx: empty description
        {kVmx, "", "", "guestOS = \"winxp\"\n", "", "", -1},
        {kVmx, "", "", "displayName = \"W\"\nguestOS = \"\"\n", "", "", -1},
        {kVmx, "5.0", "", Vmx("winxp"), "", "", -1},  // empty process listing
        {kVmx, "5.0", "", Vmx("winxp"), ps, "", -1},  // no vmware.log
        {kVmx, "5.0", "ReadFromTextFile@" + kBundle + "/vmware.log=-32", Vmx("winxp"), ps, "", -32},
        {kVmx, "4.0", "", Vmx("winxp"), ps, "", -1},  // Fusion 4: the log inside the identifier
        {kVmx, "3.0", "GetDirectoryList=-4", Vmx("winxp"), "", "", -4},
    };
    for (const auto& c : cases) {
        mac.remove(kBundle);
        if (!c.vmx.empty()) mac.writeFile(kVmx, c.vmx);
        for (char other : c.others) mac.writeFile(kBundle + "/" + other + ".vmx", Vmx("winxp"));
        mac.installTool("/bin/ps").respond(c.ps);
        Failpoint(c.failpoint);
        const Json inputs = c.name == "-" ? Json::object() : Json{{"Name", c.name}};
        for (ImplVmMethod* method : {VirtualMachineImpl_VmWareFusion1_GetVMInfo,
                                     VirtualMachineImpl_VmWareFusion1_GetVMNetwork}) {
            auto r = Call(method, inputs, c.version);
            EXPECT_EQ(r.result, c.code) << c.name << c.failpoint << c.vmx;
            EXPECT_EQ(AdapterError(r.errors), c.code);
            EXPECT_EQ(r.outputs.empty(), c.code != 0);
        }
    }
}

TEST_F(VmWare, EndToEndThroughImplvm) {
    mac.writeFile(kVmx, Vmx("windows7-64"));
    mac.installTool("/bin/ps").respond(" 1 vmware-vmx " + kVmx + "\n");
    mac.writeFile(kBundle + "/vmware.log", "VMAutomation_Pause: pause = TRUE\n");
    auto run = implvm_test::RunProcess({IMPLVM_BIN, "--root", mac.root(), "call",
                                        "VirtualMachineImpl_VmWareFusion1_GetVMInfo", "--in",
                                        "Name=" + kVmx, "--product-version", "5.0.3"});
    EXPECT_EQ(Json::parse(run.out)["outputs"],
              (Json{{"UserFriendlyName", "VM windows7-64"},
                    {"OS", {{"Type", 3}, {"Distribution", "Windows 7"}}},
                    {"State", 2}}));
}

// ---- Power actions and snapshots ----
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
        mac.remove(kBundle);
        mac.writeFile(kVmx, "displayName = \"Win\"\nguestOS = \"winxppro\"\n");
        std::istringstream files(c.files);
        for (std::string f; files >> f;) mac.writeFile(kBundle + "/" + f, "");
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
