// The module exports exactly the functions listed in tests/symbols/*.txt
// (one list per part of the module, added as each part is built), and the
// host's list of method functions matches the module's header.
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
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string Join(const std::set<std::string>& names) {
    std::string text;
    for (const auto& n : names) text += "\n  " + n;
    return text;
}

TEST(ExportedSymbols, ExactlyTheListedFunctions) {
    std::set<std::string> listed;
    int lists = 0;
    for (const auto& entry : fs::directory_iterator(IMPLVM_SOURCE_DIR "/tests/symbols")) {
        if (entry.path().extension() != ".txt") continue;
        ++lists;
        std::istringstream lines(ReadText(entry.path()));
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.empty()) continue;
            EXPECT_TRUE(listed.insert(line).second)
                << line << " is listed twice (" << entry.path().filename() << ")";
        }
    }
    ASSERT_GT(lists, 0);

    const implvm::ElfExports exports = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(exports.ok()) << exports.error;

    std::set<std::string> unexpected, missing;
    for (const auto& name : exports.functions)
        if (!listed.count(name)) unexpected.insert(name);
    for (const auto& name : listed)
        if (!exports.functions.count(name)) missing.insert(name);
    EXPECT_TRUE(unexpected.empty()) << "exported but not listed:" << Join(unexpected);
    EXPECT_TRUE(missing.empty()) << "listed but not exported:" << Join(missing);
}

TEST(ExportedSymbols, HostMethodListMatchesTheModuleHeader) {
    const std::string header =
        ReadText(IMPLVM_SOURCE_DIR "/Impl_Mac/ImplVirtualMachine/ImplVirtualMachine.h");
    const std::regex declaration(R"(^IMPLVM_METHOD\((\w+)\);)", std::regex::multiline);
    std::vector<std::string> declared;
    for (auto it = std::sregex_iterator(header.begin(), header.end(), declaration);
         it != std::sregex_iterator(); ++it)
        declared.push_back((*it)[1]);
    const std::vector<std::string> known(std::begin(implvm::kMethodNames),
                                         std::end(implvm::kMethodNames));
    EXPECT_EQ(known, declared);
}

// A damaged file is an error, never a crash or a made-up list.
TEST(ExportedSymbols, ReaderRejectsDamagedFiles) {
    const std::string module = ReadText(IMPLVM_MODULE_PATH);
    const implvm::ElfExports whole = implvm::ReadElfExports(IMPLVM_MODULE_PATH);
    ASSERT_TRUE(whole.ok()) << whole.error;

    const fs::path scratch =
        fs::temp_directory_path() / ("implvm-elf-" + std::to_string(::getpid()));
    for (size_t length : {size_t{0}, size_t{3}, size_t{20}, size_t{64}, size_t{1000},
                          module.size() / 2, module.size() - 1}) {
        std::ofstream(scratch, std::ios::binary).write(module.data(), static_cast<long>(length));
        const implvm::ElfExports cut = implvm::ReadElfExports(scratch.string());
        if (cut.ok()) {
            // Only the end of the file is missing: whatever is read must be right.
            for (const auto& name : cut.functions) EXPECT_TRUE(whole.functions.count(name)) << name;
        } else {
            EXPECT_TRUE(cut.functions.empty()) << length;
        }
        EXPECT_FALSE(length < 64 && cut.ok()) << "a " << length << "-byte file has no symbols";
    }
    std::ofstream(scratch, std::ios::binary) << "#!/bin/sh\necho not a library\n";
    EXPECT_FALSE(implvm::ReadElfExports(scratch.string()).ok());
    fs::remove(scratch);
    EXPECT_FALSE(implvm::ReadElfExports(scratch.string()).ok());
}

}  // namespace
