// The module exports exactly the functions listed in tests/symbols/*.txt
// (one list per part of the module), and the host's list of method functions
// matches the module's header.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "ElfSymbols.h"
#include "MethodNames.h"

namespace fs = std::filesystem;

namespace {

std::string ReadText(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

TEST(ExportedSymbols, ExactlyTheListedFunctions) {
    std::set<std::string> listed;
    for (const auto& entry : fs::directory_iterator(IMPLVM_SOURCE_DIR "/tests/symbols")) {
        std::istringstream lines(ReadText(entry.path()));
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line.empty() || listed.insert(line).second) << line << " listed twice";
    }
    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;
    EXPECT_EQ(exports.functions, listed);
}

TEST(ExportedSymbols, HostMethodListMatchesTheModuleHeader) {
    const std::string header =
        ReadText(IMPLVM_SOURCE_DIR "/Impl_Mac/ImplVirtualMachine/ImplVirtualMachine.h");
    const std::regex declaration(R"(^IMPLVM_METHOD\((\w+)\);)", std::regex::multiline);
    std::vector<std::string> declared;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), declaration);
         it != std::sregex_iterator(); ++it)
        declared.push_back((*it)[1]);
    EXPECT_EQ(
        std::vector<std::string>(std::begin(implvm::kMethodNames), std::end(implvm::kMethodNames)),
        declared);
}

// A damaged module file is an error, never a crash or a made-up list.
TEST(ExportedSymbols, ReaderRejectsDamagedFiles) {
    const std::string module = ReadText(IMPLVM_MODULE_PATH);
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
