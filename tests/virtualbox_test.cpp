// The VirtualBox adapter on a simulated Mac, with a fake VBoxManage playing
// showvminfo reports of three VirtualBox generations (tests/data/virtualbox).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "KALDO/Failpoints.h"
#include "TestMachine.h"

namespace {

using implvm_test::Call;
using implvm_test::Json;
using Args = std::vector<std::string>;

const std::string kHome = "/Users/ann";
const std::string kApp = "/Applications/VirtualBox.app";
const std::string kTool = kApp + "/Contents/MacOS/VBoxManage";
const std::string kXml = kHome + "/Library/VirtualBox/VirtualBox.xml";
const std::string kWin7 = kHome + "/VirtualBox VMs/Win7/Win7.vbox";
const std::string kNoUuid = kHome + "/VirtualBox VMs/Bad/Bad.vbox";

std::string Data(const std::string& name) {
    std::ifstream in(std::string(IMPLVM_SOURCE_DIR) + "/tests/data/virtualbox/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
std::string Settings(const std::string& uuid) {
    return "<?xml version=\"1.0\"?>\n<VirtualBox version=\"1.12-macosx\">\n  <Machine uuid=\"{" +
           uuid + "}\" name=\"VM\" OSType=\"Other\" snapshotFolder=\"Snapshots\">\n";
}
// The lines the reader looks at, as VirtualBox prints them (value padded).
std::string Report(const std::string& lines) {
    return "Name:            Win7\nGroups:          /\n" + lines + "Pointing Device: USB Tablet\n";
}
const std::string kRunning = "State:           running (since 2024-03-01T10:00:00.000000000)\n";

// The codes the call recorded, all of them against the adapter's file.
std::vector<int> VBoxErrors(const implvm_test::CallResult& r) {
    std::vector<int> codes;
    for (const auto& e : implvm_test::ErrorsFrom(r.errors, "ImplVirtualMachine_VirtualBox.cpp"))
        codes.push_back(e.code);
    EXPECT_EQ(codes.size(), r.errors.size()) << "a record names another file";
    return codes;
}

// A Mac with VirtualBox in /Applications, machine Win7 and a settings file
// without UUID; made afresh per table row (a fake plays its answers in turn).
struct VBoxMac {
    implvm_test::TestMachine mac;
    implvm_test::FakeTool& tool = mac.installTool(kTool);
    explicit VBoxMac(const std::string& failpoint = "") {
        mac.setConsoleUser("ann", 501, kHome);
        mac.installApp(kApp, "org.virtualbox.app.VirtualBox", "4.3.12");
        mac.writeFile(kWin7, Settings("0b8e4f2a-6c1d-4e8b-9d3a-5f7e2c1b0a99"));
        mac.writeFile(kNoUuid, "<VirtualBox>\n  <Machine name=\"Bad\" OSType=\"Debian\">\n");
        EXPECT_EQ(KALDO::CFailpoints::Set(failpoint), 0);
    }
    ~VBoxMac() { KALDO::CFailpoints::Clear(); }
};

TEST(VirtualBox, EnumerateByLayoutAndItsFailures) {
    const std::string dir = kHome + "/Library/VirtualBox/";
    const Json v3 = {dir + "Machines/WinXP/WinXP.xml", dir + "Machines/Debian/Debian.xml"};
    const Json v4 = {kWin7, kHome + "/VirtualBox VMs/Ubuntu 22.04/Ubuntu 22.04.vbox"};
    const std::string v3Xml = Data("VirtualBox-3.2.xml"), v4Xml = Data("VirtualBox-4.3.xml");
    const struct {
        std::string xml, version, failpoint;
        Json vms;
        std::vector<int> codes;
    } rows[] = {
        {v3Xml, "3.2.12", "", v3, {}},
        {v4Xml, "4.3.12r93733", "", v4, {}},
        {v3Xml, "", "", v3, {}},  // no version record: read as 0
        // Only a src that closes the element is cut out bare.
        {"<MachineEntry src=\"/x.vbox\" uuid=\"{1}\"/>", "5.0", "", {"/x.vbox\" uuid=\"{1}"}, {}},
        {"<MachineRegistry/>\n", "4.3.12", "", Json::array(), {}},
        {"", "4.3.12", "", Json::array(), {-1}},  // no VirtualBox.xml
        {v4Xml, "4.3.12", "GetCurrentLoggedInUserInfo=-4", Json::array(), {-4}},
        {v4Xml, "4.3.12", "ReadFromTextFile=-32", Json::array(), {-32}},
        {v4Xml, "4.3.12", "ParseSubstringFromStringEx=-3", Json::array(), {-1}},
    };
    for (const auto& row : rows) {
        VBoxMac m(row.failpoint);
        if (!row.xml.empty()) m.mac.writeFile(kXml, row.xml);
        const auto r = Call(VirtualMachineImpl_VirtualBox2_EnumerateVMs, {}, row.version);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, Json({{"VMs", row.vms}})) << row.version << row.failpoint;
        EXPECT_EQ(VBoxErrors(r), row.codes) << row.failpoint;
    }
}

Json Nic(int n, int type, int connected) {
    return {{"Name", "Adapter " + std::to_string(n)},
            {"Type", type},
            {"IsConnected", connected},
            {"MacAddress", ""}};
}

TEST(VirtualBox, DescribesReportsOfThreeGenerations) {
    const struct {
        std::string report, uuid, name, os;
        int type, state;
        Json networks;
    } rows[] = {
        // clang-format off
        {"showvminfo-3.2-winxp.txt", "9a7d4c21-3b5e-4f60-8e12-c4d5e6f7a8b9", "WinXP", "Windows XP",
         3, 2, {Nic(1, 1, 1), Nic(2, 3, 1)}},
        {"showvminfo-4.3-win7.txt", "0b8e4f2a-6c1d-4e8b-9d3a-5f7e2c1b0a99", "Win7", "Windows 7 (64-bit)",
         3, 3, {Nic(1, 1, 1), Nic(2, 2, 1)}},
        {"showvminfo-7.0-ubuntu.txt", "7f3c2a10-5d4e-4b8f-a1c2-3d4e5f60718a", "Ubuntu 22.04", "Ubuntu (64-bit)",
         1, 1, {Nic(2, 1, 1), Nic(3, 3, 1), Nic(4, 0, 0), Nic(5, 0, 0)}},
        // clang-format on
    };
    for (const auto& row : rows) {
        VBoxMac m;
        m.mac.writeFile(kWin7, Settings(row.uuid));
        m.tool.respond(Data(row.report));
        const auto info = Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}});
        const auto net = Call(VirtualMachineImpl_VirtualBox2_GetVMNetwork, {{"Name", kWin7}});
        const Json os = {{"Type", row.type}, {"Distribution", row.os}};
        EXPECT_EQ(info.outputs,
                  Json({{"UserFriendlyName", row.name}, {"OS", os}, {"State", row.state}}));
        EXPECT_EQ(net.outputs, Json({{"Networks", row.networks}})) << row.report;
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(net.result, 0);
        EXPECT_EQ(m.tool.invocations().at(1).args, (Args{"showvminfo", row.uuid}));
    }
}

TEST(VirtualBox, ReaderEdgesOfTheReport) {
    const std::string nat = "MAC: 0800271A2B3C, Attachment: NAT, Cable connected: on\n";
    const struct {
        std::string lines, os;
        int type, state;
        Json networks = nullptr;  // null: no adapter
    } rows[] = {
        // clang-format off
        {"Guest OS:        Xasndros 2\n" + kRunning, "Xasndros 2", 1, 1},
        {"Guest OS:        Xandros\nState:              (since x)\n", "Xandros", 0, 2},
        // No guest OS line; the state cut runs on to the next "(".
        {"State:           running\nVRDE:   off (x)\nNIC 2:           " + nat, "", 0, 1},
        {kRunning + "NIC 1:           " + nat + "NIC 3:           " + nat, "", 0, 1, {Nic(1, 1, 1)}},
        {kRunning + "NIC 1:     \nNIC 1 Rule(0):   name = ssh, Attachment: Bridged, x\n", "", 0, 1, {Nic(1, 2, 1)}},
        // clang-format on
    };
    for (const auto& row : rows) {
        VBoxMac m;
        m.tool.respond(Report(row.lines));
        const auto info = Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}});
        const Json os = {{"Type", row.type}, {"Distribution", row.os}};
        EXPECT_EQ(info.outputs,
                  Json({{"UserFriendlyName", "Win7"}, {"OS", os}, {"State", row.state}}));
        const auto net = Call(VirtualMachineImpl_VirtualBox2_GetVMNetwork, {{"Name", kWin7}});
        EXPECT_EQ(net.outputs.at("Networks"), row.networks) << row.lines;
    }
    VBoxMac m;  // a name of blanks is not missing: it trims to an empty name
    m.tool.respond("Name:            \n" + kRunning);
    EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}})
                  .outputs.at("UserFriendlyName"),
              "");
}

TEST(VirtualBox, DescriptionFailuresWriteNothing) {
    const std::string ok = Report(kRunning);
    const struct {
        std::string remove, failpoint, name, report;
        int exit;
        std::vector<int> codes;
    } rows[] = {
        {kApp, "", kWin7, ok, 0, {-1, -1}},
        {"", "LS_GetAppPathByAppId=-4", kWin7, ok, 0, {-4, -4}},
        {"", "", kHome + "/gone.vbox", ok, 0, {-1, -1}},
        {"", "ReadFromTextFile=-32", kWin7, ok, 0, {-32, -32}},
        {"", "", kNoUuid, ok, 0, {-1, -1}},
        {kTool, "", kWin7, ok, 0, {-1, -1}},
        {"", "", kWin7, ok, 1, {-1, -1}},
        {"", "", kWin7, "Name: \n" + kRunning, 0, {-1, -1}},
        {"", "", kWin7, "Name:    Win7\nState:   running\n", 0, {-1, -1}},
        {"", "", kWin7, ok + "NIC 1: \n", 0, {-1, -1}},
        {"", "", kWin7, ok + "NIC 1:   MAC: 0800271A2B3C, Cable connected: on\n", 0, {-1, -1}},
        {"", "", "", ok, 0, {-1}},  // no "Name" input
    };
    for (const auto& row : rows) {
        for (auto* method : {VirtualMachineImpl_VirtualBox2_GetVMInfo,
                             VirtualMachineImpl_VirtualBox2_GetVMNetwork}) {
            SCOPED_TRACE(&row - rows);
            VBoxMac m(row.failpoint);
            m.tool.respond(row.report, row.exit);
            if (!row.remove.empty()) m.mac.remove(row.remove);
            const auto r =
                Call(method, row.name.empty() ? Json::object() : Json{{"Name", row.name}});
            EXPECT_EQ(r.result, row.codes.front());
            EXPECT_TRUE(r.outputs.empty());
            EXPECT_EQ(VBoxErrors(r), row.codes);
        }
    }
}

TEST(VirtualBox, PowerMethodsRunTheFixedToolWithTheirArguments) {
    const std::pair<ImplVmMethod*, Args> rows[] = {
        {VirtualMachineImpl_VirtualBox_4_X_StartVM, {"startvm", "Win 7"}},
        {VirtualMachineImpl_VirtualBox_4_X_StopVM, {"controlvm", "Win 7", "poweroff"}},
        {VirtualMachineImpl_VirtualBox_4_X_PauseVM, {"controlvm", "Win 7", "pause"}},
        {VirtualMachineImpl_VirtualBox_4_X_ResumeVM, {"controlvm", "Win 7", "resume"}},
    };
    for (const auto& [method, args] : rows) {
        VBoxMac m;
        EXPECT_EQ(Call(method, {{"Name", "Win 7"}}).result, 0);
        ASSERT_EQ(m.tool.invocations().size(), 1u);
        EXPECT_EQ(m.tool.invocations()[0].args, args);
    }
}

TEST(VirtualBox, PowerAnswersMapToCodes) {
    const std::string invalid =
        "VBoxManage: error: Machine in invalid state 1 -- powered off\n"
        "VBoxManage: error: Details: code VBOX_E_INVALID_VM_STATE\n";
    const struct {
        std::string failpoint, out, err;
        int exit, code;
    } rows[] = {
        {"", "", "", 1, 0},
        {"", "", "ERROR: Error: Cannot lock VM\n", 1, 0},  // no lower-case "error"
        {"", "VBOX_E_INVALID_VM_STATE error\n", "", 0, 0},
        {"", "", invalid, 1, -4},
        {"", "", "Error: Cannot lock VM\n" + invalid, 1, -4},
        {"", "", "error: Error: Cannot lock VM\n", 1, -32},
        {"", "", "error: Error: Cannot open VM\n", 1, -6},
        {"", "error: Error: The virtual machine cannot be found\n", "", 2, -6},
        {"", "", "VBoxManage: error: Invalid machine\n", 1, -1},
        {"ExecuteSafeToText=-32", "", "", 0, -32},
        {"ExecuteSafeToText=-7", "", "", 0, -1},
    };
    for (const auto& row : rows) {
        VBoxMac m(row.failpoint);
        m.tool.respond(row.out, row.exit, row.err);
        const auto r = Call(VirtualMachineImpl_VirtualBox_4_X_PauseVM, {{"Name", "Win7"}});
        EXPECT_EQ(r.result, row.code) << row.out << row.err << row.failpoint;
        const std::vector<int> recorded = {row.code, row.code};  // by the routine and the method
        EXPECT_EQ(VBoxErrors(r), row.code < 0 ? recorded : std::vector<int>{});
    }
    VBoxMac m;
    EXPECT_EQ(VBoxErrors(Call(VirtualMachineImpl_VirtualBox_4_X_StartVM)), std::vector<int>{-1});

    // Installed elsewhere: found for descriptions, not for actions.
    m.mac.remove(kApp);
    const std::string elsewhere = "/Applications/Tools/VirtualBox.app";
    m.mac.installApp(elsewhere, "org.virtualbox.app.VirtualBox", "4.3.12");
    m.mac.installTool(elsewhere + "/Contents/MacOS/VBoxManage").respond(Report(kRunning));
    EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}}).result, 0);
    const auto r = Call(VirtualMachineImpl_VirtualBox_4_X_StartVM, {{"Name", "Win7"}});
    EXPECT_EQ(VBoxErrors(r), (std::vector<int>{-1, -1}));
}

}  // namespace
