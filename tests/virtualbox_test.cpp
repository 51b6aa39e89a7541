// The VirtualBox adapter with a fake VBoxManage playing showvminfo reports,
// one of an older generation (tests/data/virtualbox). The simulated Mac's
// end-to-end tests cover VirtualBox 7's reports and start, stop and pause.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "TestMachine.h"

namespace {

using implvm_test::Call;
using implvm_test::Json;
using Args = std::vector<std::string>;
using Codes = std::vector<int>;

const std::string kHome = "/Users/ann";
const std::string kApp = "/Applications/VirtualBox.app";
const std::string kTool = kApp + "/Contents/MacOS/VBoxManage";
const std::string kWin7 = kHome + "/VirtualBox VMs/Win7/Win7.vbox";
const std::string kUuid = "0b8e4f2a-6c1d-4e8b-9d3a-5f7e2c1b0a99";
const std::string kRunning = "State:           running (since 2024-03-01T10:00:00.000000000)\n";
const std::string kNat = "MAC: 0800271A2B3C, Attachment: NAT, Cable connected: on\n";

std::string Data(const std::string& name) {
    std::ifstream in(std::string(IMPLVM_SOURCE_DIR) + "/tests/data/virtualbox/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Report(const std::string& lines) {
    return "Name:            Win7\nGroups:          /\n" + lines + "Pointing Device: USB Tablet\n";
}

Json Nic(int n, int type) {
    return {{"Name", "Adapter " + std::to_string(n)},
            {"Type", type},
            {"IsConnected", 1},
            {"MacAddress", ""}};
}

Codes Recorded(const implvm_test::CallResult& r) {
    Codes codes;
    for (const auto& e : implvm_test::ErrorsFrom(r.errors, "ImplVirtualMachine_VirtualBox.cpp"))
        codes.push_back(e.code);
    EXPECT_EQ(codes.size(), r.errors.size()) << "a record names another file";
    return codes;
}

// A Mac with VirtualBox in /Applications and machine Win7 of this UUID.
struct VBoxMac {
    implvm_test::TestMachine mac;
    implvm_test::FakeTool& tool = mac.installTool(kTool);
    VBoxMac() {
        mac.setConsoleUser("ann", 501, kHome);
        mac.installApp(kApp, "org.virtualbox.app.VirtualBox", "4.3.12");
        mac.writeFile(kWin7, "<VirtualBox>\n  <Machine uuid=\"{" + kUuid + "}\" name=\"VM\">\n");
    }
};

TEST(VirtualBox, EnumeratesByTheLayoutOfTheMajorVersion) {
    const std::string dir = kHome + "/Library/VirtualBox/";
    const Json v3 = {dir + "Machines/WinXP/WinXP.xml", dir + "Machines/Debian/Debian.xml"};
    // clang-format off
    struct { std::string xml, version; Json vms; } const rows[] = {
        {Data("VirtualBox-3.2.xml"), "3.2.12", v3},
        {Data("VirtualBox-3.2.xml"), "", v3},  // no version record: read as 0
        {Data("VirtualBox-4.3.xml"), "4.3.12r93733", {kWin7, kHome + "/VirtualBox VMs/Ubuntu 22.04/Ubuntu 22.04.vbox"}},
        // Only a src that closes the element is cut out bare.
        {"<MachineEntry src=\"/x.vbox\" uuid=\"{1}\"/>", "5.0", {"/x.vbox\" uuid=\"{1}"}},
        {"", "4.3.12", Json::array()},  // no VirtualBox.xml: recorded
    };
    // clang-format on
    for (const auto& row : rows) {
        VBoxMac m;
        if (!row.xml.empty()) m.mac.writeFile(dir + "VirtualBox.xml", row.xml);
        const auto r = Call(VirtualMachineImpl_VirtualBox2_EnumerateVMs, {}, row.version);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, Json({{"VMs", row.vms}})) << row.version;
        EXPECT_EQ(Recorded(r), row.xml.empty() ? Codes{-1} : Codes{});
    }
}

TEST(VirtualBox, DescribesTheShowvminfoReport) {
    const std::string ok = Report(kRunning);
    // Networks null: no adapter. Name null: both methods fail, record it and
    // write nothing.
    // clang-format off
    struct { std::string report; const char* name; std::string os; int type, state; Json networks; int exit = 0; } const rows[] = {
        {Data("showvminfo-3.2-winxp.txt"), "WinXP", "Windows XP", 3, 2, {Nic(1, 1), Nic(2, 3)}},
        // The family table's word is spelt so; the state is cut at the next "(".
        {Report("Guest OS:        Xasndros 2\n" + kRunning), "Win7", "Xasndros 2", 1, 1, nullptr},
        {Report("Guest OS:        Xandros\nState:              (since x)\n"), "Win7", "Xandros", 0, 2, nullptr},
        // The state runs to the next "(" on any line; the adapters end at the
        // first number the report does not mention.
        {Report("State:           running\nVRDE:   off (x)\nNIC 1:           " + kNat + "NIC 3:           " + kNat), "Win7", "", 0, 1, {Nic(1, 1)}},
        {"Name:            \n" + kRunning, "", "", 0, 1, nullptr},  // blanks trim to ""
        {ok, nullptr, "", 0, 0, nullptr, 1},
        {"Name: \n" + kRunning, nullptr, "", 0, 0, nullptr},
        {"Name:    Win7\nState:   running\n", nullptr, "", 0, 0, nullptr},
        {ok + "NIC 1: \n", nullptr, "", 0, 0, nullptr},
        {ok + "NIC 1:   MAC: 0800271A2B3C, Cable connected: on\n", nullptr, "", 0, 0, nullptr},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.report);
        VBoxMac m;
        m.tool.respond(row.report, row.exit);
        const auto info = Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}});
        const auto net = Call(VirtualMachineImpl_VirtualBox2_GetVMNetwork, {{"Name", kWin7}});
        EXPECT_EQ(m.tool.invocations().at(0).args, (Args{"showvminfo", kUuid}));
        if (!row.name) {
            EXPECT_TRUE(info.outputs.empty() && net.outputs.empty() && net.result == -1);
            EXPECT_EQ(Recorded(net), (Codes{-1, -1}));
            continue;
        }
        const Json os = {{"Type", row.type}, {"Distribution", row.os}};
        EXPECT_EQ(info.outputs,
                  Json({{"UserFriendlyName", row.name}, {"OS", os}, {"State", row.state}}));
        EXPECT_EQ(net.outputs, Json({{"Networks", row.networks}}));
    }
}

TEST(VirtualBox, ActionsRunTheStandardToolOnlyAndJudgeFailuresByTheirText) {
    {
        VBoxMac m;
        EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox_4_X_ResumeVM, {{"Name", "Win 7"}}).result, 0);
        EXPECT_EQ(m.tool.invocations().at(0).args, (Args{"controlvm", "Win 7", "resume"}));
        // Installed elsewhere: found for descriptions, not for actions.
        m.mac.remove(kApp);
        const std::string elsewhere = "/Applications/Tools/VirtualBox.app";
        m.mac.installApp(elsewhere, "org.virtualbox.app.VirtualBox", "4.3.12");
        m.mac.installTool(elsewhere + "/Contents/MacOS/VBoxManage").respond(Report(kRunning));
        EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}}).result, 0);
        const auto r = Call(VirtualMachineImpl_VirtualBox_4_X_StartVM, {{"Name", "Win7"}});
        EXPECT_EQ(Recorded(r), (Codes{-1, -1}));
    }
    const std::string invalid =
        "VBoxManage: error: Machine in invalid state 1 -- powered off\n"
        "VBoxManage: error: Details: code VBOX_E_INVALID_VM_STATE\n";
    // clang-format off
    struct { std::string out, err; int exit, code; } const rows[] = {
        {"", "ERROR: Error: Cannot lock VM\n", 1, 0},  // no lower-case "error"
        {"VBOX_E_INVALID_VM_STATE error\n", "", 0, 0},
        {"", "Error: Cannot lock VM\n" + invalid, 1, -4},
        {"", "error: Error: Cannot lock VM\n", 1, -32},
        {"error: Error: Cannot open VM\n", "", 2, -6},
        {"", "VBoxManage: error: Invalid machine\n", 1, -1},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.out + row.err);
        VBoxMac m;
        m.tool.respond(row.out, row.exit, row.err);
        const auto r = Call(VirtualMachineImpl_VirtualBox_4_X_PauseVM, {{"Name", "Win7"}});
        EXPECT_EQ(r.result, row.code);
        EXPECT_EQ(Recorded(r), (row.code < 0 ? Codes{row.code, row.code} : Codes{}));
    }
}

}  // namespace
