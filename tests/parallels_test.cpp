// The Parallels Desktop adapter's edges and failures, through fake tools; the
// simulated Mac's end-to-end tests cover the usual VMs.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Golden.h"
#include "ImplVirtualMachine.h"
#include "KALDO/Failpoints.h"
#include "TestMachine.h"

using implvm_test::Call;
using implvm_test::CallResult;
using implvm_test::Json;
using implvm_test::TestMachine;
using Codes = std::vector<int>;
using Args = std::vector<std::string>;

// Link seams for the module loaded into this executable: the 9.x start's
// one-second pauses are counted, not waited out, and fork() can fail.
namespace {
int g_pauses = 0;
bool g_failFork = false;
}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned int sleep(unsigned int) {
    ++g_pauses;
    return 0;
}

extern "C" __attribute__((visibility("default"))) pid_t fork() noexcept {
    static const auto realFork = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
    if (!g_failFork) return realFork();
    errno = EAGAIN;
    return -1;
}

namespace {

const std::string kPrlctl = "/Applications/Parallels Desktop.app/Contents/MacOS/prlctl";
const std::string kUuid = "5c1e8a0f-3b7d-4e62-9a14-d2f07b6c8e39";
const std::string kBraced = "{" + kUuid + "}";
const std::string kHome = "/Users/ann/Documents/Parallels/Windows XP.pvm";
const std::string kConfig = kHome + "/config.pvs";
const std::string kXp = "<OsType>8</OsType><OsNumber>2055</OsNumber>";
const std::string kPs = "  PID   TT  STAT      TIME COMMAND\n  310   ??  Ss     0:03.52 ";
const std::string kServiceDown = "Login failed: Unable to connect to Parallels Service\n";
constexpr int kConsoleUid = 501;
constexpr int kStaff = 20;

std::string Pvs(const std::string& general = kXp,
                const std::string& identification = "<Identification><VmName>XP</VmName>") {
    return "<ParallelsVirtualMachine>" + identification + "</Identification><General>" + general +
           "</General></ParallelsVirtualMachine>\n";
}

Codes Recorded(const CallResult& r) {
    return implvm_test::CodesFrom(r, "ImplVirtualMachine_Parallels.cpp");
}

// Which homes are listed and what config.pvs says: golden_parallels_test.
// The reading around it, and the 4.x start: tests/data/parallels_methods.
TEST(Parallels4, MethodsOnTheFilesAndToolsOfACase) {
    implvm_test::CheckGoldenTable("parallels_methods", implvm_test::RunMethodCase);
}

// A console user, Parallels' tools, its service running, one VM whose
// config.pvs has <Identification> attributes and this VmUuid ("": none).
struct Parallels9Mac {
    TestMachine mac;
    implvm_test::FakeTool& ps = mac.installTool("/bin/ps");
    implvm_test::FakeTool& clientApp =
        mac.installTool("/Applications/Parallels Desktop.app/Contents/MacOS/prl_client_app");
    implvm_test::FakeTool& prlctl = mac.installTool(kPrlctl);

    explicit Parallels9Mac(const std::string& uuid = kBraced) {
        mac.setConsoleUser("ann", kConsoleUid, "/Users/ann", kStaff, "12 61");
        ps.respond(kPs + "/Applications/Parallels Desktop.app/Contents/MacOS/prl_disp_service\n");
        if (!uuid.empty())
            mac.writeFile(kConfig,
                          Pvs(kXp, "<Identification dyn_lists=\"\"><VmUuid>" + uuid + "</VmUuid>"));
    }
};

struct Ids {
    uid_t uid = getuid(), euid = geteuid();
    gid_t gid = getgid(), egid = getegid();
    bool operator==(const Ids&) const = default;
};

// As root the tools run wholly as the console user: real, effective and
// saved ids, the user's groups and home. Elsewhere as the test's user.
void ExpectConsoleUser(const implvm_test::FakeInvocation& run) {
    if (geteuid() != 0) {
        EXPECT_EQ(run.euid, int(geteuid()));
        return;
    }
    EXPECT_EQ((std::vector<int>{run.uid, run.euid, run.suid, run.gid, run.egid, run.sgid}),
              (std::vector<int>{kConsoleUid, kConsoleUid, kConsoleUid, kStaff, kStaff, kStaff}));
    std::vector<int> groups = run.groups;
    std::sort(groups.begin(), groups.end());
    EXPECT_EQ(groups, (std::vector<int>{12, kStaff, 61}));
    EXPECT_EQ(run.env, (std::map<std::string, std::string>{
                           {"HOME", "/Users/ann"}, {"USER", "ann"}, {"LOGNAME", "ann"}}));
}

// Waits for the child a 9.x start leaves behind, so that none outlives its
// test's machine root: its wait status, or -1 when there is none.
int ReapChild() {
    int status = 0;
    return waitpid(-1, &status, 0) > 0 ? status : -1;
}

TEST(Parallels9OperateVM, RunsPrlctlAsConsoleUserAndCodesItsAnswer) {
    const Json named = {{"Name", kConfig}, {"COMMAND", "set"}, {"OPTION", "--cpus 2"}};
    // The first two rows run prlctl; the rest fail before. How its answers
    // read: golden_parallels_test.
    // clang-format off
    struct {
        Json inputs;
        implvm_test::FakeResponse answer;
        int code;
        std::string uuid = kBraced, failpoint = "";
    } const rows[] = {
        {named, {"", "Failed\n", 255}, 0},  // the exit status is not looked at
        {{{"Name", kConfig}, {"COMMAND", "set"}}, {"", kServiceDown, 1}, -4},
        {{{"COMMAND", "set"}}, {}, -3},
        {{{"Name", kConfig}}, {}, -3},
        {named, {}, -6, ""},  // no config.pvs
        {{{"Name", kHome}, {"COMMAND", "set"}}, {}, -1},  // the bundle, not its config.pvs
        {named, {}, -1, kBraced, "GetCurrentLoggedInUserInfo=-2"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.inputs.dump() + row.uuid + row.failpoint);
        Parallels9Mac vm(row.uuid);
        vm.prlctl.respond(row.answer);
        ASSERT_EQ(KALDO::CFailpoints::Set(row.failpoint), 0);
        const Ids before;
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_OperateVM, row.inputs);
        EXPECT_EQ(Ids(), before) << "the host's ids never change";
        EXPECT_EQ(r.result, row.code);
        EXPECT_EQ(Recorded(r), row.code ? Codes{row.code} : Codes{});
        const auto runs = vm.prlctl.invocations();
        ASSERT_EQ(runs.size(), &row - rows < 2 ? 1u : 0u);
        if (runs.empty()) continue;
        EXPECT_EQ(runs[0].args, (row.inputs.contains("OPTION") ? Args{"set", kUuid, "--cpus 2"}
                                                               : Args{"set", kUuid}));
        ExpectConsoleUser(runs[0]);
    }
}

// The start forks a child that starts the client application as the console
// user; the parent looks for the service (forty times at most, no pause),
// then tries "prlctl start" up to forty times a pause apart.
TEST(Parallels9StartVM, RetriesPrlctlAndStartsTheClientAppInAChild) {
    const std::string starting = "Starting the VM...\n";
    const std::string ok = "The VM has been successfully started.\n";
    const std::string running = "Failed to start the VM: the VM \"XP\" is not stopped\n";
    // Rows: started; already running, a failed listing counting as the
    // service up; refused, then started; the last of forty attempts counts;
    // forty looks for the service in vain. Then failures before any attempt,
    // after the fork but for a missing Name or a failed fork. How prlctl's
    // answers read: golden_parallels_test.
    // clang-format off
    struct {
        std::vector<implvm_test::FakeResponse> answers;
        std::string ps;  // "fails", "fork" (fork() fails), or a listing
        int code, runs, pauses;
        Json inputs = {{"Name", kConfig}};
        std::string uuid = kBraced;
    } const rows[] = {
        {{{starting + ok, ""}}, "", 0, 1, 2},
        {{{starting + running, "", 1}}, "fails", 0, 1, 2},
        {{{ok, kServiceDown}, {starting + ok, ""}}, "", 0, 2, 3},
        {{{"", kServiceDown, 255}}, "", -4, 40, 41},
        {{{starting + ok, ""}}, kPs + "/usr/sbin/cfprefsd agent\n", 0, 1, 2},
        {{}, "", -6, 0, 1, {{"Name", kConfig}}, ""},  // no config.pvs
        {{}, "", -6, 0, 1, {{"Name", kHome}}},  // the bundle, not its config.pvs
        {{}, "", -3, 0, 0, Json::object()},
        {{}, "fork", -1, 0, 0},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        Parallels9Mac vm(row.uuid);
        if (row.ps == "fails" || row.ps.starts_with(kPs)) {
            vm.ps.reset();
            vm.ps.respond(row.ps == "fails"
                              ? implvm_test::FakeResponse{"", "ps: not permitted\n", 1}
                              : implvm_test::FakeResponse{row.ps});
        }
        for (const auto& answer : row.answers) vm.prlctl.respond(answer);
        // A line in a stdio buffer: a child ending with exit() would write it twice.
        FILE* buffered = fopen(vm.mac.hostPath("/buffer").c_str(), "w");
        ASSERT_NE(buffered, nullptr);
        fputs("host line\n", buffered);
        const Ids before;
        g_pauses = 0;
        g_failFork = row.ps == "fork";
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_StartVM, row.inputs);
        g_failFork = false;
        EXPECT_EQ(g_pauses, row.pauses) << "one after the service wait, one per attempt";
        const bool forked = row.code != -3 && row.ps != "fork";
        EXPECT_EQ(ReapChild(), forked ? 0 : -1);
        fclose(buffered);
        EXPECT_EQ(vm.mac.readFile("/buffer"), "host line\n");
        EXPECT_EQ(Ids(), before) << "the host's ids never change";
        EXPECT_EQ(r.result, row.code);
        EXPECT_EQ(Recorded(r), row.code ? Codes{row.code} : Codes{});
        const auto runs = vm.prlctl.invocations();
        EXPECT_EQ(runs.size(), size_t(row.runs));
        for (const auto& run : runs) {
            EXPECT_EQ(run.args, (Args{"start", kUuid}));
            ExpectConsoleUser(run);
        }
        // The parent's looks for the service, then the child's for the client app.
        EXPECT_EQ(vm.ps.invocations().size(), !forked ? 0u : row.ps.starts_with(kPs) ? 41u : 2u);
        const auto apps = vm.clientApp.invocations();
        ASSERT_EQ(apps.size(), forked ? 1u : 0u);
        if (!forked) continue;
        EXPECT_EQ(apps[0].args, Args{""});
        ExpectConsoleUser(apps[0]);
    }
}

// The GUI the child opens is meant to stay: the tool time limit does not end it.
TEST(Parallels9StartVM, TheClientAppOutlivesTheToolTimeLimit) {
    Parallels9Mac vm;
    vm.prlctl.respond("Starting the VM...\nThe VM has been successfully started.\n");
    vm.clientApp.respond(implvm_test::FakeResponse{.sleepSeconds = 0.8});
    ::setenv("KALDO_TOOL_TIMEOUT", "0.2", 1);
    const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", kConfig}});
    EXPECT_EQ(ReapChild(), 0);
    ::unsetenv("KALDO_TOOL_TIMEOUT");
    EXPECT_EQ(r.result, 0);
    EXPECT_TRUE(vm.clientApp.invocations().at(0).ended);
}

TEST(Parallels9StartVM, UnknownConsoleUserFailsInTheParentOnly) {
    // The lookup runs after the fork; the child ends there without a word.
    // The call runs in a forked copy of this test; each process that comes
    // back out of it appends its answer to a file, then ends.
    Parallels9Mac vm;
    vm.mac.remove("/.machine");
    const std::string answers = vm.mac.hostPath("/answers");
    const pid_t isolated = fork();
    if (isolated == 0) {
        const CallResult r = Call(ImplVirtualMachine_Parallels_9_X_StartVM, {{"Name", kConfig}});
        std::string line = std::to_string(r.result);
        for (int code : Recorded(r)) line += " " + std::to_string(code);
        line += "\n";
        const int fd = open(answers.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const bool written = fd >= 0 && write(fd, line.data(), line.size()) == ssize_t(line.size());
        while (wait(nullptr) > 0) continue;  // the module's child, when this is its parent
        _exit(written ? 0 : 1);
    }
    ASSERT_EQ(waitpid(isolated, nullptr, 0), isolated);
    EXPECT_EQ(vm.mac.readFile("/answers"), "-4 -4\n");
    EXPECT_TRUE(vm.clientApp.invocations().empty() && vm.prlctl.invocations().empty());
}

}  // namespace
