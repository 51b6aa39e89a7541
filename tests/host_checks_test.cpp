// The MAC-address vendor check: through the machine root's interfaces, with
// injected failures, and (as root) against the real network stack.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <utility>

#include "ImplVirtualMachine.h"
#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Json;
using implvm_test::RunProcess;

namespace {

constexpr const char* kImplVmFile = "Impl_Common/ImplVm/ImplVm_Common.cpp";

Json Virtual(const char* vendor) {
    return {{"VMCompanyName", vendor}, {"IsMachineVirtual", 1}};
}
const Json kNotVirtual = {{"IsMachineVirtual", 0}};
const Json kCannotTell = {{"VMCompanyName", "Unknown"}, {"IsMachineVirtual", 2}};

TEST(MacAddressVendor, AnswersFromTheInterfacesAddresses) {
    const struct {
        std::vector<std::pair<std::string, std::string>> nics;
        const char* failpoints;
        Json outputs;
        std::vector<int> recorded;
    } rows[] = {
        // clang-format off
        {{{"en0", "08:00:27:AA:BB:CC"}}, "", Virtual("Oracle Corporation"), {}},
        {{{"en0", "00:0C:29:12:34:56"}}, "", Virtual("VMware, Inc."), {}},
        {{{"en0", "00:13:17:00:00:01"}}, "", Virtual("Paravirtual corporation"), {}},
        {{{"en0", "00:0F:4B:9A:00:01"}}, "", Virtual("Virtual Iron Software, Inc."), {}},
        {{{"en0", "AA:00:16:3E:BB:CC"}}, "", Virtual("Xensource, Inc."), {}},  // prefix anywhere
        {{{"en0", "00:0c:29:ab:cd:ef"}}, "", kNotVirtual, {-1}},  // lower case does not match
        // The table's order beats the position in the text.
        {{{"en0", "08:00:27:00:0C:29"}}, "", Virtual("VMware, Inc."), {}},
        {{{"en0", "3C:22:FB:01:02:03"}, {"en1", "08:00:27:01:02:03"}, {"en2", "00:0C:29:01:02:03"}},
         "", Virtual("Oracle Corporation"), {}},
        {{{"en0", "3C:22:FB:01:02:03"}}, "", kNotVirtual, {-1}},
        {{{"en0", "-"}, {"en1", "3C:22:FB:01:02:03"}}, "", kCannotTell, {-6}},
        {{{"en0", "-"}, {"en1", "00:16:3E:01:02:03"}}, "", Virtual("Xensource, Inc."), {}},
        {{{"en0", "08:00:27:AA:BB:CC"}}, "GetNetworkDevices=-4", kNotVirtual, {-4}},
        {{{"en0", "08:00:27:AA:BB:CC"}}, "GetNetworkDevices=-2", kNotVirtual, {-1}},
        // clang-format on
    };
    for (const auto& row : rows) {
        implvm_test::TestMachine mac;
        for (const auto& [name, address] : row.nics) mac.addNic(name, address);
        ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoints), 0);
        const auto r = implvm_test::Call(ImplVm_Common_IsMachineVirtual);
        EXPECT_EQ(r.result, 0) << "the method always answers 0";
        EXPECT_EQ(r.outputs, row.outputs) << row.nics.back().second;
        std::vector<int> codes;
        for (const auto& e : implvm_test::ErrorsFrom(r.errors, kImplVmFile))
            codes.push_back(e.code);
        EXPECT_EQ(codes, row.recorded);
        EXPECT_EQ(r.errors.size(), row.recorded.size());
    }
}

// ---- The real network stack, in a network namespace of its own ----

bool RunOk(const std::vector<std::string>& argv, std::string& why) {
    const auto r = RunProcess(argv);
    why = r.err;
    return r.exitCode == 0;
}

TEST(MacAddressVendorRealStack, VendorAddressInANetworkNamespace) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
    std::string ip;
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (ip.empty() && ::access(path, X_OK) == 0) ip = path;
    if (ip.empty()) GTEST_SKIP() << "no ip tool (iproute2) on this machine";
    const std::string ns = "implvm-test-" + std::to_string(::getpid());
    std::string why;
    if (!RunOk({ip, "netns", "add", ns}, why)) GTEST_SKIP() << "cannot create a namespace: " << why;
    const std::unique_ptr<void, std::function<void(void*)>> removal(&why, [&](void*) {
        std::string ignored;
        RunOk({ip, "netns", "delete", ns}, ignored);
    });
    auto link = [&](std::vector<std::string> tail) {
        tail.insert(tail.begin(), {ip, "-n", ns, "link"});
        return RunOk(tail, why);
    };
    // Dummies where the kernel has them, else a veth pair.
    const bool made =
        (link({"add", "vm0", "type", "dummy"}) && link({"add", "vm1", "type", "dummy"})) ||
        link({"add", "vm0", "type", "veth", "peer", "name", "vm1"});
    if (!made || !link({"set", "vm0", "address", "02:11:22:33:44:55"}) ||
        !link({"set", "vm1", "address", "08:00:27:AA:BB:CC"})) {
        GTEST_SKIP() << "cannot create interfaces in the namespace: " << why;
    }
    // No machine root: the module looks at the namespace's own interfaces.
    const std::vector<std::string> implvm = {
        ip,           "netns",        "exec",
        ns,           "/usr/bin/env", "-u",
        "KALDO_ROOT", "-u",           "KALDO_FAILPOINTS",
        IMPLVM_BIN,   "call",         "ImplVm_Common_IsMachineVirtual"};
    auto r = RunProcess(implvm);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(Json::parse(r.out), (Json{{"result", 0},
                                        {"outputs", Virtual("Oracle Corporation")},
                                        {"errors", Json::array()}}));
    EXPECT_TRUE(link({"set", "vm1", "address", "02:11:22:33:44:66"})) << why;
    r = RunProcess(implvm);
    const Json doc = Json::parse(r.out);
    EXPECT_EQ(doc["outputs"], kNotVirtual);
    EXPECT_EQ(doc["errors"].size(), 1u);
    EXPECT_EQ(doc["errors"][0]["code"], -1);
}

}  // namespace
