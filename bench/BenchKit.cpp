#include "BenchKit.h"

#include <dlfcn.h>
#include <ftw.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace implvm_bench {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

// Collects every run while the console reporter prints it.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    struct Figure {
        double realNs = 0;
        double bytesPerSecond = 0;
    };

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const bool single = run.run_type == Run::RT_Iteration;
            if (!median && !single) continue;
            // The name as registered, without the run options
            // ("/real_time", "/iterations:1") that the full name carries.
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
            if (single && medians_.count(name)) continue;
            Figure figure;
            figure.realNs =
                run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (auto it = run.counters.find("bytes_per_second"); it != run.counters.end())
                figure.bytesPerSecond = it->second.value;
            figures_[name] = figure;
            if (median) medians_[name] = true;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    const std::map<std::string, Figure>& figures() const { return figures_; }

private:
    std::map<std::string, Figure> figures_;
    std::map<std::string, bool> medians_;
};

std::string Fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string TargetText(Goal goal, double target) {
    switch (goal) {
        case Goal::kCostAtMost:
            return "cost <= " + Fixed(target, 2) + "x";
        case Goal::kSpeedAtLeast:
            return "speed >= " + Fixed(target, 2) + "x";
        case Goal::kInfo:
            break;
    }
    return "-";
}

std::string FigureText(const CollectingReporter::Figure& f) {
    std::string text = FormatTime(f.realNs);
    if (f.bytesPerSecond > 0) text += " (" + FormatRate(f.bytesPerSecond) + ")";
    return text;
}

}  // namespace

ScratchDir::ScratchDir(const std::string& tag) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp && *tmp ? tmp : "/tmp") + "/implvm-bench-" + tag + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr)
        throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
    path_ = buffer.data();
}

ScratchDir::~ScratchDir() {
    ::nftw(path_.c_str(), RemoveEntry, 64, FTW_DEPTH | FTW_PHYS);
}

void MakeDirs(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST)
            throw std::runtime_error("mkdir " + prefix + ": " + std::strerror(errno));
        if (slash == std::string::npos) break;
    }
}

void WriteFile(const std::string& path, const std::string& content) {
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string LogText(size_t bytes, double multiByteShare) {
    static const char* const kWords[] = {
        "vmx",      "I005:",   "VMAutomation", "ToolsRpc",     "GuestRpc:", "channel",
        "config",   "DISKLIB", "checkpoint",   "powerOn",      "device",    "HGFS:",
        "USB:",     "SVGA",    "MKS",          "connected",    "state",     "Vix:",
        "[vmdb]",   "opened",  "closed",       "0x7f3a",       "handle",    "sent",
        "received", "message", "timeout",      "mainDispatch", "backdoor",  "cpu0"};
    static const char* const kWide[] = {"\xC3\xA9",     "\xC3\xBC", "\xE2\x82\xAC",
                                        "\xE6\x97\xA5", "\xC3\x9F", "\xF0\x9F\x98\x80"};
    constexpr size_t kWordCount = sizeof kWords / sizeof kWords[0];
    constexpr size_t kWideCount = sizeof kWide / sizeof kWide[0];

    // A few thousand distinct lines, repeated: the decoder sees realistic
    // variety and generating 200 MB stays quick.
    uint64_t seed = 0x9E3779B97F4A7C15ULL;
    auto next = [&seed] {
        seed ^= seed << 13;
        seed ^= seed >> 7;
        seed ^= seed << 17;
        return seed;
    };
    std::vector<std::string> lines;
    size_t wideIndex = 0;
    for (int n = 0; n < 4096; ++n) {
        char stamp[64];
        std::snprintf(stamp, sizeof stamp, "2024-05-%02dT%02d:%02d:%02d.%03dZ| ", 1 + n % 28,
                      n % 24, n % 60, (n * 7) % 60, (n * 13) % 1000);
        std::string ascii = stamp;
        const size_t words = 6 + next() % 10;
        for (size_t w = 0; w < words; ++w) {
            ascii += kWords[next() % kWordCount];
            ascii += ' ';
        }
        ascii += std::to_string(next() % 100000);
        // Replace that share of the characters, chosen at random.
        std::string line;
        for (char c : ascii) {
            if (multiByteShare > 0 && c != ' ' &&
                static_cast<double>(next() % 1000000) < multiByteShare * 1e6) {
                line += kWide[wideIndex++ % kWideCount];
            } else {
                line += c;
            }
        }
        line += '\n';
        lines.push_back(std::move(line));
    }
    std::string text;
    text.reserve(bytes + 256);
    for (size_t n = 0; text.size() < bytes; ++n) text += lines[n % lines.size()];
    return text;
}

size_t CodePoints(const std::string& utf8) {
    size_t count = 0;
    for (unsigned char c : utf8) count += (c & 0xC0) != 0x80;
    return count;
}

void* ModuleSymbol(const char* name) {
    static void* module = [] {
        void* handle = ::dlopen(IMPLVM_MODULE_PATH, RTLD_NOW | RTLD_GLOBAL);
        if (handle == nullptr) std::cerr << "cannot load the module: " << ::dlerror() << "\n";
        return handle;
    }();
    return module ? ::dlsym(module, name) : nullptr;
}

void WriteConsoleUser(const std::string& root, const std::string& home) {
    WriteFile(root + "/.machine",
              "console_user = ann\nconsole_uid = 501\nconsole_home = " + home + "\n");
}

void InstallPrintingTool(const std::string& root, const std::string& macPath,
                         const std::string& output) {
    const std::string host = root + macPath;
    MakeDirs(host.substr(0, host.rfind('/')));
    ::unlink(host.c_str());
    if (::symlink(IMPLVM_BENCH_TOOL, host.c_str()) != 0)
        throw std::runtime_error("symlink " + host + ": " + std::strerror(errno));
    WriteFile(host + ".out", output);
}

std::string FormatTime(double ns) {
    if (ns >= 1e9) return Fixed(ns / 1e9, 3) + " s";
    if (ns >= 1e6) return Fixed(ns / 1e6, 3) + " ms";
    if (ns >= 1e3) return Fixed(ns / 1e3, 2) + " us";
    return Fixed(ns, 1) + " ns";
}

std::string FormatRate(double bytesPerSecond) {
    if (bytesPerSecond >= 1e9) return Fixed(bytesPerSecond / 1e9, 2) + " GB/s";
    return Fixed(bytesPerSecond / 1e6, 1) + " MB/s";
}

void EvictCaches() {
    // 128 MB: four times the last-level cache a core of the build machine
    // allocates into (32 MB).
    constexpr size_t kBytes = size_t{128} << 20;
    static const std::vector<uint64_t> buffer(kBytes / sizeof(uint64_t), 1);
    uint64_t sum = 0;
    for (size_t i = 0; i < buffer.size(); i += 8) sum += buffer[i];
    benchmark::DoNotOptimize(sum);
}

void AppendSummaryLine(const std::string& figure, const std::string& measured,
                       const std::string& baseline, double ratio, const std::string& target,
                       bool met, bool hasTarget) {
    const char* file = std::getenv("IMPLVM_BENCH_SUMMARY");
    if (file == nullptr || *file == '\0') return;
    std::ofstream out(file, std::ios::app);
    out << figure << '\t' << measured << '\t' << baseline << '\t' << Fixed(ratio, 2) << '\t'
        << target << '\t' << (hasTarget ? (met ? "ok" : "MISSED") : "-") << '\n';
}

int RunAndSummarize(int argc, char** argv, const std::vector<Comparison>& comparisons) {
    // Freed memory stays with the process and is handed out again warm: both
    // a figure and its baseline then pay for their work, not for the kernel
    // mapping and zeroing fresh pages on every iteration (which on a virtual
    // machine dominates and varies from run to run).
    ::mallopt(M_MMAP_MAX, 0);
    ::mallopt(M_TRIM_THRESHOLD, -1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const auto& figures = reporter.figures();
    int missed = 0;
    std::ostringstream table;
    // A side's time and its text; a ratio of two runs when `over` is set.
    auto side = [&figures](const std::string& name, const std::string& over, double& value,
                           std::string& text) {
        const auto f = figures.find(name);
        const auto o = over.empty() ? figures.end() : figures.find(over);
        if (f == figures.end() || (!over.empty() && o == figures.end())) return false;
        value = f->second.realNs;
        text = FigureText(f->second);
        if (!over.empty()) {
            value /= o->second.realNs;
            text += " / " + FigureText(o->second) + " = " + Fixed(value, 2);
        }
        return true;
    };
    for (const Comparison& c : comparisons) {
        double measured = 0;
        double baseline = 0;
        std::string measuredText;
        std::string baselineText;
        if (!side(c.measured, c.measuredOver, measured, measuredText) ||
            !side(c.baseline, c.baselineOver, baseline, baselineText))
            continue;
        const double cost = measured / baseline;
        const double ratio = c.goal == Goal::kSpeedAtLeast ? 1 / cost : cost;
        const bool hasTarget = c.goal != Goal::kInfo;
        const bool met = c.goal == Goal::kCostAtMost     ? ratio <= c.target
                         : c.goal == Goal::kSpeedAtLeast ? ratio >= c.target
                                                         : true;
        if (!met) ++missed;
        const std::string ratioText =
            (c.goal == Goal::kSpeedAtLeast ? "speed " : "cost ") + Fixed(ratio, 2) + "x";
        table << "  " << c.figure << "\n      " << measuredText << "  vs  " << baselineText << "  ["
              << c.baseline << "]\n      " << ratioText << "   target "
              << TargetText(c.goal, c.target) << "   " << (hasTarget ? (met ? "ok" : "MISSED") : "")
              << "\n";
        AppendSummaryLine(c.figure, measuredText, baselineText, ratio, TargetText(c.goal, c.target),
                          met, hasTarget);
    }
    if (!table.str().empty())
        std::cout << "\nFigures against their baselines (same run):\n" << table.str() << std::flush;
    return missed;
}

}  // namespace implvm_bench
