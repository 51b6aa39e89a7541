// The VirtualBox adapter's collecting half: which files and tools each method
// reads and runs, and which failures it records, with a fake VBoxManage.
// What the texts say is the readers' part (golden_virtualbox_test); the
// simulated Mac's end-to-end tests cover VirtualBox 7 as a whole.
#include <gtest/gtest.h>

#include "KALDO/Failpoints.h"
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
const std::string kSettings = "<VirtualBox>\n  <Machine uuid=\"{" + kUuid + "}\" name=\"VM\">\n";
const std::string kReport = "Name:            Win7\nState:           running (since x)\n";

Codes Recorded(const implvm_test::CallResult& r) {
    return implvm_test::CodesFrom(r, "ImplVirtualMachine_VirtualBox.cpp");
}

// A Mac with VirtualBox in /Applications and machine Win7 of this UUID.
struct VBoxMac {
    implvm_test::TestMachine mac;
    implvm_test::FakeTool& tool = mac.installTool(kTool);
    VBoxMac() {
        mac.setConsoleUser("ann", 501, kHome);
        mac.installApp(kApp, "org.virtualbox.app.VirtualBox", "4.3.12");
        mac.writeFile(kWin7, kSettings);
    }
};

TEST(VirtualBox, EnumeratesByTheMajorVersionOfTheRecord) {
    const std::string xml = "<MachineEntry uuid=\"{1}\" src=\"Machines/WinXP/WinXP.xml\"/>\n";
    const Json relative = {kHome + "/Library/VirtualBox/Machines/WinXP/WinXP.xml"};
    // clang-format off
    struct { std::string xml, version, failpoint; Json vms; Codes codes; } const rows[] = {
        {xml, "3.2.12", "", relative, {}},
        {xml, "", "", relative, {}},  // no version record: read as 0
        {xml, "4.3.12r93733", "", {"Machines/WinXP/WinXP.xml"}, {}},
        {"", "4.3.12", "", Json::array(), {-1}},  // no VirtualBox.xml
        {xml, "4.3.12", "ParseSubstringFromStringEx@src=\"=-32", Json::array(), {-32}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.version + " " + row.failpoint);
        VBoxMac m;
        if (!row.xml.empty())
            m.mac.writeFile(kHome + "/Library/VirtualBox/VirtualBox.xml", row.xml);
        ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        const auto r = Call(VirtualMachineImpl_VirtualBox2_EnumerateVMs, {}, row.version);
        KALDO::CFailpoints::Clear();
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, Json({{"VMs", row.vms}}));
        EXPECT_EQ(Recorded(r), row.codes);
    }
}

// Success is the readers' and the simulated Mac's part; here every failure
// leaves both outputs empty and is recorded by the routine and the method.
TEST(VirtualBox, DescriptionFailuresAreRecordedTwice) {
    // clang-format off
    struct { std::string settings, report; int exit; } const rows[] = {
        {kSettings, kReport, 1},               // the tool failed
        {kSettings, "Name: \n" + kReport, 0},  // the report lacks a value
        {"<Machine name=\"VM\">\n", kReport, 0},  // no UUID: the tool is not run
        {"", kReport, 0},                      // no settings file
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.settings + row.report + std::to_string(row.exit));
        VBoxMac m;
        m.mac.remove(kWin7);
        if (!row.settings.empty()) m.mac.writeFile(kWin7, row.settings);
        m.tool.respond(row.report, row.exit);
        const auto info = Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}});
        const auto net = Call(VirtualMachineImpl_VirtualBox2_GetVMNetwork, {{"Name", kWin7}});
        const auto runs = m.tool.invocations();
        EXPECT_EQ(runs.size(), row.settings == kSettings ? 2u : 0u);
        for (const auto& run : runs) EXPECT_EQ(run.args, (Args{"showvminfo", kUuid}));
        EXPECT_TRUE(info.outputs.empty() && net.outputs.empty() && info.result == -1);
        EXPECT_EQ(Recorded(net), (Codes{-1, -1}));
    }
}

TEST(VirtualBox, ActionsRunTheStandardToolOnlyAndJudgeFailedExits) {
    {
        VBoxMac m;
        EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox_4_X_ResumeVM, {{"Name", "Win 7"}}).result, 0);
        EXPECT_EQ(m.tool.invocations().at(0).args, (Args{"controlvm", "Win 7", "resume"}));
        // Installed elsewhere: found for descriptions, not for actions.
        m.mac.remove(kApp);
        const std::string elsewhere = "/Applications/Tools/VirtualBox.app";
        m.mac.installApp(elsewhere, "org.virtualbox.app.VirtualBox", "4.3.12");
        m.mac.installTool(elsewhere + "/Contents/MacOS/VBoxManage").respond(kReport);
        EXPECT_EQ(Call(VirtualMachineImpl_VirtualBox2_GetVMInfo, {{"Name", kWin7}}).result, 0);
        const auto r = Call(VirtualMachineImpl_VirtualBox_4_X_StartVM, {{"Name", "Win7"}});
        EXPECT_EQ(Recorded(r), (Codes{-1, -1}));
    }
    // The text is judged only after a failed exit, standard error included.
    // clang-format off
    struct { std::string out, err; int exit, code; } const rows[] = {
        {"VBOX_E_INVALID_VM_STATE error\n", "", 0, 0},
        {"", "error: Error: Cannot lock VM\n", 1, -32},
        {"error: Error: Cannot open VM\n", "", 2, -6},
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
