// implvm end to end: the built binary run as a user runs it.
#include <gtest/gtest.h>

#include <algorithm>

#include "ElfSymbols.h"
#include "MethodNames.h"
#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::ProcessResult;
using Args = std::vector<std::string>;

namespace {

ProcessResult Implvm(Args args) {
    args.insert(args.begin(), IMPLVM_BIN);
    // The test process's own machine root must not leak into the child.
    return implvm_test::RunProcess(args, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
}

TEST(ImplvmCall, InputsReachTheMethodAsTreeKinds) {
    const std::pair<Args, int> rows[] = {
        // clang-format off
        {{"--in", "HYPER_TYPE=2"}, 2},
        {{}, -3},
        {{"--in", "HYPER_TYPE=5=x"}, 5},
        {{"--in-json", R"({"HYPER_TYPE": "7", "A": {"B": [1, null]}})"}, 7},
        {{"--in-json", R"({"HYPER_TYPE": 7})"}, -3},  // an integer stays an integer
        {{"--in-json", R"({"HYPER_TYPE": "1"})", "--in", "HYPER_TYPE=3"}, 3},
        {{"--in", "HYPER_TYPE=9", "--fail", "GetNetworkDevices=-4"}, 9},
        // clang-format on
    };
    for (const auto& [inputs, type] : rows) {
        Args args = {"call", "VirtualMachineImpl_Common_GetHypervisorType"};
        args.insert(args.end(), inputs.begin(), inputs.end());
        const auto r = Implvm(args);
        const Json outputs = type < 0 ? Json() : Json{{"HypervisorType", type}};
        EXPECT_EQ(
            Json::parse(r.out),
            (Json{{"result", std::min(type, 0)}, {"outputs", outputs}, {"errors", Json::array()}}));
        EXPECT_EQ(r.exitCode, type < 0 ? 1 : 0);
        EXPECT_EQ(r.err, "");
    }
}

TEST(ImplvmCall, MistakesGiveOneLineOnStandardErrorAndStatusTwo) {
    const std::string type = "VirtualMachineImpl_Common_GetHypervisorType";
    const std::string version = "VirtualMachineImpl_Common_GetModuleVersion";
    const std::pair<Args, std::string> rows[] = {
        // clang-format off
        {{}, "command"},
        {{"call", "NoSuchMethod"}, "NoSuchMethod"},
        {{"call", "macAddressCheck"}, "macAddressCheck"},
        {{"call", type, "--in", "HYPER_TYPE"}, "KEY=VALUE"},
        {{"call", type, "--in-json", "[1]"}, "object"},
        {{"call", version, "--product-version", "latest"}, "--product-version"},
        {{"--fail", "no code here", "call", version}, "--fail"},
        {{"--root", "/nonexistent/root", "call", version}, "/nonexistent/root"},
        {{"--module", "/nonexistent/lib.so", "methods"}, "/nonexistent/lib.so"},
        // clang-format on
    };
    for (const auto& [args, mention] : rows) {
        const auto r = Implvm(args);
        EXPECT_EQ(r.exitCode, 2) << mention;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(mention), std::string::npos) << r.err;
    }
}

TEST(ImplvmMethods, ListsTheExportedMethodFunctionsOnly) {
    const auto r = Implvm({"methods"});
    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;
    std::string expected;
    for (const char* name : implvm::kMethodNames)
        if (exports.functions.count(name)) expected += std::string(name) + "\n";
    EXPECT_EQ(r.out, expected);
    EXPECT_NE(r.out.find("ImplVm_Common_IsMachineVirtual\n"), std::string::npos);
    EXPECT_EQ(r.out.find("macAddressCheck"), std::string::npos);
}

TEST(ImplvmRoot, ToolsFilesAndFailpointsOfTheRoot) {
    implvm_test::TestMachine mac;
    mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "13.5.2");
    mac.installTool("/usr/sbin/system_profiler").respond("Model Identifier: VMware7,1\n");
    const Args product = {"call", "VirtualMachineImpl_Common_GetProductVersion", "--in",
                          "BundleId=com.vmware.fusion"};
    auto call = [&](Args args) {
        args.insert(args.begin(), {"--root", mac.root()});
        return Json::parse(Implvm(args).out);
    };
    // Paths come back as the Mac sees them, never with the root in front.
    EXPECT_EQ(call(product)["outputs"],
              (Json{{"ProductVersion", "13.5.2"}, {"AppPath", "/Applications/VMware Fusion.app"}}));
    EXPECT_EQ(call({"call", "VirtualMachineImpl_Common_IsMachineVirtual"})["outputs"],
              (Json{{"IsMachineVirtual", 1}, {"VMCompanyName", "VMware, Inc."}}));

    Args failing = {"--fail", "getInputsForMethod=-4"};
    failing.insert(failing.end(), product.begin(), product.end());
    const Json doc = call(failing);
    EXPECT_EQ(doc["result"], -1);
    EXPECT_TRUE(doc["outputs"].is_null());
    ASSERT_EQ(doc["errors"].size(), 1u);
    EXPECT_EQ(doc["errors"][0]["code"], -1);
    EXPECT_TRUE(doc["errors"][0]["file"].get<std::string>().ends_with(
        "Impl_Mac/ImplVirtualMachine/ImplVirtualMachine_Common.cpp"));
    EXPECT_GT(doc["errors"][0]["line"].get<int>(), 0);
}

}  // namespace
