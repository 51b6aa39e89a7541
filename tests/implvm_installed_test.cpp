// Finding the installed hypervisors and the methods that fit their versions.
#include <gtest/gtest.h>

#include "Installed.h"
#include "TestMachine.h"

using implvm::Hypervisor;
using implvm::VmAction;

namespace {

// A method's name without the module's prefix, "-" for none.
std::string Short(const char* method) {
    if (method == nullptr) return "-";
    const std::string name = method;
    return name.substr(name.find('_') + 1);
}

// "enumerate start(argument) stop-command pause snapshot-take"
std::string Summary(const implvm::ProductMethods& m) {
    const implvm::ActionMethod& start = m.action(VmAction::kStart);
    const implvm::ActionMethod& stop = m.action(VmAction::kStop);
    const char* arguments[] = {"id", "config", "name"};
    return Short(m.enumerate) + " " + Short(start.method) +
           (start ? std::string("(") + arguments[static_cast<int>(start.argument)] + ")" : "") +
           " " + (stop ? (stop.command != nullptr ? stop.command : "\"\"") : "-") + " " +
           Short(m.action(VmAction::kPause).method) + " " +
           Short(m.action(VmAction::kSnapshotTake).method);
}

TEST(Installed, ProductVersionsPickTheMethodsWrittenForThem) {
    const implvm::Module module(IMPLVM_MODULE_PATH);
    const auto p = Hypervisor::kParallels, f = Hypervisor::kVmWareFusion,
               v = Hypervisor::kVirtualBox;
    const struct {
        Hypervisor hypervisor;
        const char* version;
        const char* methods;
    } rows[] = {
        // clang-format off
        {p, "3.0", "- - - - -"},
        {p, "8.0.18619", "Parallels4_EnumerateVMs Parallels4_StartVM(id) - - -"},
        {p, "9.0.24172", "Parallels4_EnumerateVMs Parallels_9_X_StartVM(config) stop Parallels_9_X_OperateVM -"},
        {f, "3.1.4", "VmWareFusion1_EnumerateVMs VmWareFusion1_StartVM(id) \"\" - -"},
        {f, "4.1.3", "VmWareFusion1_EnumerateVMs VmWareFusion1_StartVM(id) \"\" - VmWareFusion4_AddSnapshot"},
        {f, "5.0.0", "VmWareFusion_5x_EnumerateVMs VmWareFusion1_StartVM(id) \"\" - VmWareFusion4_AddSnapshot"},
        {v, "1.6.6", "- - - - -"},
        {v, "3.2.28", "VirtualBox2_EnumerateVMs - - - -"},
        {v, "4.3.12", "VirtualBox2_EnumerateVMs VirtualBox_4_X_StartVM(name) \"\" VirtualBox_4_X_PauseVM -"},
        // clang-format on
    };
    for (const auto& row : rows) {
        implvm_test::TestMachine mac;
        mac.setConsoleUser("ann", 501, "/Users/ann");
        mac.installApp("/Applications/Any.app", implvm::FactsOf(row.hypervisor).bundleId,
                       row.version);
        const implvm::Product product = implvm::FindProduct(module, row.hypervisor);
        EXPECT_TRUE(product.installed);
        EXPECT_EQ(product.version + " " + product.appPath,
                  row.version + std::string(" /Applications/Any.app"));
        EXPECT_EQ(Summary(product.methods), row.methods) << row.version;
        EXPECT_EQ(product.served(), row.methods[0] != '-');
        EXPECT_EQ(product.methods.info == nullptr, !product.served());
    }
}

}  // namespace
