// The module exports exactly the functions of its method list and its
// internal routines, and implvm offers exactly the listed method functions.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "Methods.h"
#include "TestMachine.h"

namespace {

TEST(ExportedSymbols, ExactlyTheListedFunctions) {
    std::set<std::string> listed;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods)
        EXPECT_TRUE(listed.emplace(method.name).second) << method.name << " listed twice";
    for (std::string_view routine : ImplVm::kRoutineNames)
        EXPECT_TRUE(listed.emplace(routine).second) << routine << " listed twice";
    // nm reads the dynamic symbol table without loading the module, which
    // would also resolve names from the libraries it depends on.
    const implvm_test::ProcessResult nm = implvm_test::RunProcess(
        {"nm", "-D", "--defined-only", "--extern-only", IMPLVM_MODULE_PATH});
    ASSERT_EQ(nm.exitCode, 0) << nm.err;
    std::set<std::string> functions;
    std::istringstream lines(nm.out);
    for (std::string address, type, name; lines >> address >> type >> name;)
        if (type == "T" || type == "W" || type == "i") functions.insert(name);
    EXPECT_EQ(functions, listed);
}

TEST(ExportedSymbols, ImplvmListsTheMethodFunctions) {
    std::string listed;
    for (const ImplVm::MethodEntry& method : ImplVm::kMethods) (listed += method.name) += '\n';
    EXPECT_EQ(implvm_test::Implvm({"methods"}).out, listed);
}

}  // namespace
