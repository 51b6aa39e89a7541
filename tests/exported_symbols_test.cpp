// The module exports exactly the functions listed in tests/symbols/*.txt
// (one list per part of the module), and implvm offers exactly the method
// functions the module's header declares.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "ElfSymbols.h"
#include "TestMachine.h"

namespace fs = std::filesystem;
using implvm_test::Slurp;

namespace {

TEST(ExportedSymbols, ExactlyTheListedFunctions) {
    std::set<std::string> listed;
    for (const auto& entry : fs::directory_iterator(IMPLVM_SOURCE_DIR "/tests/symbols")) {
        std::istringstream lines(Slurp(entry.path()));
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line.empty() || listed.insert(line).second) << line << " listed twice";
    }
    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;
    EXPECT_EQ(exports.functions, listed);
}

// In the header's order; the internal routines, though exported, are none.
TEST(ExportedSymbols, ImplvmListsTheHeadersMethodFunctions) {
    const std::string header =
        Slurp(IMPLVM_SOURCE_DIR "/Impl_Mac/ImplVirtualMachine/ImplVirtualMachine.h");
    const std::regex declaration(R"(^IMPLVM_METHOD\((\w+)\);)", std::regex::multiline);
    std::string declared;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), declaration);
         it != std::sregex_iterator(); ++it)
        declared += (*it)[1].str() + "\n";
    EXPECT_EQ(implvm_test::Implvm({"methods"}).out, declared);
}

// A damaged module file is an error, never a crash or a made-up list.
TEST(ExportedSymbols, ReaderRejectsDamagedFiles) {
    const std::string module = Slurp(IMPLVM_MODULE_PATH);
    const implvm::ElfExports whole = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    const fs::path scratch = fs::temp_directory_path() / ("implvm-elf-" + std::to_string(getpid()));
    for (size_t length : {size_t{20}, module.size() / 2}) {
        std::ofstream(scratch, std::ios::binary).write(module.data(), static_cast<long>(length));
        const implvm::ElfExports cut = implvm::ReadElfExports(scratch.string());
        EXPECT_FALSE(length < 64 && cut.ok());
        for (const auto& name : cut.functions) EXPECT_TRUE(whole.functions.count(name)) << name;
    }
    fs::remove(scratch);
    EXPECT_FALSE(implvm::ReadElfExports(scratch.string()).ok());
}

}  // namespace
