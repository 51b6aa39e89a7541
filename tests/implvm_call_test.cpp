// implvm's call command, run as a user runs them, and how it finds the
// installed hypervisors and the methods that fit their versions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "Golden.h"
#include "Installed.h"
#include "TestMachine.h"

using implvm_test::Implvm;
using implvm_test::Json;
using Args = std::vector<std::string>;

namespace {

// How inputs reach the method, and how mistakes are refused (one line on
// standard error, status 2): tests/data/implvm_session/usage.json.

// Only the outer object and 63 arrays fit. Deeper input is refused before
// anything walks it: 30,000 levels would overflow the stack of any step that
// recurses.
TEST(ImplvmCall, InputsNestedTooDeepAreAUsageError) {
    const std::pair<size_t, int> rows[] = {{63, 0}, {64, 2}, {30000, 2}};  // arrays, status
    for (const auto& [arrays, status] : rows) {
        const std::string nested = std::string(arrays, '[') + std::string(arrays, ']');
        const auto r = Implvm({"call", "VirtualMachineImpl_Common_GetHypervisorType", "--in-json",
                               R"({"HYPER_TYPE": "2", "deep": )" + nested + "}"});
        EXPECT_EQ(r.exitCode, status) << arrays;
        if (status == 0) continue;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "implvm: --in-json: objects and arrays nested deeper than 64 levels\n");
    }
}

// A NUL in a VM named through --in-json reaches no tool: the support library
// refuses the argument, and the module answers -1 with its record.
TEST(ImplvmCall, ANulInAVmNameReachesNoTool) {
    implvm_test::TestMachine mac;
    mac.setConsoleUser("ann", 501, "/Users/ann");
    const std::pair<std::string, std::string> rows[] = {
        {"VirtualMachineImpl_VmWareFusion1_StartVM",
         "/Applications/VMware Fusion.app/Contents/Library/vmrun"},
        {"VirtualMachineImpl_VirtualBox_4_X_StopVM",
         "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage"},
    };
    for (const auto& [method, tool] : rows) {
        implvm_test::FakeTool& fake = mac.installTool(tool);
        const auto r = Implvm({"--root", mac.root(), "call", method, "--in-json",
                               R"({"Name": "/Users/ann/a\u0000b.vmx"})"});
        const Json doc = Json::parse(r.out);
        EXPECT_EQ(doc["result"], -1) << method;
        EXPECT_FALSE(doc["errors"].empty()) << method;
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_TRUE(fake.invocations().empty()) << method;
    }
}

// Output that cannot be written is a failure, said once on standard error,
// whichever command wrote it; a full disk and a closed stream alike.
TEST(ImplvmOutput, UnwritableOutputFailsTheCommand) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    const std::string vm =
        "/Users/robin/Virtual Machines.localized/Windows 7 x64.vmwarevm/Windows 7 x64.vmx";
    const Args commands[] = {
        {"inventory"},
        {"inventory", "--json"},
        {"call", "VirtualMachineImpl_Common_GetHypervisorType", "--in", "HYPER_TYPE=2"},
        {"methods"},
        {"snapshot", "list", vm},
        {"--help"},
    };
    const std::pair<std::string, std::string> outputs[] = {{"/dev/full", "No space left on device"},
                                                           {"", "Bad file descriptor"}};
    for (const Args& command : commands) {
        for (const auto& [path, reason] : outputs) {
            Args argv = {IMPLVM_BIN, "--root", mac.root()};
            argv.insert(argv.end(), command.begin(), command.end());
            const auto r = implvm_test::RunProcessWithStdout(
                argv, path, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
            EXPECT_EQ(r.exitCode, 1) << command[0] << " > " << path;
            EXPECT_EQ(r.err, "implvm: cannot write to standard output: " + reason + "\n")
                << command[0];
        }
    }
}

// A failpoint given on the command line fails the module's own step, and the
// record names where.
TEST(ImplvmCall, FailpointsReachTheModule) {
    Json doc = Json::parse(Implvm({"--fail", "getInputsForMethod=-4", "call",
                                   "VirtualMachineImpl_Common_GetProductVersion", "--in",
                                   "BundleId=com.vmware.fusion"})
                               .out);
    ASSERT_EQ(doc["errors"].size(), 1u);
    EXPECT_TRUE(doc["errors"][0]["file"].get<std::string>().ends_with(
        "Impl_Mac/ImplVirtualMachine/ImplVirtualMachine_Common.cpp"));
    EXPECT_GT(doc["errors"][0]["line"], 0);
    doc["errors"][0].erase("file");
    doc["errors"][0].erase("line");
    EXPECT_EQ(doc, Json::parse(R"({"result": -1, "outputs": null, "errors": [{"code": -1}]})"));
}

// The 9.x start forks; without a console user only the host's own process
// answers: one document, one error line, the child silent.
TEST(ImplvmCall, AForkedStartAnswersOnce) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    mac.writeFile("/.machine", "");
    const std::string vm = "/Users/robin/Parallels/Ubuntu 22.04.pvm";
    const auto call =
        Implvm({"--root", mac.root(), "call", "ImplVirtualMachine_Parallels_9_X_StartVM", "--in",
                "Name=" + vm + "/config.pvs"});
    EXPECT_EQ(Json::parse(call.out)["result"], -4) << call.out;  // one document, or it throws
    const auto start = Implvm({"--root", mac.root(), "start", vm});
    EXPECT_EQ(start.exitCode, 1);
    EXPECT_EQ(start.out, "");
    EXPECT_EQ(std::count(start.err.begin(), start.err.end(), '\n'), 1) << start.err;
}

// Each case of tests/data/product_methods: a product and its installed
// version, answered "enumerate start(argument) stop-command pause
// snapshot-take", "-" for none.
TEST(Installed, ProductVersionsPickTheMethodsWrittenForThem) {
    const implvm::Module module(IMPLVM_MODULE_PATH);
    implvm_test::CheckGoldenTable("product_methods", [&](const Json& c) {
        const auto hypervisor =
            *std::find_if(implvm::kHypervisors.begin(), implvm::kHypervisors.end(),
                          [&](implvm::Hypervisor h) { return c[0] == implvm::FactsOf(h).key; });
        implvm_test::TestMachine mac;
        mac.setConsoleUser("ann", 501, "/Users/ann");
        mac.installApp("/Applications/Any.app", implvm::FactsOf(hypervisor).bundleId, c[1]);
        const implvm::Product product = implvm::FindProduct(module, hypervisor);
        EXPECT_EQ(product.version + " " + product.appPath,
                  c[1].get<std::string>() + " /Applications/Any.app");
        const implvm::ProductMethods& m = product.methods;
        EXPECT_EQ(m.info != nullptr, product.served());
        EXPECT_EQ(m.enumerate != nullptr, product.served());
        const auto name = [](const char* method) {
            return method == nullptr ? std::string("-") : strchr(method, '_') + 1;
        };
        const implvm::ActionMethod &start = m.action(implvm::VmAction::kStart),
                                   &stop = m.action(implvm::VmAction::kStop);
        const char* arguments[] = {"(id)", "(config)", "(uuid)"};
        return name(m.enumerate) + " " + name(start.method) +
               (start ? arguments[static_cast<int>(start.argument)] : "") + " " +
               (stop ? (stop.command != nullptr ? stop.command : "\"\"") : "-") + " " +
               name(m.action(implvm::VmAction::kPause).method) + " " +
               name(m.action(implvm::VmAction::kSnapshotTake).method);
    });
}

}  // namespace
