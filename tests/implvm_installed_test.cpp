// Finding the installed hypervisors and the methods that fit their versions.
#include <gtest/gtest.h>

#include "Installed.h"
#include "TestMachine.h"

using implvm::Hypervisor;
using implvm::VmAction;
using implvm::VmArgument;

namespace {

const implvm::Module& TheModule() {
    static const implvm::Module module(IMPLVM_MODULE_PATH);
    return module;
}

std::string Text(const char* s) {
    return s != nullptr ? s : "-";
}

struct VersionCase {
    const char* name;
    Hypervisor hypervisor;
    const char* version;
    bool served;
    const char* enumerate;
    const char* start;
    VmArgument startArgument;
    const char* stopCommand;  // "-" when there is no stop; "" when stop takes no command
    const char* pause;
    const char* snapshotTake;
};

class ProductVersions : public testing::TestWithParam<VersionCase> {};

TEST_P(ProductVersions, PickTheMethodsWrittenForThem) {
    const VersionCase& c = GetParam();
    implvm_test::TestMachine mac;
    mac.setConsoleUser("ann", 501, "/Users/ann");
    const char* bundle = "/Applications/Some Hypervisor.app";
    mac.installApp(bundle, implvm::FactsOf(c.hypervisor).bundleId, c.version);

    const implvm::Product p = implvm::FindProduct(TheModule(), c.hypervisor);
    EXPECT_EQ(p.versionCall.result, 0);
    EXPECT_TRUE(p.installed);
    EXPECT_EQ(p.version, c.version);
    EXPECT_EQ(p.appPath, bundle);
    EXPECT_EQ(p.served(), c.served);
    EXPECT_EQ(Text(p.methods.enumerate), Text(c.enumerate));
    EXPECT_EQ(p.methods.info == nullptr, !c.served);
    const implvm::ActionMethod& start = p.methods.action(VmAction::kStart);
    EXPECT_EQ(Text(start.method), Text(c.start));
    if (start) {
        EXPECT_EQ(start.argument, c.startArgument);
    }
    const implvm::ActionMethod& stop = p.methods.action(VmAction::kStop);
    EXPECT_EQ(stop ? (stop.command != nullptr ? stop.command : "") : "-",
              std::string(c.stopCommand));
    EXPECT_EQ(Text(p.methods.action(VmAction::kPause).method), Text(c.pause));
    EXPECT_EQ(Text(p.methods.action(VmAction::kSnapshotTake).method), Text(c.snapshotTake));
}

constexpr const char* kNone = nullptr;
constexpr auto kId = VmArgument::kIdentifier;

// clang-format off
const VersionCase kVersionCases[] = {
    {"Parallels3", Hypervisor::kParallels, "3.0", false, kNone, kNone, kId, "-", kNone, kNone},
    {"Parallels8", Hypervisor::kParallels, "8.0.18619", true,
     "VirtualMachineImpl_Parallels4_EnumerateVMs", "VirtualMachineImpl_Parallels4_StartVM", kId,
     "-", kNone, kNone},
    {"Parallels9", Hypervisor::kParallels, "9.0.24172", true,
     "VirtualMachineImpl_Parallels4_EnumerateVMs", "ImplVirtualMachine_Parallels_9_X_StartVM",
     VmArgument::kConfigFile, "stop", "ImplVirtualMachine_Parallels_9_X_OperateVM", kNone},
    {"Fusion3", Hypervisor::kVmWareFusion, "3.1.4", true,
     "VirtualMachineImpl_VmWareFusion1_EnumerateVMs", "VirtualMachineImpl_VmWareFusion1_StartVM",
     kId, "", kNone, kNone},
    {"Fusion4", Hypervisor::kVmWareFusion, "4.1.3", true,
     "VirtualMachineImpl_VmWareFusion1_EnumerateVMs", "VirtualMachineImpl_VmWareFusion1_StartVM",
     kId, "", kNone, "VirtualMachineImpl_VmWareFusion4_AddSnapshot"},
    {"Fusion5", Hypervisor::kVmWareFusion, "5.0.0", true,
     "VirtualMachineImpl_VmWareFusion_5x_EnumerateVMs", "VirtualMachineImpl_VmWareFusion1_StartVM",
     kId, "", kNone, "VirtualMachineImpl_VmWareFusion4_AddSnapshot"},
    {"VirtualBox1", Hypervisor::kVirtualBox, "1.6.6", false, kNone, kNone, kId, "-", kNone, kNone},
    {"VirtualBox3", Hypervisor::kVirtualBox, "3.2.28", true,
     "VirtualMachineImpl_VirtualBox2_EnumerateVMs", kNone, kId, "-", kNone, kNone},
    {"VirtualBox4", Hypervisor::kVirtualBox, "4.3.12", true,
     "VirtualMachineImpl_VirtualBox2_EnumerateVMs", "VirtualMachineImpl_VirtualBox_4_X_StartVM",
     VmArgument::kMachineName, "", "VirtualMachineImpl_VirtualBox_4_X_PauseVM", kNone},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Boundaries, ProductVersions, testing::ValuesIn(kVersionCases),
                         [](const testing::TestParamInfo<VersionCase>& p) {
                             return std::string(p.param.name);
                         });

TEST(Installed, ConfigFileOfABundle) {
    EXPECT_EQ(implvm::ConfigFileOf("/Users/ann/Parallels/Win.pvm"),
              "/Users/ann/Parallels/Win.pvm/config.pvs");
    EXPECT_EQ(implvm::ConfigFileOf("/Users/ann/Parallels/Win.pvm/"),
              "/Users/ann/Parallels/Win.pvm/config.pvs");
}

}  // namespace
