#include "FuzzKit.h"

#include <cstdio>
#include <cstdlib>

#include "KALDO/CErrorInfo.h"

namespace implvm_fuzz {

implvm_test::TestMachine& Mac() {
    // Removed when the process exits normally (the fuzzer's time is up);
    // a crashed run leaves its folder in the temporary folder.
    static implvm_test::TestMachine mac;
    static const bool ready = [] {
        mac.setConsoleUser("fuzz", 501, kHome);
        return true;
    }();
    (void)ready;
    return mac;
}

void BeginInput() {
    KALDO::CErrorInfo::clearErrors();
}

std::string Bytes(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

std::pair<std::string, std::string> SplitTwo(std::string_view input) {
    const size_t at = input.find(kSeparator);
    if (at == std::string_view::npos) return {std::string(input), std::string()};
    return {std::string(input.substr(0, at)), std::string(input.substr(at + kSeparator.size()))};
}

void Check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

}  // namespace implvm_fuzz
