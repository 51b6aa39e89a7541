// Whether this Mac is itself a VM by its hardware report and by its network
// interfaces' addresses (with fakes, and as root in a network namespace).
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::Json;
using implvm_test::TestMachine;
using Codes = std::vector<int>;

namespace {

using implvm_test::CodesFrom;

// Keys in the order each check writes them.
Json Virtual(const char* vendor) {
    return {{"VMCompanyName", vendor}, {"IsMachineVirtual", 1}};
}
Json Hardware(const char* vendor) {
    return {{"IsMachineVirtual", 1}, {"VMCompanyName", vendor}};
}
const Json kNotVirtual = {{"IsMachineVirtual", 0}};

TEST(IsMachineVirtual, DecidesFromCaseSensitiveMarkersVmwareFirst) {
    // A null report: no system_profiler. A failed exit does not matter.
    // clang-format off
    struct { const char* report; Json outputs; } const rows[] = {
        {"VBOX HARDDISK:\nModel Name: VMware Virtual Platform\n", Hardware("VMware, Inc.")},
        {"Model: VBOX HARDDISK\n", Hardware("Oracle Corporation")},
        {"Disk: vmware virtual disk\nvbox harddisk\n", kNotVirtual},
        {nullptr, nullptr},
    };
    // clang-format on
    for (const auto& row : rows) {
        TestMachine mac;
        implvm_test::FakeTool* profiler = nullptr;
        if (row.report)
            profiler = &mac.installTool("/usr/sbin/system_profiler").respond(row.report, 1);
        const auto r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
        EXPECT_EQ(r.outputs, row.outputs) << (row.report ? row.report : "no tool");
        EXPECT_EQ(r.result, profiler ? 0 : -1);
        EXPECT_EQ(CodesFrom(r, "ImplVirtualMachine_Common.cpp"), profiler ? Codes{} : Codes{-1});
        if (!profiler) continue;
        EXPECT_EQ(profiler->invocations().at(0).args,
                  (std::vector<std::string>{"SPHardwareDataType", "SPParallelATADataType",
                                            "SPSerialATADataType", "SPHardwareRAIDDataType",
                                            "SPParallelSCSIDataType", "SPStorageDataType"}));
    }
}

// A failed listing keeps a refusal and folds a time-out, as every method does.
TEST(MacAddressVendor, FirstVendorPrefixInTableOrderAnywhereInAnAddress) {
    const Json cannotTell = {{"VMCompanyName", "Unknown"}, {"IsMachineVirtual", 2}};
    using Nics = std::vector<std::pair<std::string, std::string>>;  // an address "-": unreadable
    // clang-format off
    struct { Nics nics; Json outputs; Codes recorded; std::string failpoint = ""; } const rows[] = {
        {{{"en0", "AA:00:16:3E:BB:CC"}}, Virtual("Xensource, Inc."), {}},
        {{{"en0", "00:0c:29:ab:cd:ef"}}, kNotVirtual, {-1}},  // lower case does not match
        {{{"en0", "08:00:27:00:0C:29"}}, Virtual("VMware, Inc."), {}},
        {{{"en0", "3C:22:FB:01:02:03"}, {"en1", "08:00:27:01:02:03"}, {"en2", "00:0C:29:01:02:03"}},
         Virtual("Oracle Corporation"), {}},
        {{{"en0", "-"}, {"en1", "3C:22:FB:01:02:03"}}, cannotTell, {-6}},
        {{{"en0", "-"}, {"en1", "00:16:3E:01:02:03"}}, Virtual("Xensource, Inc."), {}},
        {{{"en0", "00:16:3E:01:02:03"}}, kNotVirtual, {-4}, "GetNetworkDevices=-4"},
        {{{"en0", "00:16:3E:01:02:03"}}, kNotVirtual, {-1}, "GetNetworkDevices=-7"},
    };
    // clang-format on
    for (const auto& row : rows) {
        TestMachine mac;
        ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        for (const auto& [name, address] : row.nics) mac.addNic(name, address);
        const auto r = Call(ImplVm_Common_IsMachineVirtual);
        EXPECT_EQ(r.result, 0) << "the method always answers 0";
        EXPECT_EQ(r.outputs, row.outputs) << row.nics.back().second << row.failpoint;
        EXPECT_EQ(CodesFrom(r, "ImplVm_Common.cpp"), row.recorded);
    }
}

// implvm without a machine root, in a network namespace of its own.
TEST(MacAddressVendorRealStack, VendorAddressInANetworkNamespace) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
    std::string ip;
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (ip.empty() && ::access(path, X_OK) == 0) ip = path;
    if (ip.empty()) GTEST_SKIP() << "no ip tool (iproute2) on this machine";
    const std::string ns = "implvm-test-" + std::to_string(::getpid());
    std::string why;
    auto run = [&](const std::vector<std::string>& args) {
        auto r = implvm_test::RunProcess(args, {{"KALDO_ROOT", ""}, {"KALDO_FAILPOINTS", ""}});
        why = r.err;
        return r;
    };
    auto link = [&](const std::string& words) {  // ip -n <ns> link <words>
        std::vector<std::string> args = {ip, "-n", ns, "link"};
        std::istringstream in(words);
        for (std::string word; in >> word;) args.push_back(word);
        return run(args).exitCode == 0;
    };
    if (run({ip, "netns", "add", ns}).exitCode != 0) GTEST_SKIP() << "no namespace: " << why;
    struct Removal {
        std::function<void()> undo;
        ~Removal() { undo(); }
    } removal{[&] { run({ip, "netns", "delete", ns}); }};
    const bool made = (link("add vm0 type dummy") && link("add vm1 type dummy")) ||
                      link("add vm0 type veth peer name vm1");
    if (!made || !link("set vm0 address 02:11:22:33:44:55") ||
        !link("set vm1 address 08:00:27:AA:BB:CC"))
        GTEST_SKIP() << "cannot create interfaces in the namespace: " << why;
    const std::vector<std::string> implvm = {
        ip, "netns", "exec", ns, IMPLVM_BIN, "call", "ImplVm_Common_IsMachineVirtual"};
    const auto r = run(implvm);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Json::parse(r.out), (Json{{"result", 0},
                                        {"outputs", Virtual("Oracle Corporation")},
                                        {"errors", Json::array()}}));
    EXPECT_TRUE(link("set vm1 address 02:11:22:33:44:66")) << why;
    EXPECT_EQ(Json::parse(run(implvm).out)["outputs"], kNotVirtual);
}

}  // namespace
