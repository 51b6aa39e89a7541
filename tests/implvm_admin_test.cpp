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

class Admin : public ::testing::Test {
protected:
    void SetUp() override { mac_.copyDemoMac(); }
    ProcessResult Run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--root", mac_.root()});
        return implvm_test::Implvm(args);
    }
    TestMachine mac_;
};

// Listing, info, detect and failure lines on the simulated Mac:
// tests/data/implvm_session/admin.json. Here what that cannot hold.
TEST_F(Admin, FailuresAsJsonAndADetectThatCannotTell) {
    mac_.installTool(kVBoxManage).respond("", 1, "VBoxManage: error: already locked\n");
    const Json json = Json::parse(Run({"stop", kDebian, "--json"}).out);
    EXPECT_EQ(json["done"], false);
    EXPECT_EQ(json["call"]["toolFailures"][0]["ended"], "exited with status 1");

    // No flag, and an adapter's address that cannot be read: cannot tell.
    mac_.installTool("/usr/sbin/sysctl").respond("", 1);
    mac_.addNic("en9", "-");
    const ProcessResult unsure = Run({"detect", "--json"});
    EXPECT_EQ(unsure.exitCode, 2);
    const Json verdict = Json::parse(unsure.out);
    EXPECT_EQ(verdict["verdict"], "unknown");
    EXPECT_EQ(verdict["signals"].size(), 3u);
    EXPECT_EQ(verdict["virtual"], Json());
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
