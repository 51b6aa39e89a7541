// The common methods: versions, the hypervisor type, the hardware-profile
// check, and the frame's code propagation rule.
#include <gtest/gtest.h>

#include "ImplVirtualMachine.h"
#include "KALDO/CDbUtils.h"
#include "KALDO/Failpoints.h"
#include "MethodFrame.h"
#include "TestMachine.h"
#include "TreeJson.h"

using implvm_test::Call;
using implvm_test::ErrorsFrom;
using implvm_test::Json;
using implvm_test::TestMachine;

namespace {

constexpr const char* kCommonFile = "Impl_Mac/ImplVirtualMachine/ImplVirtualMachine_Common.cpp";

std::vector<int> Codes(const std::vector<KALDO::ErrorRecord>& errors) {
    std::vector<int> codes;
    for (const auto& e : errors) codes.push_back(e.code);
    return codes;
}

TEST(GetModuleVersion, ReplacesTheOutputTreeWithTheVersionString) {
    TestMachine mac;
    KALDO::typeProperty outputs;
    outputs.addMapVal(L"Old", 1);
    EXPECT_EQ(VirtualMachineImpl_Common_GetModuleVersion(0, 0, 0, nullptr, nullptr, &outputs), 0);
    EXPECT_EQ(implvm::TreeToJson(outputs), Json("3.6.10676.2"));
    EXPECT_EQ(VirtualMachineImpl_Common_GetModuleVersion(0, 0, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(KALDO::CErrorInfo::getErrors().empty());
}

TEST(GetHypervisorType, ConvertsTheInputOrAnswersMinusThreeUnrecorded) {
    TestMachine mac;
    const std::pair<Json, int> rows[] = {
        {{{"HYPER_TYPE", "2"}}, 2},      {{{"HYPER_TYPE", " 12abc"}}, 12},
        {{{"HYPER_TYPE", "vmware"}}, 0}, {{{"Other", "2"}}, -3},
        {{{"HYPER_TYPE", 2}}, -3},  // an integer is not the text asked for
    };
    for (const auto& [inputs, value] : rows) {
        const auto r = Call(VirtualMachineImpl_Common_GetHypervisorType, inputs);
        EXPECT_EQ(r.result, value < 0 ? value : 0) << inputs;
        const Json expected = value < 0 ? Json() : Json{{"HypervisorType", value}};
        EXPECT_EQ(r.outputs, expected);
        EXPECT_TRUE(r.errors.empty());
    }
    KALDO::typeProperty tree;
    tree.addMapVal(L"HYPER_TYPE", L"2");
    EXPECT_EQ(VirtualMachineImpl_Common_GetHypervisorType(0, 0, 0, nullptr, nullptr, &tree), -3);
    EXPECT_EQ(VirtualMachineImpl_Common_GetHypervisorType(0, 0, 0, nullptr, &tree, nullptr), -3);
}

class GetProductVersion : public testing::Test {
protected:
    void SetUp() override {
        mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "12.2.1");
    }
    void TearDown() override {
        KALDO::CDbUtils::clearDefaultInputs();
        KALDO::CFailpoints::Clear();
    }
    TestMachine mac;
};

TEST_F(GetProductVersion, ReadsTheBundleVersionFromGivenOrRegisteredInputs) {
    auto r = Call(VirtualMachineImpl_Common_GetProductVersion, {{"BundleId", "com.vmware.fusion"}});
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs.value("ProductVersion", ""), "12.2.1");
    EXPECT_TRUE(r.errors.empty());
    KALDO::typeProperty defaults;
    defaults.addMapVal(L"BundleId", L"com.vmware.fusion");
    ASSERT_EQ(KALDO::CDbUtils::registerDefaultInputs(0, 0, 0, defaults), 0);
    r = Call(VirtualMachineImpl_Common_GetProductVersion);
    EXPECT_EQ(r.outputs.value("ProductVersion", ""), "12.2.1");
}

TEST_F(GetProductVersion, FailuresAreRecorded) {
    const struct {
        Json inputs;
        std::string failpoint;
        int code;
    } rows[] = {
        {{{"BundleId", "org.virtualbox.app.VirtualBox"}}, "", KALDO::kNotFound},
        {Json::object(), "", KALDO::kInvalidArgument},
        // Merging the inputs is -1 whatever its code.
        {{{"BundleId", "com.vmware.fusion"}}, "getInputsForMethod=-4", -1},
    };
    for (const auto& row : rows) {
        if (!row.failpoint.empty()) {
            ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        }
        const auto r = Call(VirtualMachineImpl_Common_GetProductVersion, row.inputs);
        EXPECT_EQ(r.result, row.code) << row.inputs.dump();
        EXPECT_TRUE(r.outputs.is_null());
        EXPECT_EQ(Codes(ErrorsFrom(r.errors, kCommonFile)), std::vector<int>{row.code});
        EXPECT_EQ(r.errors.size(), 1u);
    }
}

TEST(PropagationRule, KeepsRefusedAndLockedFoldsTheRest) {
    static_assert(ImplVm::Propagate(-4) == -4 && ImplVm::Propagate(-32) == -32);
    for (const auto& [callee, reported] : {std::pair{-4, -4}, {-32, -32}, {-2, -1}, {-7, -1}}) {
        TestMachine mac;
        ASSERT_EQ(KALDO::CFailpoints::Set("GetNetworkDevices=" + std::to_string(callee)), 0);
        std::wstring vendor = L"Unknown";
        EXPECT_EQ(macAddressCheck(vendor), reported);
        EXPECT_EQ(vendor, L"Unknown");
        EXPECT_EQ(Codes(ErrorsFrom(KALDO::CErrorInfo::getErrors(), "ImplVm_Common.cpp")),
                  std::vector<int>{reported});
    }
}

TEST(IsMachineVirtual, DecidesFromTheMarkersInTheHardwareReport) {
    const Json notVirtual = {{"IsMachineVirtual", 0}};
    const Json vmware = {{"IsMachineVirtual", 1}, {"VMCompanyName", "VMware, Inc."}};
    const Json oracle = {{"IsMachineVirtual", 1}, {"VMCompanyName", "Oracle Corporation"}};
    const struct {
        std::string report;
        int exitCode;
        Json outputs;
    } rows[] = {
        {"Hardware:\n  Model Identifier: VMware7,1\n", 1, vmware},  // exit status ignored
        {"SATA:\n  VBOX HARDDISK:\nModel Name: VMware Virtual Platform\n", 0, vmware},
        {"Serial-ATA:\n  Model: VBOX HARDDISK\n", 0, oracle},
        {"Disk: vmware virtual disk\nvbox harddisk\n", 0, notVirtual},
        {"Hardware:\n  Model Identifier: MacBookPro18,3\n", 0, notVirtual},
    };
    for (const auto& row : rows) {
        TestMachine mac;
        auto& profiler = mac.installTool("/usr/sbin/system_profiler");
        profiler.respond(row.report, row.exitCode);
        const auto r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.outputs, row.outputs) << row.report;
        EXPECT_TRUE(r.errors.empty());
        EXPECT_EQ(profiler.invocations().at(0).args,
                  (std::vector<std::string>{"SPHardwareDataType", "SPParallelATADataType",
                                            "SPSerialATADataType", "SPHardwareRAIDDataType",
                                            "SPParallelSCSIDataType", "SPStorageDataType"}));
    }
}

TEST(IsMachineVirtual, ToolThatCannotRunIsARecordedMinusOneWhateverTheCause) {
    for (const char* failpoint : {"", "ExecuteSafeToText@system_profiler=-4"}) {
        TestMachine mac;
        if (*failpoint) {
            mac.installTool("/usr/sbin/system_profiler").respond("VMware");
            ASSERT_EQ(KALDO::CFailpoints::Set(failpoint), 0);
        }
        const auto r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
        EXPECT_EQ(r.result, -1) << failpoint;
        EXPECT_TRUE(r.outputs.is_null());
        EXPECT_EQ(Codes(ErrorsFrom(r.errors, kCommonFile)), std::vector<int>{-1});
    }
}

}  // namespace
