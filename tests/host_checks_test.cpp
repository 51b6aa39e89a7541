// The MAC-address vendor check: through the machine root's interfaces, with
// injected failures, and (as root) against the real network stack.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "ImplVirtualMachine.h"
#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::ErrorsFrom;
using implvm_test::Json;
using implvm_test::RunProcess;
using implvm_test::TestMachine;

namespace {

constexpr const char* kImplVmFile = "Impl_Common/ImplVm/ImplVm_Common.cpp";

using Nics = std::vector<std::pair<std::string, std::string>>;

Json Virtual(const char* vendor) {
    return {{"VMCompanyName", vendor}, {"IsMachineVirtual", 1}};
}
const Json kNotVirtual = {{"IsMachineVirtual", 0}};
const Json kCannotTell = {{"VMCompanyName", "Unknown"}, {"IsMachineVirtual", 2}};

struct NicCase {
    const char* name;
    Nics nics;
    const char* failpoints;  // "" for none
    Json outputs;
    std::vector<int> recorded;  // codes the check left in the log
};

class MacAddressVendor : public testing::TestWithParam<NicCase> {};

TEST_P(MacAddressVendor, AnswersFromTheInterfacesAddresses) {
    const auto& c = GetParam();
    TestMachine mac;
    for (const auto& [name, address] : c.nics) mac.addNic(name, address);
    ASSERT_EQ(KALDO::CFailpoints::Set(c.failpoints), 0);

    const auto r = Call(ImplVm_Common_IsMachineVirtual);
    KALDO::CFailpoints::Clear();
    EXPECT_EQ(r.result, 0) << "the method always answers 0";
    EXPECT_EQ(r.outputs, c.outputs);
    std::vector<int> codes;
    for (const auto& e : ErrorsFrom(r.errors, kImplVmFile)) codes.push_back(e.code);
    EXPECT_EQ(codes, c.recorded);
    EXPECT_EQ(r.errors.size(), c.recorded.size());
}

INSTANTIATE_TEST_SUITE_P(
    Interfaces, MacAddressVendor,
    testing::Values(
        NicCase{
            "VirtualBox", {{"en0", "08:00:27:AA:BB:CC"}}, "", Virtual("Oracle Corporation"), {}},
        NicCase{"VMware", {{"en0", "00:0C:29:12:34:56"}}, "", Virtual("VMware, Inc."), {}},
        NicCase{"Paravirtual",
                {{"en0", "00:13:17:00:00:01"}},
                "",
                Virtual("Paravirtual corporation"),
                {}},
        NicCase{"VirtualIron",
                {{"en0", "00:0F:4B:9A:00:01"}},
                "",
                Virtual("Virtual Iron Software, Inc."),
                {}},
        NicCase{"Xen", {{"en0", "00:16:3E:5E:6F:70"}}, "", Virtual("Xensource, Inc."), {}},
        NicCase{"LowerCaseDoesNotMatch", {{"en0", "00:0c:29:ab:cd:ef"}}, "", kNotVirtual, {-1}},
        NicCase{"PrefixAnywhereInTheAddress",
                {{"en0", "AA:00:16:3E:BB:CC"}},
                "",
                Virtual("Xensource, Inc."),
                {}},
        // 08:00:27 comes first in the text, but 00:0C:29 comes
        // first in the table.
        NicCase{"TableOrderBeatsPositionInText",
                {{"en0", "08:00:27:00:0C:29"}},
                "",
                Virtual("VMware, Inc."),
                {}},
        NicCase{"FirstMatchingInterfaceWins",
                {{"en0", "3C:22:FB:01:02:03"},
                 {"en1", "08:00:27:01:02:03"},
                 {"en2", "00:0C:29:01:02:03"}},
                "",
                Virtual("Oracle Corporation"),
                {}},
        NicCase{"NoVendor",
                {{"en0", "3C:22:FB:01:02:03"}, {"en1", "02:00:00:00:00:01"}},
                "",
                kNotVirtual,
                {-1}},
        NicCase{"NoInterfaces", {}, "", kNotVirtual, {-1}},
        NicCase{"UnreadableAndNoMatch",
                {{"en0", "-"}, {"en1", "3C:22:FB:01:02:03"}},
                "",
                kCannotTell,
                {-6}},
        NicCase{"UnreadableThenMatch",
                {{"en0", "-"}, {"en1", "00:16:3E:01:02:03"}},
                "",
                Virtual("Xensource, Inc."),
                {}},
        NicCase{"AddressFailpoint",
                {{"en0", "08:00:27:AA:BB:CC"}},
                "GetMACAddress@en0=-5",
                kCannotTell,
                {-6}},
        NicCase{"ListingRefused",
                {{"en0", "08:00:27:AA:BB:CC"}},
                "GetNetworkDevices=-4",
                kNotVirtual,
                {-4}},
        NicCase{"ListingLocked",
                {{"en0", "08:00:27:AA:BB:CC"}},
                "GetNetworkDevices=-32",
                kNotVirtual,
                {-32}},
        NicCase{"ListingNotFound",
                {{"en0", "08:00:27:AA:BB:CC"}},
                "GetNetworkDevices=-2",
                kNotVirtual,
                {-1}}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(MacAddressCheck, SetsTheVendorOnlyOnAMatch) {
    TestMachine mac;
    mac.addNic("en0", "3C:22:FB:01:02:03");
    std::wstring vendor = L"untouched";
    EXPECT_EQ(macAddressCheck(vendor), -1);
    EXPECT_EQ(vendor, L"untouched");

    mac.addNic("en1", "00:0C:29:01:02:03");
    EXPECT_EQ(macAddressCheck(vendor), 0);
    EXPECT_EQ(vendor, L"VMware, Inc.");
}

// ---- The real network stack, in a network namespace of its own ----

// Runs a command given as separate arguments (never through a shell).
bool Run(const std::vector<std::string>& argv, std::string* diagnostics = nullptr) {
    const auto r = RunProcess(argv);
    if (diagnostics != nullptr) *diagnostics = r.err;
    return r.exitCode == 0;
}

std::string IpTool() {
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (::access(path, X_OK) == 0) return path;
    return "";
}

class NetworkNamespace {
public:
    NetworkNamespace(std::string ip, std::string name)
        : ip_(std::move(ip)), name_(std::move(name)) {
        created_ = Run({ip_, "netns", "add", name_}, &why_);
    }
    ~NetworkNamespace() {
        if (created_) Run({ip_, "netns", "delete", name_});
    }
    bool created() const { return created_; }
    const std::string& why() const { return why_; }

    // An interface with a given hardware address: a dummy where the kernel
    // has them, else one end of a veth pair (the other end gets `peerAddress`).
    bool addInterfaces(const std::string& address, const std::string& peerAddress) {
        const std::vector<std::string> in = {ip_, "-n", name_, "link"};
        auto link = [&](std::vector<std::string> tail) {
            std::vector<std::string> argv = in;
            argv.insert(argv.end(), tail.begin(), tail.end());
            return Run(argv, &why_);
        };
        const bool dummies =
            link({"add", "vm0", "type", "dummy"}) && link({"add", "vm1", "type", "dummy"});
        if (!dummies && !link({"add", "vm0", "type", "veth", "peer", "name", "vm1"})) return false;
        return link({"set", "vm0", "address", address}) &&
               link({"set", "vm1", "address", peerAddress});
    }
    bool setAddress(const std::string& interface, const std::string& address) {
        return Run({ip_, "-n", name_, "link", "set", interface, "address", address}, &why_);
    }
    std::vector<std::string> exec(const std::vector<std::string>& argv) const {
        std::vector<std::string> full = {ip_, "netns", "exec", name_};
        full.insert(full.end(), argv.begin(), argv.end());
        return full;
    }

private:
    std::string ip_, name_, why_;
    bool created_ = false;
};

TEST(MacAddressVendorRealStack, VendorAddressInANetworkNamespace) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create a network namespace";
    const std::string ip = IpTool();
    if (ip.empty()) GTEST_SKIP() << "no ip tool (iproute2) on this machine";
    NetworkNamespace ns(ip, "implvm-test-" + std::to_string(::getpid()));
    if (!ns.created()) GTEST_SKIP() << "cannot create a network namespace here: " << ns.why();
    if (!ns.addInterfaces("02:11:22:33:44:55", "08:00:27:AA:BB:CC"))
        GTEST_SKIP() << "cannot create interfaces in the namespace: " << ns.why();

    // No machine root: the module looks at the namespace's own interfaces.
    const std::vector<std::string> implvm =
        ns.exec({"/usr/bin/env", "-u", "KALDO_ROOT", "-u", "KALDO_FAILPOINTS", IMPLVM_BIN, "call",
                 "ImplVm_Common_IsMachineVirtual"});
    auto r = RunProcess(implvm);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    Json doc = Json::parse(r.out);
    EXPECT_EQ(doc["result"], 0);
    EXPECT_EQ(doc["outputs"], Virtual("Oracle Corporation"));
    EXPECT_EQ(doc["errors"], Json::array());

    // Without a vendor address the answer is "not virtual", with its record.
    ASSERT_TRUE(ns.setAddress("vm1", "02:11:22:33:44:66")) << ns.why();
    r = RunProcess(implvm);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    doc = Json::parse(r.out);
    EXPECT_EQ(doc["outputs"], kNotVirtual);
    ASSERT_EQ(doc["errors"].size(), 1u);
    EXPECT_EQ(doc["errors"][0]["code"], -1);
    EXPECT_TRUE(doc["errors"][0]["file"].get<std::string>().ends_with(kImplVmFile));
}

}  // namespace
