#include "BenchKit.h"

#include <dlfcn.h>
#include <ftw.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace implvm_bench {

ScratchDir::ScratchDir(const std::string& tag) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp && *tmp ? tmp : "/tmp") + "/implvm-bench-" + tag + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
    path_ = pattern;
}

ScratchDir::~ScratchDir() {
    ::nftw(
        path_.c_str(),
        [](const char* path, const struct stat*, int, FTW*) { return ::remove(path); }, 64,
        FTW_DEPTH | FTW_PHYS);
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

void* ModuleSymbol(const char* name) {
    static void* module = [] {
        void* handle = ::dlopen(IMPLVM_MODULE_PATH, RTLD_NOW | RTLD_GLOBAL);
        if (handle == nullptr) std::cerr << "cannot load the module: " << ::dlerror() << "\n";
        return handle;
    }();
    return module ? ::dlsym(module, name) : nullptr;
}

void InstallTool(const std::string& root, const std::string& macPath, const std::string& output,
                 double seconds) {
    const std::string host = root + macPath;
    MakeDirs(host + ".fake");
    ::unlink(host.c_str());
    if (::symlink(IMPLVM_FAKE_TOOL, host.c_str()) != 0)
        throw std::runtime_error("symlink " + host + ": " + std::strerror(errno));
    // "exit signal seconds repeat hang-up", played by every run, none recorded.
    WriteFile(host + ".fake/quiet", "");
    WriteFile(host + ".fake/response.0", "0 0 " + Fixed(seconds, 3) + " 1 0\n");
    WriteFile(host + ".fake/response.0.out", output);
}

void EvictCaches() {
    ::malloc_trim(0);
    // 128 MB: four times the last-level cache a core of the build machine uses.
    static const std::vector<long> buffer((size_t{128} << 20) / sizeof(long), 1);
    volatile long sum = 0;
    for (size_t i = 0; i < buffer.size(); i += 8) sum = sum + buffer[i];
}

std::string Fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string FormatTime(double ns) {
    if (ns >= 1e9) return Fixed(ns / 1e9, 3) + " s";
    if (ns >= 1e6) return Fixed(ns / 1e6, 3) + " ms";
    if (ns >= 1e3) return Fixed(ns / 1e3, 2) + " us";
    return Fixed(ns, 1) + " ns";
}

bool Report(const Figure& f) {
    const bool hasTarget = f.goal == Goal::kCostAtMost;
    const bool met = !hasTarget || !f.skipped.empty() || f.ratio <= f.target;
    const std::string target = hasTarget ? "<= " + Fixed(f.target, 2) + "x" : "-";
    const std::string verdict = !f.skipped.empty() ? "skipped"
                                : !hasTarget       ? "-"
                                : met              ? "ok"
                                                   : "MISSED";
    const std::string ratio = f.skipped.empty() ? Fixed(f.ratio, 2) : "-";
    const std::string measured = f.skipped.empty() ? f.measured : "skipped: " + f.skipped;
    std::cout << "  " << f.name << "\n      " << measured << "  vs  " << f.baseline << "   ratio "
              << ratio << "   target " << target << "   " << verdict << "\n";
    if (const char* file = std::getenv("IMPLVM_BENCH_SUMMARY"); file != nullptr && *file != '\0') {
        std::ofstream(file, std::ios::app)
            << f.name << '\t' << measured << '\t' << f.baseline << '\t' << ratio << '\t' << target
            << '\t' << verdict << '\n';
    }
    return met;
}

}  // namespace implvm_bench
