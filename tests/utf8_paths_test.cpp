// The UTF-8 decoder has several paths (16-byte ASCII steps, 32-byte windows
// of mixed text, a straight-line path for well-formed sequences, the careful
// path for everything else); random texts with valid and broken sequences at
// every offset must decode through all of them exactly as a plain reference
// does.
// (Sequences cut by read chunks are covered by the file tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "KALDO/CStringUtils.h"

namespace {

// One sequence at a time, each maximal subpart of a broken one replaced by
// U+FFFD.
std::wstring Reference(const std::string& bytes) {
    struct Lead {
        unsigned first, last, need, mask, lo, hi;  // lo..hi: the second byte's range
    };
    static const Lead kLeads[] = {
        {0xC2, 0xDF, 1, 0x1F, 0x80, 0xBF}, {0xE0, 0xE0, 2, 0x0F, 0xA0, 0xBF},
        {0xE1, 0xEC, 2, 0x0F, 0x80, 0xBF}, {0xED, 0xED, 2, 0x0F, 0x80, 0x9F},
        {0xEE, 0xEF, 2, 0x0F, 0x80, 0xBF}, {0xF0, 0xF0, 3, 0x07, 0x90, 0xBF},
        {0xF1, 0xF3, 3, 0x07, 0x80, 0xBF}, {0xF4, 0xF4, 3, 0x07, 0x80, 0x8F}};
    std::wstring out;
    size_t i = 0;
    while (i < bytes.size()) {
        const unsigned c = static_cast<unsigned char>(bytes[i++]);
        if (c < 0x80) {
            out += static_cast<wchar_t>(c);
            continue;
        }
        const Lead* lead = nullptr;
        for (const Lead& l : kLeads)
            if (c >= l.first && c <= l.last) lead = &l;
        if (lead == nullptr) {
            out += wchar_t(0xFFFD);
            continue;
        }
        uint32_t cp = c & lead->mask;
        unsigned got = 0;
        for (; got < lead->need && i < bytes.size(); ++got, ++i) {
            const unsigned b = static_cast<unsigned char>(bytes[i]);
            const unsigned lo = got == 0 ? lead->lo : 0x80, hi = got == 0 ? lead->hi : 0xBF;
            if (b < lo || b > hi) break;
            cp = (cp << 6) | (b & 0x3F);
        }
        out += got == lead->need ? static_cast<wchar_t>(cp) : wchar_t(0xFFFD);
    }
    return out;
}

// Mostly ASCII runs of random length, broken up by pieces that exercise
// every kind of lead byte, valid or not.
std::string RandomText(std::mt19937& rng, size_t length) {
    static const std::string pieces[] = {"\xC3\xA9",
                                         "\xE2\x82\xAC",
                                         "\xF0\x9F\x98\x80",
                                         "\xF4\x8F\xBF\xBF",
                                         "\xC0\xAF",
                                         "\xE0\x80\xAF",
                                         "\xED\xA0\x80",
                                         "\xF4\x90\x80\x80",
                                         "\x80",
                                         "\xBF\xBF",
                                         "\xF5",
                                         "\xFF",
                                         "\xE2\x82",
                                         "\xF0\x9F\x98",
                                         "\xC3",
                                         "\xEF\xBB\xBF"};
    std::string text;
    while (text.size() < length) {
        if (rng() % 3 == 0) {
            text += pieces[rng() % std::size(pieces)];
        } else {
            const size_t run = rng() % 70;
            for (size_t k = 0; k < run; ++k) text += static_cast<char>(0x20 + rng() % 0x5F);
        }
    }
    return text;
}

// Valid text with characters of every length (the edges of each range
// among them) at a random density, then broken in a few random places.
std::string MutatedText(std::mt19937& rng, size_t length) {
    static const uint32_t kPoints[] = {0x7F,   0x80, 0x7FF,  0x800,   0xD7FF,  0xE000,  0xFFFD,
                                       0xFFFF, 0xE9, 0x20AC, 0x10000, 0x1F600, 0x10FFFF};
    const unsigned share = rng() % 101;  // percent of non-ASCII characters
    std::string text;
    while (text.size() < length) {
        if (rng() % 100 >= share) {
            text += static_cast<char>(0x20 + rng() % 0x5F);
        } else {
            const uint32_t cp = rng() % 2 ? kPoints[rng() % std::size(kPoints)] : rng() % 0x110000;
            text += KALDO::CStringUtils::WStringToString(std::wstring(1, static_cast<wchar_t>(cp)));
        }
    }
    for (unsigned n = rng() % 4; n > 0 && !text.empty(); --n) {
        const size_t at = rng() % text.size();
        const char byte = static_cast<char>(0x80 + rng() % 0x80);
        switch (rng() % 3) {
            case 0:
                text[at] = byte;
                break;
            case 1:
                text.erase(at, 1);
                break;
            default:
                text.insert(at, 1, byte);
        }
    }
    return text;
}

// From an exact-size copy, so that a sanitizer build sees any read past the
// end that the vector steps might make.
std::wstring Decode(const std::string& text) {
    const std::unique_ptr<char[]> exact(new char[text.size()]);
    std::copy(text.begin(), text.end(), exact.get());
    return KALDO::CStringUtils::StringToWString(std::string_view(exact.get(), text.size()));
}

TEST(Utf8Paths, EveryPathDecodesAsTheReference) {
    std::mt19937 rng(2024);
    for (int round = 0; round < 3000; ++round) {
        const std::string text = RandomText(rng, rng() % 300);
        ASSERT_EQ(Decode(text), Reference(text)) << testing::PrintToString(text);
    }
    for (int round = 0; round < 20000; ++round) {
        const std::string text = MutatedText(rng, rng() % 200);
        ASSERT_EQ(Decode(text), Reference(text)) << testing::PrintToString(text);
    }
    // Long texts are decoded in pieces; sequences cut by a piece's end.
    for (int round = 0; round < 20; ++round) {
        const std::string text = MutatedText(rng, 20000 + rng() % 20000);
        ASSERT_TRUE(Decode(text) == Reference(text)) << "round " << round;
    }
}

}  // namespace
