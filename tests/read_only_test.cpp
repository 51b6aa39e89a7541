// The module reads the hypervisors' files and never writes them: every file
// of a Mac is hashed, every method is run, and the hashes must not move. The
// simulators may keep their own state for the reading calls; for the actions
// the tools are fakes, whose records (the .fake folders) are left out.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "DemoMac.h"

namespace fs = std::filesystem;

namespace {

// "path: mode mtime hash-or-link-target", one line per entry.
std::string Snapshot(const std::string& root) {
    std::map<std::string, std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::end(it); ++it) {
        if (it->path().extension() == ".fake") {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        std::string& fact = entries[fs::relative(it->path(), root).string()];
        fact = std::to_string(st.st_mode) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
               std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(it->path(), std::ios::binary);
            fact +=
                " " + std::to_string(std::hash<std::string>{}({std::istreambuf_iterator(in), {}}));
        } else if (S_ISLNK(st.st_mode)) {
            fact += " -> " + fs::read_symlink(it->path()).string();
        }
    }
    std::string text;
    for (const auto& [path, fact] : entries) text += path + ": " + fact + "\n";
    return text;
}

TEST(ReadOnly, MethodsLeaveEveryFileOfTheMacAsItWas) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    std::string before = Snapshot(mac.root());
    ASSERT_GT(std::count(before.begin(), before.end(), '\n'), 50);
    for (const implvm_test::MethodCall& call : implvm_test::ReadingCalls()) {
        call.run();
        ASSERT_EQ(Snapshot(mac.root()), before) << call.label();
    }

    // Fakes that touch nothing show what the module itself does (the
    // simulators act on their VMs' files as the hypervisors would).
    implvm_test::UseRecordedTools(mac);
    const std::vector<implvm_test::MethodCall> calls = implvm_test::ActionCalls(true);
    ASSERT_GT(calls.size(), 20u);
    before = Snapshot(mac.root());
    for (const implvm_test::MethodCall& call : calls) call.run();
    // The forked child of the Parallels 9.x start must be done with its tool.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (::waitpid(-1, nullptr, WNOHANG) >= 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(Snapshot(mac.root()), before) << "the actions";
}

}  // namespace
