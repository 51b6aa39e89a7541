// VMware Fusion, what the adapter collects: the files and folders it reads,
// the process table, vmrun's runs and exits, and the error records the
// methods leave, as cases in tests/data/vmware_methods. What the texts say
// is the readers' (golden_vmware_test); the corpus suite runs real files
// through the methods.
#include <gtest/gtest.h>

#include "Golden.h"

namespace {

TEST(VmWare, MethodsOnTheFilesAndToolsOfACase) {
    implvm_test::CheckGoldenTable("vmware_methods", implvm_test::RunMethodCase);
}

}  // namespace
