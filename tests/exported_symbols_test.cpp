// The module exports exactly the functions of its method list and its
// internal routines, and implvm offers exactly the listed method functions.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "ElfSymbols.h"
#include "Methods.h"
#include "TestMachine.h"

namespace {

TEST(ExportedSymbols, ExactlyTheListedFunctions) {
    std::set<std::string> listed;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods)
        EXPECT_TRUE(listed.emplace(method.name).second) << method.name << " listed twice";
    for (std::string_view routine : ImplVm::kRoutineNames)
        EXPECT_TRUE(listed.emplace(routine).second) << routine << " listed twice";
    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;
    EXPECT_EQ(exports.functions, listed);
}

TEST(ExportedSymbols, ImplvmListsTheMethodFunctions) {
    std::string listed;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods) (listed += method.name) += '\n';
    EXPECT_EQ(implvm_test::Implvm({"methods"}).out, listed);
}

}  // namespace
