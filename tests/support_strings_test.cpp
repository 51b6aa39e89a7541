// Text conversion and the marker parsers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>

#include "Golden.h"
#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

using implvm::Json;
using implvm_test::CheckGoldenTable;
using implvm_test::Narrow;
using implvm_test::Widen;
using KALDO::CStringUtils;
using Pieces = std::vector<std::wstring>;

namespace {

constexpr size_t npos = std::wstring::npos;
// Decoding rules against a reference below; here the round trip and what
// cannot be encoded.
TEST(Utf8, EncodingRoundTrip) {
    const std::string bytes("a\0\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF\xEF\xBB\xBF",
                            18);
    const std::wstring text(L"a\0\u00E9\u20AC\U0001F600\U0010FFFF\uFEFF", 7);
    EXPECT_EQ(CStringUtils::StringToWString(bytes), text);
    EXPECT_EQ(CStringUtils::WStringToString(text), bytes);
    const std::wstring unencodable{wchar_t(0xD800), wchar_t(0x110000)};
    EXPECT_EQ(CStringUtils::WStringToString(unencodable), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

// One sequence at a time; each maximal subpart of a broken one is one U+FFFD.
std::wstring ReferenceDecode(const std::string& bytes) {
    std::wstring out;
    for (size_t i = 0; i < bytes.size();) {
        const unsigned c = static_cast<unsigned char>(bytes[i++]);
        if (c < 0x80) {
            out += static_cast<wchar_t>(c);
            continue;
        }
        const unsigned need = c >= 0xC2 && c <= 0xDF   ? 1
                              : c >= 0xE0 && c <= 0xEF ? 2
                              : c >= 0xF0 && c <= 0xF4 ? 3
                                                       : 0;
        const unsigned lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;  // the second byte's range
        const unsigned hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
        uint32_t cp = c & (0x3F >> need);
        unsigned got = 0;
        for (; got < need && i < bytes.size(); ++got, ++i) {
            const unsigned b = static_cast<unsigned char>(bytes[i]);
            if (b < (got ? 0x80 : lo) || b > (got ? 0xBF : hi)) break;
            cp = cp << 6 | (b & 0x3F);
        }
        out += need > 0 && got == need ? static_cast<wchar_t>(cp) : wchar_t(0xFFFD);
    }
    return out;
}

// ASCII runs, characters of every length at a random density and broken
// sequences reach every step of each path; the exact-size copy lets a
// sanitizer build see any read past the end.
TEST(Utf8, EveryDecoderPathAgreesWithTheReference) {
    static const uint32_t kPoints[] = {0x7F,   0x80,   0x7FF,   0x800,   0xD7FF,
                                       0xE000, 0xFFFF, 0x10000, 0x10FFFF};
    static const std::string kBroken[] = {
        "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xBF",
        "\xF5",     "\xFF",         "\xE2\x82",     "\xF0\x9F\x98",     "\xC3"};
    std::mt19937 rng(2024);
    for (int round = 0; round < 20000; ++round) {
        const size_t length = round % 1000 == 0 ? 20000 + rng() % 20000 : rng() % 300;
        const unsigned asciiShare = rng() % 101;
        std::string text;
        while (text.size() < length) {
            if (rng() % 100 < asciiShare) {
                for (size_t run = rng() % 40; run > 0; --run) text += char(0x20 + rng() % 0x5F);
            } else if (rng() % 4) {
                const uint32_t cp =
                    rng() % 2 ? kPoints[rng() % std::size(kPoints)] : rng() % 0x110000;
                text += CStringUtils::WStringToString(std::wstring(1, static_cast<wchar_t>(cp)));
            } else {
                text += kBroken[rng() % std::size(kBroken)];
            }
        }
        for (unsigned n = rng() % 3; n > 0 && !text.empty(); --n)
            text[rng() % text.size()] = static_cast<char>(0x80 + rng() % 0x80);
        const std::unique_ptr<char[]> exact(new char[text.size()]);
        std::copy(text.begin(), text.end(), exact.get());
        const std::wstring got =
            CStringUtils::StringToWString(std::string_view(exact.get(), text.size()));
        ASSERT_TRUE(got == ReferenceDecode(text)) << testing::PrintToString(text);
    }
}

TEST(Text, NumbersTrimAndSeparate) {
    // clang-format off
    const std::pair<const wchar_t*, int> numbers[] = {{L"4.3.12", 4}, {L"\u00A0\t-12 ", -12},
        {L"- 5", 0}, {L"2147483648", INT_MAX}, {L"-99999999999999999999", INT_MIN}};
    // clang-format on
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(CStringUtils::StrToI32(text), value) << text;
    EXPECT_EQ(CStringUtils::I32ToStr(INT_MIN), L"-2147483648");
    EXPECT_EQ(CStringUtils::Trim(L" \t\r\n\v\f\u00A0 a b \r\n"), L"a b");
    // A line break splits at every kind of line end; anything else literally.
    const std::pair<std::wstring, Pieces> separated[] = {
        {L"Total: 2\nA\r\nB\rC\n", {L"Total: 2", L"A", L"B", L"C"}},
        {L"a\n\r\nb\r\r\n", {L"a", L"", L"b", L""}},  // CR LF counts once
        {L"x\n\ny", {L"x", L"", L"y"}},
    };
    for (const wchar_t* lineBreak : {L"\r\n", L"\n", L"\r"})
        for (const auto& [text, pieces] : separated)
            EXPECT_EQ(CStringUtils::Separate(text, lineBreak), pieces)
                << testing::PrintToString(text) << " at " << testing::PrintToString(lineBreak);
    EXPECT_EQ(CStringUtils::Separate(L"a,,b,", L","), (Pieces{L"a", L"", L"b"}));
    EXPECT_EQ(CStringUtils::Separate(L"a\nb\n\nc", L"\n\n"), (Pieces{L"a\nb", L"c"}));
}

// Markers: ASCII letters fold, nothing else does; a line feed also matches
// "\r\n", whose carriage return never ends up in the value. Each case of
// tests/data/parse_substring: text, section, begin and end marker.
TEST(Parse, SectionsMarkersAndPosition) {
    CheckGoldenTable("parse_substring", [](const Json& c) {
        return Narrow(CStringUtils::ParseSubstringFromString(Widen(c[0]), Widen(c[1]), Widen(c[2]),
                                                             Widen(c[3]), nullptr));
    });

    const std::wstring text = L"NIC 1: a\nNIC 2: b\nNIC 3: c";
    std::wstring seen;  // each value, then where the next search starts
    for (size_t pos = 0, n = 0; pos != npos && n < 4; ++n) {
        seen +=
            L"[" + CStringUtils::ParseSubstringFromString(text, L"NIC", L": ", L"\n", &pos) + L"]";
        seen += pos == npos ? L"end" : std::to_wstring(pos);
    }
    EXPECT_EQ(seen, L"[a]9[b]18[]end");  // "c" has no end marker
}

}  // namespace
