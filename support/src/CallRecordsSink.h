// How CoreUtils hands records to the scopes open on the calling thread (see
// KALDO/CCallRecords.h). Internal to CoreUtils.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "KALDO/CCallRecords.h"
#include "KALDO/CStringUtils.h"

namespace KALDO {

struct CCallRecords::Sink {
    // True when a scope is open on this thread: the only cost a caller pays
    // without one.
    static bool open() noexcept;
    // Copies the record into every scope open on this thread.
    static void error(const ErrorRecord& record) noexcept;
    static void toolFailure(const ToolFailure& failure) noexcept;
};

namespace detail {

// The last `lines` lines of `text` that hold more than blanks (space, tab,
// CR), oldest first, joined by "\n", without the CR of a CR LF, then cut to
// its last `maxBytes` bytes at a UTF-8 character start; decoded as
// StringToWString does.
inline std::wstring LastLines(std::string_view text, size_t lines, size_t maxBytes) {
    // Walks back from the end and stops once the lines found fill maxBytes:
    // a flood of output costs no more than its last lines.
    std::vector<std::string_view> found;  // newest first
    size_t joined = 0;                    // their length joined by "\n", plus one
    for (size_t end = text.size(); found.size() < lines && joined <= maxBytes && end > 0;) {
        const size_t feed = text.rfind('\n', end - 1);
        const size_t start = feed == std::string_view::npos ? 0 : feed + 1;
        std::string_view line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!std::all_of(line.begin(), line.end(),
                         [](char c) { return c == ' ' || c == '\t' || c == '\r'; })) {
            found.push_back(line);
            joined += line.size() + 1;
        }
        if (feed == std::string_view::npos) break;
        end = feed;
    }
    std::string tail;
    for (auto line = found.rbegin(); line != found.rend(); ++line) {
        if (!tail.empty()) tail += '\n';
        tail += *line;
    }
    if (tail.size() > maxBytes) {
        // The cut moves past the continuation bytes (at most three) of a
        // character it would split.
        const auto continues = [&tail](size_t at) {
            return at < tail.size() && (static_cast<unsigned char>(tail[at]) & 0xC0) == 0x80;
        };
        size_t cut = tail.size() - maxBytes;
        for (int k = 0; k < 3 && continues(cut); ++k) ++cut;
        tail.erase(0, cut);
    }
    return CStringUtils::StringToWString(tail);
}

}  // namespace detail
}  // namespace KALDO
