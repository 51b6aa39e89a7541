// `implvm inventory --json` of a generated Mac with 200 VMs, a third per
// hypervisor, --jobs 1 and --jobs 8 taken in turns (medians of N rounds):
//  - tools that wait 50 ms each: --jobs 8 at most 0.2x --jobs 1, and at most
//    1.3x the tool waits 8 threads cannot avoid (CriticalWaitsNs);
//  - tools that answer at once: --jobs 8 at most 1.1x --jobs 1;
//  - the waiting inventory's peak memory: --jobs 8 at most 1.5x --jobs 1.
// An implvm that refuses --jobs has these figures skipped.
//
//   inventory_bench [--repetitions N]     (default 3)
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "BenchKit.h"
#include "MachineData.h"

extern char** environ;

using namespace implvm_bench;

namespace {

constexpr int kVms = 200;
constexpr int kThreads = 8;
constexpr double kToolSeconds = 0.05;

struct Run {
    bool ok = false;
    double ns = 0, peakKiB = 0;
    std::string error;  // what implvm said when it failed
};

std::string Slurp(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Run Inventory(const std::string& root, const std::string& scratch, const char* jobs) {
    std::vector<std::string> args = {IMPLVM_BIN, "--root", root, "inventory", "--json"};
    const std::string out = scratch + "/out.json", err = scratch + "/err.txt";
    if (jobs != nullptr) args.insert(args.end(), {"--jobs", jobs});
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);

    Run run;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = -1;
    int status = 0;
    rusage usage{};
    const bool spawned = ::posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ) == 0 &&
                         ::wait4(pid, &status, 0, &usage) == pid;
    run.ns =
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
    ::posix_spawn_file_actions_destroy(&files);
    // A spawned child's peak starts from its parent's (posix_spawn shares the
    // parent's memory until the exec): this process stays small.
    run.peakKiB = static_cast<double>(usage.ru_maxrss);
    // Every VM described: each description names its VM once.
    const std::string json = Slurp(out);
    size_t described = 0;
    for (size_t at = json.find("\"UserFriendlyName\""); at != std::string::npos;
         at = json.find("\"UserFriendlyName\"", at + 1))
        ++described;
    run.ok = spawned && WIFEXITED(status) && WEXITSTATUS(status) == 0 && described == kVms;
    if (!run.ok) run.error = Slurp(err).substr(0, 300);
    return run;
}

// The tool waits no schedule on 8 threads avoids. A VM's runs come one
// after another (the process listing or showvminfo for its information, then
// for its network; none for a Parallels VM), and the hardware check runs
// system_profiler once. Dealt to the threads longest first, each to the
// least busy, these chains leave the busiest thread the least any schedule
// can (they are whole numbers of equal runs): its waits.
double CriticalWaitsNs(const WholeMac& mac) {
    std::vector<int> chains(static_cast<size_t>(mac.fusionVms + mac.virtualBoxVms), 2);
    chains.push_back(1);
    std::sort(chains.rbegin(), chains.rend());
    std::vector<int> busy(kThreads, 0);
    for (int runs : chains) *std::min_element(busy.begin(), busy.end()) += runs;
    return *std::max_element(busy.begin(), busy.end()) * kToolSeconds * 1e9;
}

std::string Megabytes(double kib) {
    return Fixed(kib * 1024 / 1e6, 1) + " MB";
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds =
        argc == 3 && std::strcmp(argv[1], "--repetitions") == 0 ? std::atoi(argv[2]) : 3;
    const ScratchDir scratch("inventory");
    const std::string waiting = scratch.path() + "/waiting", instant = scratch.path() + "/instant";
    const WholeMac mac = WriteWholeMac(waiting, kVms, kToolSeconds);
    WriteWholeMac(instant, kVms, 0);

    // An implvm without the option refuses it as an unexpected argument.
    const Run probe = Inventory(instant, scratch.path(), "1");
    const bool refused = probe.error.find("not expected") != std::string::npos &&
                         probe.error.find("--jobs") != std::string::npos;
    if (!probe.ok && !refused) {
        std::cerr << "implvm inventory failed: " << probe.error << "\n";
        return 1;
    }
    const std::string skipped = probe.ok ? "" : "implvm has no --jobs";

    // --jobs 1 and --jobs 8 in turns, so that a slow spell of the machine
    // falls on both sides of a ratio; the instant inventory, short and so the
    // noisier, three times as often. Without --jobs, the serial one alone.
    std::map<std::string, std::vector<double>> samples;
    for (int round = 0; round < rounds; ++round) {
        for (const char* jobs : {round % 2 ? "8" : "1", round % 2 ? "1" : "8"}) {
            if (!skipped.empty() && *jobs == '8') continue;
            for (const std::string& root : {waiting, instant, instant, instant}) {
                const Run run = Inventory(root, scratch.path(), skipped.empty() ? jobs : nullptr);
                if (!run.ok) {
                    std::cerr << "implvm inventory failed: " << run.error << "\n";
                    return 1;
                }
                samples[root + jobs].push_back(run.ns);
                if (root == waiting) samples[std::string("peak") + jobs].push_back(run.peakKiB);
            }
        }
    }
    auto median = [&samples](const std::string& key) {
        std::vector<double>& values = samples[key];
        std::sort(values.begin(), values.end());
        return values.empty() ? 0 : values[values.size() / 2];
    };

    std::cout << "Figures against their baselines (same run):\n";
    const std::string vms = "inventory of " + std::to_string(kVms) + " VMs, ";
    const int runs = 2 * (mac.fusionVms + mac.virtualBoxVms) + 1;
    const double serial = median(waiting + "1"), eight = median(waiting + "8");
    Report({vms + "tools waiting 50 ms, serial, against its tool waits", FormatTime(serial),
            FormatTime(runs * kToolSeconds * 1e9) + " (" + std::to_string(runs) + " runs)",
            serial / (runs * kToolSeconds * 1e9)});
    bool met = Report({vms + "tools waiting 50 ms: --jobs 8 against --jobs 1", FormatTime(eight),
                       FormatTime(serial), eight / serial, Goal::kCostAtMost, 0.2, skipped});
    const double critical = CriticalWaitsNs(mac);
    met &= Report({vms + "tools waiting 50 ms: --jobs 8 against the longest tool-wait chain on 8 "
                         "threads",
                   FormatTime(eight), FormatTime(critical), eight / critical, Goal::kCostAtMost,
                   1.3, skipped});
    met &= Report({vms + "tools answering at once: --jobs 8 against --jobs 1",
                   FormatTime(median(instant + "8")), FormatTime(median(instant + "1")),
                   median(instant + "8") / median(instant + "1"), Goal::kCostAtMost, 1.1, skipped});
    // A serial peak no higher than this process's own may be that floor.
    rusage self{};
    ::getrusage(RUSAGE_SELF, &self);
    const bool aboveFloor = median("peak1") > static_cast<double>(self.ru_maxrss);
    met &= Report({"peak memory of the " + vms + "tools waiting 50 ms: --jobs 8 against --jobs 1",
                   Megabytes(median("peak8")), Megabytes(median("peak1")),
                   median("peak8") / median("peak1"), Goal::kCostAtMost, 1.5,
                   !skipped.empty() || aboveFloor ? skipped : "the serial peak is this process's"});
    return met ? 0 : 3;
}
