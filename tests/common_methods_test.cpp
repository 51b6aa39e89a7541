// Whether this Mac is itself a VM by its hardware report and by its network
// interfaces' addresses (with fakes, and as root in a network namespace).
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "Golden.h"
#include "TestMachine.h"

using implvm_test::Json;

namespace {

// Keys in the order the network check writes them.
Json Virtual(const char* vendor) {
    return {{"VMCompanyName", vendor}, {"IsMachineVirtual", 1}};
}
const Json kNotVirtual = {{"IsMachineVirtual", 0}};

// The hardware report's markers, VMware's first, and the vendor prefixes of
// the interfaces' addresses, in table order: tests/data/common_methods.
TEST(IsMachineVirtual, ByHardwareReportAndAddressPrefixes) {
    implvm_test::CheckGoldenTable("common_methods", implvm_test::RunMethodCase);
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
