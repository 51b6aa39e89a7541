// The VirtualBox adapter's collecting half: which files and tools each method
// reads and runs, and which failures it records, with a fake VBoxManage, as
// cases in tests/data/virtualbox_methods. What the texts say is the readers'
// part (golden_virtualbox_test); the simulated Mac's end-to-end tests cover
// VirtualBox 7 as a whole.
#include <gtest/gtest.h>

#include "Golden.h"

namespace {

TEST(VirtualBox, MethodsOnTheFilesAndToolsOfACase) {
    implvm_test::CheckGoldenTable("virtualbox_methods", implvm_test::RunMethodCase);
}

}  // namespace
