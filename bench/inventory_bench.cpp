// `implvm inventory --json` of a generated Mac with 200 VMs, a third per
// hypervisor, run as a user runs it, --jobs 1 and --jobs 8 taken in turns:
//  - its tools wait 50 ms each (as VBoxManage waits on its service): --jobs 8
//    at most 0.2x --jobs 1, and at most 1.3x the tool waits a pool of 8
//    threads cannot avoid (CriticalWaits);
//  - its tools answer at once: --jobs 8 at most 1.1x --jobs 1;
//  - peak memory (the child's maximum resident size) of --jobs 8 with the
//    waiting tools at most 1.5x --jobs 1's.
// An implvm without --jobs refuses the option: those figures are then
// skipped, and only the serial inventory is shown.
//
//   inventory_bench [--repetitions N]     (default 3; medians)
//
// A child's maximum resident size starts from its parent's peak (posix_spawn
// shares the parent's memory until the exec), so this process stays small.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
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
    double ns = 0;
    long peakKiB = 0;
    std::string error;  // what implvm said when it failed
};

std::string Slurp(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Run Inventory(const std::string& root, const std::string& scratch, const char* jobs) {
    std::vector<std::string> args = {IMPLVM_BIN, "--root", root, "inventory", "--json"};
    if (jobs != nullptr) args.insert(args.end(), {"--jobs", jobs});
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const std::string out = scratch + "/out.json";
    const std::string err = scratch + "/err.txt";
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
    run.peakKiB = usage.ru_maxrss;
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

// The tool waits that no schedule on `threads` threads avoids: each VM's
// runs come one after another (the process listing or showvminfo for its
// information, then for its network; none for a Parallels VM), and one
// system_profiler run for the hardware check. The chains dealt to the
// threads longest first, each to the least busy one, leave the busiest with
// the least any schedule can (all chains are whole numbers of equal runs):
// that thread's waits.
double CriticalWaitsNs(const WholeMac& mac) {
    std::vector<int> chains(static_cast<size_t>(mac.fusionVms + mac.virtualBoxVms), 2);
    chains.push_back(1);
    std::sort(chains.rbegin(), chains.rend());
    std::vector<int> busy(kThreads, 0);
    for (int runs : chains) *std::min_element(busy.begin(), busy.end()) += runs;
    return *std::max_element(busy.begin(), busy.end()) * kToolSeconds * 1e9;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

std::string Megabytes(double kib) {
    return Fixed(kib * 1024 / 1e6, 1) + " MB";
}

}  // namespace

int main(int argc, char** argv) {
    int repetitions = 3;
    if (argc == 3 && std::strcmp(argv[1], "--repetitions") == 0) repetitions = std::atoi(argv[2]);
    const ScratchDir scratch("inventory");
    const std::string slow = scratch.path() + "/slow";
    const std::string instant = scratch.path() + "/instant";
    const WholeMac mac = WriteWholeMac(slow, kVms, kToolSeconds);
    WriteWholeMac(instant, kVms, 0);
    const int toolRuns = 2 * (mac.fusionVms + mac.virtualBoxVms) + 1;
    const std::string vms = std::to_string(kVms) + " VMs";

    const Run probe = Inventory(instant, scratch.path(), "1");
    const bool hasJobs = probe.ok;
    if (!hasJobs && probe.error.find("jobs") == std::string::npos) {
        std::cerr << "implvm inventory failed: " << probe.error << "\n";
        return 1;
    }

    // --jobs 1 and --jobs 8 taken in turns, first one then the other, so that
    // a slow spell of the machine falls on both sides of a ratio; the
    // inventory with instant tools, short and so the noisier, three times as
    // often.
    std::vector<double> slowSerial, slowJobs, instantSerial, instantJobs, peakSerial, peakJobs;
    for (int rep = 0; rep < repetitions; ++rep) {
        for (const bool serial : {rep % 2 == 0, rep % 2 != 0}) {
            if (!hasJobs && !serial) continue;
            for (const bool waiting : {true, false, false, false}) {
                const Run run = Inventory(waiting ? slow : instant, scratch.path(),
                                          !hasJobs ? nullptr
                                          : serial ? "1"
                                                   : "8");
                if (!run.ok) {
                    std::cerr << "implvm inventory failed: " << run.error << "\n";
                    return 1;
                }
                (waiting ? (serial ? slowSerial : slowJobs)
                         : (serial ? instantSerial : instantJobs))
                    .push_back(run.ns);
                if (waiting) (serial ? peakSerial : peakJobs).push_back(run.peakKiB);
            }
        }
    }

    std::cout << "Figures against their baselines (same run):\n";
    const double serial = Median(slowSerial);
    Report({"inventory of " + vms + ", tools waiting 50 ms, serial, against its tool waits",
            FormatTime(serial),
            FormatTime(toolRuns * kToolSeconds * 1e9) + " (" + std::to_string(toolRuns) + " runs)",
            serial / (toolRuns * kToolSeconds * 1e9), Goal::kInfo, 0});
    const std::string why = hasJobs ? "" : "implvm has no --jobs";
    const double critical = CriticalWaitsNs(mac);
    const double jobs = Median(slowJobs);
    bool met = true;
    met &=
        Report({"inventory of " + vms + ", tools waiting 50 ms: --jobs 8 against --jobs 1",
                FormatTime(jobs), FormatTime(serial), jobs / serial, Goal::kCostAtMost, 0.2, why});
    met &= Report({"inventory of " + vms +
                       ", tools waiting 50 ms: --jobs 8 against the longest tool-wait chain "
                       "on 8 threads",
                   FormatTime(jobs), FormatTime(critical), jobs / critical, Goal::kCostAtMost, 1.3,
                   why});
    met &= Report({"inventory of " + vms + ", tools answering at once: --jobs 8 against --jobs 1",
                   FormatTime(Median(instantJobs)), FormatTime(Median(instantSerial)),
                   Median(instantJobs) / Median(instantSerial), Goal::kCostAtMost, 1.1, why});
    // A serial peak no higher than this process's own could be its floor.
    rusage self{};
    ::getrusage(RUSAGE_SELF, &self);
    const bool aboveFloor = Median(peakSerial) > static_cast<double>(self.ru_maxrss);
    met &= Report({"peak memory of the inventory, tools waiting 50 ms: --jobs 8 against --jobs 1",
                   Megabytes(Median(peakJobs)), Megabytes(Median(peakSerial)),
                   Median(peakJobs) / Median(peakSerial), Goal::kCostAtMost, 1.5,
                   !why.empty() || aboveFloor ? why : "the serial peak is this process's own"});
    return met ? 0 : 3;
}
