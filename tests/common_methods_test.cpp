// The common methods: module and product versions, the hypervisor type,
// the hardware-profile check, and the frame's code propagation rule.
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
constexpr const char* kImplVmFile = "Impl_Common/ImplVm/ImplVm_Common.cpp";

std::vector<int> Codes(const std::vector<KALDO::ErrorRecord>& errors) {
    std::vector<int> codes;
    for (const auto& e : errors) codes.push_back(e.code);
    return codes;
}

// ---- GetModuleVersion ----

TEST(GetModuleVersion, SetsTheOutputTreeItselfToTheVersionString) {
    TestMachine mac;
    const auto r = Call(VirtualMachineImpl_Common_GetModuleVersion);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs, Json("3.6.10676.2"));
    EXPECT_TRUE(r.errors.empty());
}

TEST(GetModuleVersion, ReplacesAMapOutputAndAnswersZeroForANullTree) {
    TestMachine mac;
    KALDO::typeProperty outputs;
    outputs.addMapVal(L"Old", 1);
    EXPECT_EQ(VirtualMachineImpl_Common_GetModuleVersion(0, 0, 0, nullptr, nullptr, &outputs), 0);
    EXPECT_EQ(implvm::TreeToJson(outputs), Json("3.6.10676.2"));
    EXPECT_EQ(VirtualMachineImpl_Common_GetModuleVersion(0, 0, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(KALDO::CErrorInfo::getErrors().empty());
}

// ---- GetHypervisorType ----

struct HypervisorTypeCase {
    const char* name;
    Json inputs;
    int result;
    Json outputs;
};

class GetHypervisorType : public testing::TestWithParam<HypervisorTypeCase> {};

TEST_P(GetHypervisorType, ConvertsTheInputOrAnswersMinusThreeUnrecorded) {
    TestMachine mac;
    const auto& c = GetParam();
    const auto r = Call(VirtualMachineImpl_Common_GetHypervisorType, c.inputs);
    EXPECT_EQ(r.result, c.result);
    EXPECT_EQ(r.outputs, c.outputs);
    EXPECT_TRUE(r.errors.empty()) << "no path of this method records an error";
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, GetHypervisorType,
    testing::Values(
        HypervisorTypeCase{"Two", {{"HYPER_TYPE", "2"}}, 0, {{"HypervisorType", 2}}},
        HypervisorTypeCase{"Negative", {{"HYPER_TYPE", "-7"}}, 0, {{"HypervisorType", -7}}},
        HypervisorTypeCase{
            "LeadingNumber", {{"HYPER_TYPE", " 12abc"}}, 0, {{"HypervisorType", 12}}},
        HypervisorTypeCase{"NotANumber", {{"HYPER_TYPE", "vmware"}}, 0, {{"HypervisorType", 0}}},
        HypervisorTypeCase{"Missing", {{"Other", "2"}}, -3, nullptr},
        HypervisorTypeCase{"IntegerNotText", {{"HYPER_TYPE", 2}}, -3, nullptr}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(GetHypervisorTypeNull, NullTreesAnswerMinusThreeWithoutRecord) {
    TestMachine mac;
    KALDO::typeProperty inputs;
    inputs.addMapVal(L"HYPER_TYPE", L"2");
    KALDO::typeProperty outputs;
    EXPECT_EQ(VirtualMachineImpl_Common_GetHypervisorType(0, 0, 0, nullptr, nullptr, &outputs), -3);
    EXPECT_EQ(VirtualMachineImpl_Common_GetHypervisorType(0, 0, 0, nullptr, &inputs, nullptr), -3);
    EXPECT_TRUE(outputs.isEmpty());
    EXPECT_TRUE(KALDO::CErrorInfo::getErrors().empty());
}

// ---- GetProductVersion ----

class GetProductVersion : public testing::Test {
protected:
    void SetUp() override {
        mac.installApp("/Applications/VMware Fusion.app", "com.vmware.fusion", "12.2.1");
    }
    void TearDown() override { KALDO::CDbUtils::clearDefaultInputs(); }
    TestMachine mac;
};

TEST_F(GetProductVersion, WritesTheBundleVersionAndAnswersZero) {
    const auto r = Call(VirtualMachineImpl_Common_GetProductVersion,
                        {{"BundleId", "com.vmware.fusion"}}, "12.0.0");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs.value("ProductVersion", ""), "12.2.1");
    EXPECT_TRUE(r.errors.empty());
}

TEST_F(GetProductVersion, ReadsTheInputsTheHostRegistered) {
    KALDO::typeProperty defaults;
    defaults.addMapVal(L"BundleId", L"com.vmware.fusion");
    ASSERT_EQ(KALDO::CDbUtils::registerDefaultInputs(0, 0, 0, defaults), 0);
    const auto r = Call(VirtualMachineImpl_Common_GetProductVersion);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs.value("ProductVersion", ""), "12.2.1");
}

TEST_F(GetProductVersion, PassesTheLibrarysFailureCodeThroughAndRecordsIt) {
    struct Case {
        Json inputs;
        int code;
    };
    for (const Case& c : {Case{{{"BundleId", "org.virtualbox.app.VirtualBox"}}, KALDO::kNotFound},
                          Case{Json::object(), KALDO::kInvalidArgument}}) {
        KALDO::CErrorInfo::clearErrors();
        const auto r = Call(VirtualMachineImpl_Common_GetProductVersion, c.inputs);
        EXPECT_EQ(r.result, c.code) << c.inputs.dump();
        EXPECT_EQ(Codes(ErrorsFrom(r.errors, kCommonFile)), std::vector<int>{c.code});
        EXPECT_EQ(r.errors.size(), 1u);
    }
}

TEST_F(GetProductVersion, InputMergingFailureIsMinusOneWhateverItsCode) {
    for (const char* failpoint :
         {"getInputsForMethod=-4", "getInputsForMethod=-32", "getInputsForMethod=-2"}) {
        ASSERT_EQ(KALDO::CFailpoints::Set(failpoint), 0);
        const auto r =
            Call(VirtualMachineImpl_Common_GetProductVersion, {{"BundleId", "com.vmware.fusion"}});
        EXPECT_EQ(r.result, -1) << failpoint;
        EXPECT_TRUE(r.outputs.is_null()) << failpoint;
        ASSERT_EQ(r.errors.size(), 1u) << failpoint;
        EXPECT_EQ(ErrorsFrom(r.errors, kCommonFile).size(), 1u) << failpoint;
        EXPECT_EQ(r.errors[0].code, -1);
        EXPECT_GT(r.errors[0].line, 0);
    }
    KALDO::CFailpoints::Clear();
}

// ---- The propagation rule, through a real failing callee ----

struct PropagationCase {
    int calleeCode;
    int reported;
};

class PropagationRule : public testing::TestWithParam<PropagationCase> {};

TEST_P(PropagationRule, KeepsRefusedAndLockedFoldsTheRest) {
    const auto [callee, reported] = GetParam();
    static_assert(ImplVm::Propagate(-4) == -4 && ImplVm::Propagate(-32) == -32);
    EXPECT_EQ(ImplVm::Propagate(callee), reported);

    TestMachine mac;
    ASSERT_EQ(KALDO::CFailpoints::Set("GetNetworkDevices=" + std::to_string(callee)), 0);
    std::wstring vendor = L"Unknown";
    EXPECT_EQ(macAddressCheck(vendor), reported);
    EXPECT_EQ(vendor, L"Unknown");
    const auto errors = KALDO::CErrorInfo::getErrors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].code, reported);
    EXPECT_EQ(ErrorsFrom(errors, kImplVmFile).size(), 1u);
    KALDO::CFailpoints::Clear();
}

INSTANTIATE_TEST_SUITE_P(Codes, PropagationRule,
                         testing::Values(PropagationCase{-4, -4}, PropagationCase{-32, -32},
                                         PropagationCase{-2, -1}, PropagationCase{-3, -1},
                                         PropagationCase{-5, -1}, PropagationCase{-6, -1},
                                         PropagationCase{-7, -1}));

// ---- IsMachineVirtual (hardware profile) ----

struct ProfileCase {
    const char* name;
    std::string report;
    int exitCode;
    Json outputs;
};

const Json kNotVirtual = {{"IsMachineVirtual", 0}};
const Json kVMware = {{"IsMachineVirtual", 1}, {"VMCompanyName", "VMware, Inc."}};
const Json kOracle = {{"IsMachineVirtual", 1}, {"VMCompanyName", "Oracle Corporation"}};

class IsMachineVirtualProfile : public testing::TestWithParam<ProfileCase> {};

TEST_P(IsMachineVirtualProfile, DecidesFromTheMarkersInTheReport) {
    const auto& c = GetParam();
    TestMachine mac;
    auto& profiler = mac.installTool("/usr/sbin/system_profiler");
    profiler.respond(c.report, c.exitCode);

    const auto r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.outputs, c.outputs);
    EXPECT_TRUE(r.errors.empty());
    ASSERT_EQ(profiler.invocations().size(), 1u);
    EXPECT_EQ(profiler.invocations()[0].args,
              (std::vector<std::string>{"SPHardwareDataType", "SPParallelATADataType",
                                        "SPSerialATADataType", "SPHardwareRAIDDataType",
                                        "SPParallelSCSIDataType", "SPStorageDataType"}));
}

INSTANTIATE_TEST_SUITE_P(
    Reports, IsMachineVirtualProfile,
    testing::Values(
        ProfileCase{"VMwareModel", "Hardware:\n  Model Identifier: VMware7,1\n", 0, kVMware},
        ProfileCase{"VMwareWinsOverEarlierVBOX",
                    "SATA:\n  VBOX HARDDISK:\nHardware:\n  Model Name: VMware "
                    "Virtual Platform\n",
                    0, kVMware},
        ProfileCase{"VBOXDisk", "Serial-ATA:\n  Model: VBOX HARDDISK\n", 0, kOracle},
        ProfileCase{"LowerCaseVmwareOnly", "Disk: vmware virtual disk\n", 0, kNotVirtual},
        ProfileCase{"LowerCaseVbox", "Disk: vbox harddisk\n", 0, kNotVirtual},
        ProfileCase{"RealMac", "Hardware:\n  Model Identifier: MacBookPro18,3\n", 0, kNotVirtual},
        ProfileCase{"EmptyReport", "", 0, kNotVirtual},
        ProfileCase{"ExitStatusIgnored", "Model Name: VMware7,1\n", 1, kVMware}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(IsMachineVirtualProfileFailure, ToolThatCannotRunIsARecordedMinusOneWithoutOutputs) {
    TestMachine mac;  // no system_profiler anywhere in the machine
    auto r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
    EXPECT_EQ(r.result, -1);
    EXPECT_TRUE(r.outputs.is_null());
    EXPECT_EQ(Codes(r.errors), std::vector<int>{-1});
    EXPECT_EQ(ErrorsFrom(r.errors, kCommonFile).size(), 1u);

    // Even a refusal from the runner is -1 here: this method does not pass
    // the runner's code on.
    mac.installTool("/usr/sbin/system_profiler").respond("VMware");
    for (const char* failpoint :
         {"ExecuteSafeToText@system_profiler=-4", "ExecuteSafeToText@system_profiler=-32"}) {
        ASSERT_EQ(KALDO::CFailpoints::Set(failpoint), 0);
        r = Call(VirtualMachineImpl_Common_IsMachineVirtual);
        EXPECT_EQ(r.result, -1) << failpoint;
        EXPECT_TRUE(r.outputs.is_null()) << failpoint;
        EXPECT_EQ(Codes(r.errors), std::vector<int>{-1}) << failpoint;
    }
    KALDO::CFailpoints::Clear();
}

}  // namespace
