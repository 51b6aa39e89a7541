// Marker searches jump between occurrences of one character of the marker
// (a non-letter, preferably not a blank) or, for markers that are all
// letters, scan folded. Random texts over a small alphabet, where near
// misses are everywhere, must give what a plain folded search gives.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "KALDO/CStringUtils.h"

namespace {

constexpr size_t npos = std::wstring::npos;

wchar_t Lower(wchar_t c) {
    return c >= L'A' && c <= L'Z' ? c + 32 : c;
}

size_t FoldedFind(const std::wstring& text, const std::wstring& marker, size_t from) {
    for (size_t pos = from; pos + marker.size() <= text.size(); ++pos) {
        size_t i = 0;
        while (i < marker.size() && Lower(text[pos + i]) == Lower(marker[i])) ++i;
        if (i == marker.size()) return pos;
    }
    return npos;
}

std::wstring RandomText(std::mt19937& rng, const std::wstring& alphabet, size_t length) {
    std::wstring text;
    for (size_t i = 0; i < length; ++i) text += alphabet[rng() % alphabet.size()];
    return text;
}

TEST(MarkerSearchPaths, AgreeWithAPlainFoldedSearch) {
    std::mt19937 rng(11);
    const std::wstring textAlphabet = L"aAbB= \"<\u00E9|";
    const std::wstring markerAlphabet = L"aAbB= \"<\u00E9";
    for (int round = 0; round < 20000; ++round) {
        const std::wstring text = RandomText(rng, textAlphabet, rng() % 60);
        const std::wstring begin = RandomText(rng, markerAlphabet, 1 + rng() % 4);
        const size_t from = rng() % (text.size() + 2);
        size_t valuePos = 0;
        const std::wstring value =
            KALDO::CStringUtils::ExtractStringBetweenEnhance(text, begin, L"|", from, &valuePos);

        std::wstring expected;
        size_t expectedPos = npos;
        const size_t b = from <= text.size() ? FoldedFind(text, begin, from) : npos;
        if (b != npos) {
            const size_t e = text.find(L'|', b + begin.size());
            if (e != npos) {
                expectedPos = b + begin.size();
                expected = text.substr(expectedPos, e - expectedPos);
            }
        }
        ASSERT_EQ(valuePos, expectedPos) << "text '" << testing::PrintToString(text) << "' begin '"
                                         << testing::PrintToString(begin) << "' from " << from;
        ASSERT_EQ(value, expected);
    }
}

}  // namespace
