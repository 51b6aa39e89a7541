#include "Suggest.h"

#include <algorithm>
#include <cctype>

namespace implvm {

namespace {

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                              std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::string ClosestName(const std::string& typed, const std::vector<std::string>& candidates) {
    // Names are short; a typed text far longer than any is no misspelling.
    if (typed.empty() || typed.size() > 256) return "";
    std::string best;
    size_t bestDistance = 0;
    for (const std::string& candidate : candidates) {
        const size_t distance = EditDistance(typed, candidate);
        if (best.empty() || distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return !best.empty() && bestDistance * 3 <= std::max(best.size(), typed.size()) ? best : "";
}

}  // namespace implvm
