// The 9.x start's bounded loops in real time: while the Parallels service
// keeps refusing logins, prlctl is tried 40 times, a second apart, before the
// start gives up; a service that never shows up is looked for 40 times.
// (parallels_test counts the pauses instead of waiting them out.)
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
    const uid_t uid = getuid(), euid = geteuid();

    const implvm_test::CallResult r =
        implvm_test::Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", vm.config}});
    EXPECT_EQ(ReapStartChild(), 0);

    EXPECT_EQ(r.result, -4);
    EXPECT_EQ(ParallelsCodes(r), std::vector<int>{-4});
    const auto runs = vm.prlctl.invocations();
    ASSERT_EQ(runs.size(), 40u);
    for (const auto& run : runs) EXPECT_EQ(run.args, (std::vector<std::string>{"start", kUuid}));
    EXPECT_EQ(getuid(), uid);
    EXPECT_EQ(geteuid(), euid);
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
    // The child looks once for the client application before starting it.
    EXPECT_EQ(ps.invocations().size(), 41u);
    EXPECT_EQ(vm.prlctl.invocations().size(), 1u);
}
