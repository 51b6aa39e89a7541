// The 9.x start's bounded loops in real time (parallels_test counts the
// pauses instead): 40 refused prlctl runs, 40 looks for a missing service.
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ImplVirtualMachine.h"
#include "ParallelsMachine.h"

using namespace parallels_test;

TEST(Parallels9StartVMSlow, GivesUpAfterFortyRefusedAttempts) {
    Parallels9Mac vm;
    vm.prlctl.respond("", 255, "Login failed: Unable to connect to Parallels Service\n");
    const implvm_test::CallResult r =
        implvm_test::Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", vm.config}});
    EXPECT_EQ(ReapStartChild(), 0);
    EXPECT_EQ(r.result, -4);
    EXPECT_EQ(ParallelsCodes(r), std::vector<int>{-4});
    EXPECT_EQ(vm.prlctl.invocations().size(), 40u);
}

TEST(Parallels9StartVMSlow, LooksFortyTimesForAServiceThatIsNotUp) {
    Parallels9Mac vm;
    implvm_test::FakeTool& ps = vm.mac.installTool("/bin/ps");
    ps.respond(PsListing({"/usr/sbin/cfprefsd agent"}));
    vm.prlctl.respond("Starting the VM...\nThe VM has been successfully started.\n");
    const implvm_test::CallResult r =
        implvm_test::Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", vm.config}});
    EXPECT_EQ(ReapStartChild(), 0);
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(ps.invocations().size(), 41u) << "and once by the child for the client application";
    EXPECT_EQ(vm.prlctl.invocations().size(), 1u);
}
