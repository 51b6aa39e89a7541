// Text costs: reading and decoding files (ReadFromTextFile, StringToWString)
// against memcpy of the wide output, and the marker searches against memmem.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "BenchKit.h"
#include "KALDO/CFileUtils.h"
#include "KALDO/CStringUtils.h"

using namespace implvm_bench;

namespace {

constexpr size_t kMB = 1000 * 1000;
const size_t kSizesMB[] = {1, 10, 50, 200};

struct Kind {
    const char* name;
    double multiByteShare;
};
const Kind kKinds[] = {{"ascii", 0.0}, {"mb5pct", 0.05}};

ScratchDir& Scratch() {
    static ScratchDir dir("text");
    return dir;
}

// The file of one kind and size, written on first use.
const std::string& TextFile(const Kind& kind, size_t mb) {
    static std::map<std::string, std::string> files;
    const std::string key = std::string(kind.name) + "-" + std::to_string(mb);
    auto it = files.find(key);
    if (it != files.end()) return it->second;
    const std::string path = Scratch().path() + "/" + key + ".log";
    WriteFile(path, LogText(mb * kMB, kind.multiByteShare));
    return files.emplace(key, path).first->second;
}

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string SizeName(const Kind& kind, size_t mb) {
    return std::string(kind.name) + "/" + std::to_string(mb) + "MB";
}

void ReadFromTextFile(benchmark::State& state, const Kind& kind, size_t mb) {
    const std::wstring path = KALDO::CStringUtils::StringToWString(TextFile(kind, mb));
    auto read = [&path] {
        std::wstring text;
        const int rc = KALDO::CFileUtils::ReadFromTextFile(path, text);
        benchmark::DoNotOptimize(text.data());
        return rc;
    };
    if (read() != 0) {  // also the warm-up (see MemcpyWide)
        state.SkipWithError("read failed");
        return;
    }
    for (auto _ : state) read();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(mb * kMB));
}

void StringToWString(benchmark::State& state, const Kind& kind, size_t mb) {
    const std::string utf8 = Slurp(TextFile(kind, mb));
    auto decode = [&utf8] {
        std::wstring text = KALDO::CStringUtils::StringToWString(utf8);
        benchmark::DoNotOptimize(text.data());
    };
    decode();
    for (auto _ : state) decode();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(mb * kMB));
}

// The floor for any routine that hands back a new wide text: allocate the
// output and copy the wide characters into it.
void MemcpyWide(benchmark::State& state, const Kind& kind, size_t mb) {
    const size_t chars = CodePoints(Slurp(TextFile(kind, mb)));
    std::unique_ptr<wchar_t[]> source(new wchar_t[chars]);
    std::fill(source.get(), source.get() + chars, L'x');
    auto copy = [&source, chars] {
        std::unique_ptr<wchar_t[]> wide(new wchar_t[chars]);
        std::memcpy(wide.get(), source.get(), chars * sizeof(wchar_t));
        benchmark::DoNotOptimize(wide.get());
    };
    // One untimed round first, as for every figure here: its memory then
    // comes from the warm heap (RunAndSummarize), not from fresh pages.
    copy();
    for (auto _ : state) copy();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(mb * kMB));
}

// ---- marker searches ----

// About 4 million characters of configuration lines (`key = "value"`, as in
// .vmx files and inventories: the marker's "=" and quote are on every line)
// with the looked-for lines at the very end, so every search walks the whole
// text and meets a near miss on each line.
const std::wstring& SearchText(bool crlf) {
    static const std::wstring lf = [] {
        std::string text;
        for (int n = 0; text.size() < 4 * kMB; ++n) {
            const std::string index = std::to_string(n % 1000);
            text += "ethernet" + index + ".displayNames = \"Adapter " + index + "\"\n";
            text += "sched.config" + index + " = \"" + std::to_string(n) + "\"\n";
            text += "vmlist" + index + ".config.version = \"8\"\n";
        }
        text += "config = \"/Users/ann/VM.vmx\"\ndisplayName = \"Bench VM\"\n";
        return KALDO::CStringUtils::StringToWString(text);
    }();
    static const std::wstring withCr = [] {
        std::wstring text;
        text.reserve(lf.size() + lf.size() / 16);
        for (wchar_t c : lf) {
            if (c == L'\n') text += L'\r';
            text += c;
        }
        return text;
    }();
    return crlf ? withCr : lf;
}

void SearchBytes(benchmark::State& state, bool crlf, const std::wstring& marker) {
    const std::wstring& text = SearchText(crlf);
    for (auto _ : state) {
        const void* hit = ::memmem(text.data(), text.size() * sizeof(wchar_t), marker.data(),
                                   marker.size() * sizeof(wchar_t));
        if (hit == nullptr) state.SkipWithError("marker not found");
        benchmark::DoNotOptimize(hit);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// One marker search over the search text, checked against the value it
// must find.
using Search = std::wstring (*)(const std::wstring& text);
void MarkerSearch(benchmark::State& state, bool crlf, Search search, const wchar_t* expected) {
    const std::wstring& text = SearchText(crlf);
    for (auto _ : state) {
        std::wstring value = search(text);
        if (value != expected) state.SkipWithError("wrong value");
        benchmark::DoNotOptimize(value.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

std::wstring DisplayName(const std::wstring& text) {
    return KALDO::CStringUtils::ParseSubstringFromString(text, L"", L"displayName = \"", L"\"\n",
                                                         nullptr);
}

std::wstring Config(const std::wstring& text) {
    return KALDO::CStringUtils::ExtractStringBetweenEnhance(text, L"config = \"", L"\"");
}

// A marker that starts with a line feed, over CR LF text: every line end is
// a candidate that must be looked at.
std::wstring DisplayNameAtLineStart(const std::wstring& text) {
    return KALDO::CStringUtils::ParseSubstringFromString(text, L"", L"\ndisplayName = \"", L"\"\n",
                                                         nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Comparison> comparisons;
    for (const Kind& kind : kKinds) {
        for (size_t mb : kSizesMB) {
            const std::string size = SizeName(kind, mb);
            benchmark::RegisterBenchmark(
                ("ReadFromTextFile/" + size).c_str(),
                [&kind, mb](benchmark::State& s) { ReadFromTextFile(s, kind, mb); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(
                ("StringToWString/" + size).c_str(),
                [&kind, mb](benchmark::State& s) { StringToWString(s, kind, mb); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            benchmark::RegisterBenchmark(
                ("memcpy_wide/" + size).c_str(),
                [&kind, mb](benchmark::State& s) { MemcpyWide(s, kind, mb); })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
            comparisons.push_back({"ReadFromTextFile " + size + " vs memcpy of the wide output",
                                   "ReadFromTextFile/" + size, "memcpy_wide/" + size,
                                   Goal::kSpeedAtLeast, 0.5});
            comparisons.push_back({"StringToWString " + size + " (decoding alone)",
                                   "StringToWString/" + size, "memcpy_wide/" + size,
                                   Goal::kSpeedAtLeast, 0.5});
        }
    }

    benchmark::RegisterBenchmark("ParseSubstringFromString/4Mchars", [](benchmark::State& s) {
        MarkerSearch(s, false, DisplayName, L"Bench VM");
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("memmem/displayName/4Mchars", [](benchmark::State& s) {
        SearchBytes(s, false, L"displayName = \"");
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("ExtractStringBetweenEnhance/4Mchars", [](benchmark::State& s) {
        MarkerSearch(s, false, Config, L"/Users/ann/VM.vmx");
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("memmem/config/4Mchars", [](benchmark::State& s) {
        SearchBytes(s, false, L"config = \"");
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("ParseSubstringFromString_CRLF/4Mchars", [](benchmark::State& s) {
        MarkerSearch(s, true, DisplayNameAtLineStart, L"Bench VM");
    })->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("memmem/crlf_displayName/4Mchars", [](benchmark::State& s) {
        SearchBytes(s, true, L"\r\ndisplayName = \"");
    })->Unit(benchmark::kMicrosecond);
    comparisons.push_back({"ParseSubstringFromString, marker at the end of 4M chars",
                           "ParseSubstringFromString/4Mchars", "memmem/displayName/4Mchars",
                           Goal::kInfo, 0});
    comparisons.push_back({"ExtractStringBetweenEnhance, marker at the end of 4M chars",
                           "ExtractStringBetweenEnhance/4Mchars", "memmem/config/4Mchars",
                           Goal::kInfo, 0});
    comparisons.push_back({"ParseSubstringFromString, line-feed marker over CR LF text",
                           "ParseSubstringFromString_CRLF/4Mchars",
                           "memmem/crlf_displayName/4Mchars", Goal::kInfo, 0});
    return RunAndSummarize(argc, argv, comparisons) == 0 ? 0 : 3;
}
