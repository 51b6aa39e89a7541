// The module reads the hypervisors' files and never writes them: every file
// of a Mac is hashed, every method is run against it, and the hashes must not
// move. Only the tools may change what they own: the simulated tools' state
// for the reading calls is theirs to keep, and for the actions the tools are
// fakes whose records (the .fake folders) are left out.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "DemoMac.h"

namespace fs = std::filesystem;

namespace {

// Every entry under root by relative path: mode, size, modification time and
// a hash of the content (or a link's target).
std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        if (it->path().extension() == ".fake") {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        std::string fact = std::to_string(st.st_mode) + " " + std::to_string(st.st_size) + " " +
                           std::to_string(st.st_mtim.tv_sec) + "." +
                           std::to_string(st.st_mtim.tv_nsec);
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(it->path(), std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(in), {}};
            fact += " " + std::to_string(std::hash<std::string>{}(content));
        } else if (S_ISLNK(st.st_mode)) {
            fact += " -> " + fs::read_symlink(it->path()).string();
        }
        entries[fs::relative(it->path(), root).string()] = fact;
    }
    return entries;
}

// "path: before -> after" for every entry changed, created or removed.
std::string Changes(const std::map<std::string, std::string>& before,
                    const std::map<std::string, std::string>& after) {
    std::map<std::string, std::string> all = before;
    all.insert(after.begin(), after.end());
    std::string changes;
    for (const auto& [path, ignored] : all) {
        const std::string was = before.count(path) ? before.at(path) : "(none)";
        const std::string is = after.count(path) ? after.at(path) : "(none)";
        if (was != is) changes += path + ": " + was + " -> " + is + "\n";
    }
    return changes;
}

TEST(ReadOnly, MethodsLeaveEveryFileOfTheMacAsItWas) {
    implvm_test::TestMachine mac;
    mac.copyDemoMac();
    auto before = Snapshot(mac.root());
    ASSERT_GT(before.size(), 50u);
    for (const implvm_test::MethodCall& call : implvm_test::ReadingCalls()) {
        call.run();
        ASSERT_EQ(Changes(before, Snapshot(mac.root())), "") << call.label();
    }

    // The simulators act on their VMs' files as the hypervisors would; fakes
    // that answer success and touch nothing show what the module itself does.
    for (const char* tool :
         {"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl",
          "/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app",
          "/Applications/VMware Fusion.app/Contents/Library/vmrun",
          "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage", "/usr/bin/open"})
        mac.installTool(tool).respond("");
    const std::vector<implvm_test::MethodCall> calls = implvm_test::ActionCalls(true);
    ASSERT_GT(calls.size(), 20u);
    before = Snapshot(mac.root());
    for (const implvm_test::MethodCall& call : calls) call.run();
    // The forked child of the Parallels 9.x start ends on its own; its tool
    // run must be over before the files are looked at.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (::waitpid(-1, nullptr, WNOHANG) >= 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(Changes(before, Snapshot(mac.root())), "") << "the actions";
}

}  // namespace
