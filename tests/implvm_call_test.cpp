// implvm end to end: the built binary run as a user runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "ElfSymbols.h"
#include "MethodNames.h"
#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::ProcessResult;
using implvm_test::RunProcess;
using implvm_test::TestMachine;

namespace {

ProcessResult Implvm(std::vector<std::string> args) {
    args.insert(args.begin(), IMPLVM_BIN);
    // The test process's own machine root must not leak into the child.
    return RunProcess(args, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
}

// The one JSON document a call prints.
Json Document(const ProcessResult& r) {
    Json doc = Json::parse(r.out);  // throws (and fails the test) on anything else
    EXPECT_TRUE(doc.is_object());
    EXPECT_EQ(doc.size(), 3u);
    EXPECT_TRUE(doc.contains("result") && doc.contains("outputs") && doc.contains("errors"));
    return doc;
}

TEST(ImplvmCall, ModuleVersion) {
    const auto r = Implvm({"call", "VirtualMachineImpl_Common_GetModuleVersion"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Document(r),
              (Json{{"result", 0}, {"outputs", "3.6.10676.2"}, {"errors", Json::array()}}));
    EXPECT_EQ(r.err, "");
}

struct InputCase {
    const char* name;
    std::vector<std::string> args;  // after "call VirtualMachineImpl_Common_GetHypervisorType"
    int result;
    Json outputs;
};

class ImplvmInputs : public testing::TestWithParam<InputCase> {};

TEST_P(ImplvmInputs, ReachTheMethodAsTreeKinds) {
    const auto& c = GetParam();
    std::vector<std::string> args = {"call", "VirtualMachineImpl_Common_GetHypervisorType"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto r = Implvm(args);
    const Json doc = Document(r);
    EXPECT_EQ(doc["result"], c.result);
    EXPECT_EQ(doc["outputs"], c.outputs);
    EXPECT_EQ(doc["errors"], Json::array());
    EXPECT_EQ(r.exitCode, c.result >= 0 ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ImplvmInputs,
    testing::Values(
        InputCase{"InPair", {"--in", "HYPER_TYPE=2"}, 0, {{"HypervisorType", 2}}},
        InputCase{"NoInput", {}, -3, nullptr},
        InputCase{"ValueWithEquals", {"--in", "HYPER_TYPE=5=x"}, 0, {{"HypervisorType", 5}}},
        InputCase{
            "JsonString", {"--in-json", R"({"HYPER_TYPE": "7"})"}, 0, {{"HypervisorType", 7}}},
        // An integer stays an integer: the method reads a string and misses it.
        InputCase{"JsonIntegerIsNotText", {"--in-json", R"({"HYPER_TYPE": 7})"}, -3, nullptr},
        InputCase{"JsonNested",
                  {"--in-json", R"({"A": {"B": [1, "x", null]}, "HYPER_TYPE": "4"})"},
                  0,
                  {{"HypervisorType", 4}}},
        InputCase{"InOverridesJson",
                  {"--in-json", R"({"HYPER_TYPE": "1"})", "--in", "HYPER_TYPE=3"},
                  0,
                  {{"HypervisorType", 3}}},
        InputCase{"GlobalOptionAfterCommand",
                  {"--in", "HYPER_TYPE=9", "--fail", "GetNetworkDevices=-4"},
                  0,
                  {{"HypervisorType", 9}}}),
    [](const auto& p) { return std::string(p.param.name); });

struct UsageCase {
    const char* name;
    std::vector<std::string> args;
    const char* mention;  // the stderr line names the culprit
};

class ImplvmUsage : public testing::TestWithParam<UsageCase> {};

TEST_P(ImplvmUsage, OneLineOnStandardErrorAndStatusTwo) {
    const auto& c = GetParam();
    const auto r = Implvm(c.args);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(r.err.find(c.mention), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Mistakes, ImplvmUsage,
    testing::Values(
        UsageCase{"NoCommand", {}, "command"},
        UsageCase{"UnknownCommand", {"frobnicate"}, "frobnicate"},
        UsageCase{"UnknownMethod", {"call", "NoSuchMethod"}, "NoSuchMethod"},
        UsageCase{"InternalRoutineIsNoMethod", {"call", "macAddressCheck"}, "macAddressCheck"},
        UsageCase{"UnknownFlag",
                  {"call", "VirtualMachineImpl_Common_GetModuleVersion", "--bogus"},
                  "--bogus"},
        UsageCase{"PairWithoutEquals",
                  {"call", "VirtualMachineImpl_Common_GetHypervisorType", "--in", "HYPER_TYPE"},
                  "KEY=VALUE"},
        UsageCase{"BadJson",
                  {"call", "VirtualMachineImpl_Common_GetHypervisorType", "--in-json", "{\"a\":"},
                  "--in-json"},
        UsageCase{"JsonNotAnObject",
                  {"call", "VirtualMachineImpl_Common_GetHypervisorType", "--in-json", "[1]"},
                  "object"},
        UsageCase{
            "BadVersion",
            {"call", "VirtualMachineImpl_Common_GetModuleVersion", "--product-version", "latest"},
            "--product-version"},
        UsageCase{"BadFailpoints",
                  {"--fail", "no code here", "call", "VirtualMachineImpl_Common_GetModuleVersion"},
                  "--fail"},
        UsageCase{"MissingRoot",
                  {"--root", "/nonexistent/implvm-root", "call",
                   "VirtualMachineImpl_Common_GetModuleVersion"},
                  "/nonexistent/implvm-root"},
        UsageCase{"MissingModule",
                  {"--module", "/nonexistent/libImplVirtualMachine.so", "methods"},
                  "/nonexistent/libImplVirtualMachine.so"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(ImplvmHelp, EveryCommandHasHelp) {
    for (const auto& [args, mentions] :
         std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>>{
             {{"--help"}, {"call", "methods", "--root", "--module", "--fail"}},
             {{"call", "--help"}, {"METHOD", "--product-version", "--in", "--in-json"}},
             {{"methods", "--help"}, {"method functions"}}}) {
        const auto r = Implvm(args);
        EXPECT_EQ(r.exitCode, 0) << args[0];
        for (const auto& word : mentions)
            EXPECT_NE(r.out.find(word), std::string::npos) << args[0] << ": " << word;
    }
}

TEST(ImplvmMethods, ListsTheExportedMethodFunctionsOnly) {
    const auto r = Implvm({"methods"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;
    std::string expected;
    for (const char* name : implvm::kMethodNames)
        if (exports.functions.count(name)) expected += std::string(name) + "\n";
    EXPECT_EQ(r.out, expected);
    for (const char* common :
         {"VirtualMachineImpl_Common_GetModuleVersion",
          "VirtualMachineImpl_Common_GetProductVersion",
          "VirtualMachineImpl_Common_GetHypervisorType",
          "VirtualMachineImpl_Common_IsMachineVirtual", "ImplVm_Common_IsMachineVirtual"})
        EXPECT_NE(r.out.find(std::string(common) + "\n"), std::string::npos) << common;
    EXPECT_EQ(r.out.find("macAddressCheck"), std::string::npos);

    // The same module named explicitly.
    EXPECT_EQ(Implvm({"--module", IMPLVM_MODULE_PATH, "methods"}).out, r.out);
}

TEST(ImplvmRoot, ProductVersionFromTheRootsBundle) {
    TestMachine mac;
    mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "13.5.2");
    const auto r =
        Implvm({"--root", mac.root(), "call", "VirtualMachineImpl_Common_GetProductVersion", "--in",
                "BundleId=com.vmware.fusion"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Json doc = Document(r);
    EXPECT_EQ(doc["result"], 0);
    EXPECT_EQ(doc["outputs"]["ProductVersion"], "13.5.2");
    // Paths come back as the Mac sees them, never with the root in front.
    EXPECT_EQ(doc["outputs"].dump().find(mac.root()), std::string::npos);

    // Not installed there: the library's code, recorded, and status 1.
    const auto missing =
        Implvm({"--root", mac.root(), "call", "VirtualMachineImpl_Common_GetProductVersion", "--in",
                "BundleId=com.parallels.desktop.console"});
    EXPECT_EQ(missing.exitCode, 1);
    const Json failed = Document(missing);
    EXPECT_LT(failed["result"].get<int>(), 0);
    ASSERT_EQ(failed["errors"].size(), 1u);
    EXPECT_EQ(failed["errors"][0]["code"], failed["result"]);
}

TEST(ImplvmRoot, ToolsRunInsideTheRoot) {
    TestMachine mac;
    mac.installTool("/usr/sbin/system_profiler").respond("Model Identifier: VMware7,1\n");
    const auto r =
        Implvm({"call", "VirtualMachineImpl_Common_IsMachineVirtual", "--root", mac.root()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Document(r)["outputs"],
              (Json{{"IsMachineVirtual", 1}, {"VMCompanyName", "VMware, Inc."}}));
}

TEST(ImplvmFail, FailpointsReachTheLibrary) {
    TestMachine mac;
    mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "13.5.2");
    const auto r = Implvm({"--root", mac.root(), "--fail", "getInputsForMethod=-4", "call",
                           "VirtualMachineImpl_Common_GetProductVersion", "--in",
                           "BundleId=com.vmware.fusion"});
    EXPECT_EQ(r.exitCode, 1);
    const Json doc = Document(r);
    EXPECT_EQ(doc["result"], -1);
    EXPECT_TRUE(doc["outputs"].is_null());
    ASSERT_EQ(doc["errors"].size(), 1u);
    const Json& error = doc["errors"][0];
    EXPECT_EQ(error["code"], -1);
    EXPECT_TRUE(error["file"].get<std::string>().ends_with(
        "Impl_Mac/ImplVirtualMachine/ImplVirtualMachine_Common.cpp"))
        << error["file"];
    EXPECT_GT(error["line"].get<int>(), 0);
}

}  // namespace
