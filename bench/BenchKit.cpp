#include "BenchKit.h"

#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace implvm_bench {

ScratchDir::ScratchDir(const std::string& tag) {
    const char* tmp = std::getenv("TMPDIR");
    std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/implvm-bench-" + tag + "-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp " + path);
    path_ = path;
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(content.data(), static_cast<std::streamsize>(content.size())))
        throw std::runtime_error("cannot write " + path);
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
    const std::string path = root + macPath;
    std::filesystem::create_directories(path + ".fake");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(IMPLVM_FAKE_TOOL, path);
    // Every run plays response.0, "exit signal seconds repeat hang-up", and
    // records nothing (tests/fixture/fake_tool).
    WriteFile(path + ".fake/quiet", "");
    WriteFile(path + ".fake/response.0", "0 0 " + Fixed(seconds, 3) + " 1 0\n");
    WriteFile(path + ".fake/response.0.out", output);
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
    return Fixed(ns / 1e3, 1) + " us";
}

bool Report(const Figure& f) {
    const bool judged = f.goal == Goal::kCostAtMost && f.skipped.empty();
    const bool met = !judged || f.ratio <= f.target;
    const std::string cells[] = {
        f.name,
        f.skipped.empty() ? f.measured : "skipped: " + f.skipped,
        f.baseline,
        f.skipped.empty() ? Fixed(f.ratio, 2) : "-",
        f.goal == Goal::kCostAtMost ? "<= " + Fixed(f.target, 2) + "x" : "-",
        !f.skipped.empty() ? "skipped"
        : !judged          ? "-"
        : met              ? "ok"
                           : "MISSED"};
    std::cout << "  " << cells[0] << "\n      " << cells[1] << "  vs  " << cells[2] << "   ratio "
              << cells[3] << "   target " << cells[4] << "   " << cells[5] << std::endl;
    if (const char* file = std::getenv("IMPLVM_BENCH_SUMMARY"); file != nullptr && *file != '\0') {
        std::ofstream summary(file, std::ios::app);
        for (const std::string& cell : cells) summary << cell << (&cell == &cells[5] ? '\n' : '\t');
    }
    return met;
}

}  // namespace implvm_bench
