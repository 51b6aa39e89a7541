// The module reads the hypervisors' files and never writes them: every file
// of a Mac is hashed, every method is run against it, and the hashes must not
// move. Only the tools may change what they own: the simulated tools'
// state for the reading calls is theirs to keep, and for the actions the
// tools are fakes whose records (the .fake folders) are left out.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "DemoMac.h"

namespace fs = std::filesystem;
using implvm_test::MethodCall;
using implvm_test::TestMachine;

namespace {

uint64_t Fnv1a(const std::string& bytes) {
    uint64_t hash = 1469598103934665603ull;
    for (const unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

// Every entry under root by relative path: kind, mode, size, modification
// time and a hash of the content (or of a link's target).
std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const fs::path& path = it->path();
        if (path.extension() == ".fake") {
            it.disable_recursion_pending();
            continue;
        }
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) continue;
        std::ostringstream fact;
        fact << std::oct << st.st_mode << std::dec << " " << st.st_size << " " << st.st_mtim.tv_sec
             << "." << st.st_mtim.tv_nsec;
        if (S_ISREG(st.st_mode)) {
            std::ifstream in(path, std::ios::binary);
            std::ostringstream content;
            content << in.rdbuf();
            fact << " " << std::hex << Fnv1a(content.str());
        } else if (S_ISLNK(st.st_mode)) {
            fact << " -> " << fs::read_symlink(path).string();
        }
        entries[fs::relative(path, root).string()] = fact.str();
    }
    return entries;
}

void ExpectUnchanged(const std::map<std::string, std::string>& before,
                     const std::map<std::string, std::string>& after, const std::string& what) {
    for (const auto& [path, fact] : before) {
        const auto now = after.find(path);
        if (now == after.end())
            ADD_FAILURE() << what << " removed " << path;
        else if (now->second != fact)
            ADD_FAILURE() << what << " changed " << path << ": " << fact << " -> " << now->second;
    }
    for (const auto& [path, fact] : after)
        if (before.count(path) == 0) ADD_FAILURE() << what << " created " << path;
}

// The forked child of the Parallels 9.x start ends on its own; its tool run
// must be over before the files are looked at.
void ReapChildren() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, WNOHANG);
        if (pid < 0) return;  // no children left
        if (pid == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

TEST(ReadOnly, ReadingMethodsLeaveEveryFileOfTheMacAsItWas) {
    TestMachine mac;
    mac.copyDemoMac();
    const std::vector<MethodCall> calls = implvm_test::ReadingCalls();
    const auto before = Snapshot(mac.root());
    ASSERT_GT(before.size(), 50u);
    for (const MethodCall& call : calls) {
        call.run();
        ExpectUnchanged(before, Snapshot(mac.root()), call.label());
        if (HasFailure()) break;  // one call's story is enough
    }
}

TEST(ReadOnly, ActionsChangeNothingBesideTheirTools) {
    TestMachine mac;
    mac.copyDemoMac();
    // The simulators act on their VMs' files as the hypervisors would; fakes
    // that answer success and touch nothing show what the module itself does.
    for (const char* tool :
         {"/Applications/Parallels Desktop.app/Contents/MacOS/prlctl",
          "/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app",
          "/Applications/VMware Fusion.app/Contents/Library/vmrun",
          "/Applications/VirtualBox.app/Contents/MacOS/VBoxManage", "/usr/bin/open"})
        mac.installTool(tool).respond("");
    const std::vector<MethodCall> calls = implvm_test::ActionCalls(/*withForkingStart=*/true);
    ASSERT_GT(calls.size(), 20u);
    const auto before = Snapshot(mac.root());
    for (const MethodCall& call : calls) call.run();
    ReapChildren();
    ExpectUnchanged(before, Snapshot(mac.root()), "the actions");
}

}  // namespace
