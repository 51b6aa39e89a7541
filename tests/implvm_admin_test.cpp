// implvm as an administrator meets it: list, info, detect, the reasons its
// failure lines give, help and the verdict rules behind detect.
#include <gtest/gtest.h>

#include <map>

#include "Detect.h"
#include "Golden.h"
#include "Suggest.h"
#include "TestMachine.h"

namespace {

using implvm_test::Json;
using implvm_test::ProcessResult;
using implvm_test::TestMachine;

const std::string kVBoxManage = "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage";
const std::string kDebian = "/Users/robin/VirtualBox VMs/Debian 12/Debian 12.vbox";
const std::string kWin7 =
    "/Users/robin/Virtual Machines.localized/Windows 7 x64.vmwarevm/Windows 7 x64.vmx";

class Admin : public ::testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }
    ProcessResult Run(std::vector<std::string> args, const std::string& timeout = "") {
        args.insert(args.begin(), {IMPLVM_BIN, "--root", mac_.root()});
        return implvm_test::RunProcess(
            args, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}, {"KALDO_TOOL_TIMEOUT", timeout}});
    }
    TestMachine mac_;
};

TEST_F(Admin, ListAndInfoInTheToolsOwnWords) {
    const ProcessResult all = Run({"list"});
    EXPECT_EQ(all.exitCode, 1);  // the demo's broken VMware VM
    EXPECT_NE(all.out.find("virtualbox  Debian 12            stopped    " + kDebian + "\n"),
              std::string::npos)
        << all.out;
    EXPECT_NE(all.out.find("vmware      Kali Purple          unknown: GetVMInfo answered -1"),
              std::string::npos);

    const Json running =
        Json::parse(Run({"list", "--hypervisor", "vmware", "--running", "--json"}).out);
    EXPECT_EQ(running["schemaVersion"], 1);
    ASSERT_EQ(running["vms"].size(), 2u);  // Windows 7 x64, and Kali Purple, state unread
    EXPECT_EQ(running["vms"][0], Json({{"hypervisor", "vmware"},
                                       {"name", "Windows 7 x64"},
                                       {"state", "running"},
                                       {"stateCode", 1},
                                       {"id", kWin7}}));
    EXPECT_EQ(running["vms"][1]["state"], "unknown");
    EXPECT_EQ(Run({"list", "--hypervisor", "hyperv"}).exitCode, 2);

    const ProcessResult info = Run({"info", "Debian 12"});
    EXPECT_EQ(info.exitCode, 0);
    EXPECT_EQ(info.out,
              "Name:        Debian 12\nGuest OS:    Debian (64-bit)\nState:       stopped\n"
              "Adapters:    NAT, other (disconnected)\nVM:          " +
                  kDebian + "\nHypervisor:  VirtualBox 7.0.14\n");

    // A machine without adapters lists none, as every hypervisor's does.
    mac_.installTool(kVBoxManage)
        .respond(
            "Name:            Debian 12\nGuest OS:        Debian (64-bit)\n"
            "State:           running (since 2024-03-01T09:12:44.000000000)\n");
    const Json bare = Json::parse(Run({"info", kDebian, "--json"}).out);
    EXPECT_EQ(bare["networks"], Json::array());
    EXPECT_EQ(bare["state"], "running");
    EXPECT_EQ(bare["hypervisor"]["version"], "7.0.14");
}

// Why a command failed, in the words of the code and of the tool.
TEST_F(Admin, FailureLinesSayWhy) {
    implvm_test::FakeTool& tool = mac_.installTool(kVBoxManage);
    tool.respond("", 1,
                 "VBoxManage: error: The machine 'Debian 12' is already locked by a session (or "
                 "being locked or unlocked)\nVBoxManage: error: Details: code "
                 "VBOX_E_INVALID_OBJECT_STATE (0x80bb0007), component MachineWrap\n");
    const ProcessResult locked = Run({"stop", kDebian});
    EXPECT_EQ(locked.exitCode, 1);
    EXPECT_EQ(locked.err,
              "implvm: " + kDebian +
                  ": could not stop: failed; VBoxManage: error: The machine 'Debian 12' is "
                  "already locked by a session (or being locked or unlocked) (VirtualBox "
                  "7.0.14, VirtualMachineImpl_VirtualBox_4_X_StopVM answered -1)\n");
    const Json json = Json::parse(Run({"stop", kDebian, "--json"}).out);
    EXPECT_EQ(json["done"], false);
    EXPECT_EQ(json["call"]["toolFailures"][0]["ended"], "exited with status 1");

    const ProcessResult missing = Run({"stop", "Windows 95"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_EQ(missing.err.rfind("implvm: no VM 'Windows 95' on this Mac", 0), 0u) << missing.err;

    tool.reset();
    tool.respond(implvm_test::FakeResponse{.sleepSeconds = 600});
    const ProcessResult hung = Run({"stop", kDebian}, "0.3");
    EXPECT_EQ(hung.exitCode, 1);
    EXPECT_NE(hung.err.find(": could not stop: failed; VBoxManage did not answer within 0.3 s ("),
              std::string::npos)
        << hung.err;
}

TEST_F(Admin, DetectOnTheSimulatedMac) {
    const struct {
        std::string flag;  // what the stand-in sysctl prints; "fail": exits 1
        std::string token;
        int exitCode;
    } rows[] = {{"0\n", "none\n", 1}, {"1\n", "apple\n", 0}, {"fail", "none\n", 1}};
    for (const auto& row : rows) {
        implvm_test::FakeTool& sysctl = mac_.installTool("/usr/sbin/sysctl");
        if (row.flag == "fail")
            sysctl.respond("", 1, "sysctl: unknown oid 'kern.hv_vmm_present'\n");
        else
            sysctl.respond(row.flag);
        const ProcessResult r = Run({"detect"});
        EXPECT_EQ(r.out, row.token);
        EXPECT_EQ(r.exitCode, row.exitCode) << row.flag;
        EXPECT_EQ(sysctl.invocations().at(0).args,
                  (std::vector<std::string>{"-n", "kern.hv_vmm_present"}));
    }
    // No flag, and an adapter's address that cannot be read: cannot tell.
    mac_.addNic("en9", "-");
    const ProcessResult unsure = Run({"detect", "--json"});
    EXPECT_EQ(unsure.exitCode, 2);
    const Json json = Json::parse(unsure.out);
    EXPECT_EQ(json["verdict"], "unknown");
    EXPECT_EQ(json["signals"].size(), 3u);
    EXPECT_EQ(json["virtual"], Json());
}

// Each case of tests/data/detect_verdict: the checks' signals in order, each
// its answer and the vendor it named, if any.
TEST(Detect, VerdictFromSignals) {
    implvm_test::CheckGoldenTable("detect_verdict", [](const Json& signals) {
        const std::map<std::string, implvm::Answer> answers = {
            {"virtual", implvm::Answer::kVirtual},
            {"not virtual", implvm::Answer::kNotVirtual},
            {"unknown", implvm::Answer::kUnknown}};
        std::vector<implvm::Signal> given;
        for (const auto& [name, signal] : signals.items())
            given.push_back({name, answers.at(signal[0].get<std::string>()),
                             signal.size() > 1 ? signal[1].get<std::string>() : ""});
        const implvm::Verdict verdict = implvm::Decide(given);
        return Json(verdict.token + ", exit " + std::to_string(verdict.exitStatus));
    });
}

TEST(Help, VersionMistypesAndTheToolsLastWords) {
    EXPECT_EQ(implvm_test::Implvm({"--version"}).out, "implvm " IMPLVM_VERSION_TEXT "\n");
    const ProcessResult typo = implvm_test::Implvm({"invntory"});
    EXPECT_EQ(typo.exitCode, 2);
    EXPECT_EQ(typo.err,
              "implvm: no command 'invntory'; did you mean 'inventory'? (implvm help lists the "
              "commands)\n");
    EXPECT_EQ(implvm::ClosestName("GetVMinfo", {"GetVMInfo", "GetVMNetwork"}), "GetVMInfo");
    EXPECT_EQ(implvm::ClosestName("zzz", {"list", "info"}), "");
    EXPECT_NE(implvm_test::Implvm({"help", "snapshot", "list"}).out.find("snapshots"),
              std::string::npos);
}

}  // namespace
