// Text conversion and the marker parsers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>

#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

using KALDO::CStringUtils;
using Pieces = std::vector<std::wstring>;

namespace {

constexpr size_t npos = std::wstring::npos;
const std::wstring R = L"\uFFFD";

TEST(Utf8, DecodingAndEncodingTable) {
    // clang-format off
    const std::pair<std::string, std::wstring> cases[] = {
        {"a\xC3\xA9\xE2\x82\xAC", L"a\u00E9\u20AC"}, {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF", L"\U0001F600\U0010FFFF"},
        {"\xEF\xBB\xBFx", L"\uFEFFx"},  // a BOM is only dropped from files
        {"\x80\xC0\xAF", R + R + R},     // a stray continuation byte, an overlong "/"
        {"\xED\xA0\x80\xF4\x90\x80\x80", R + R + R + R + R + R + R},  // surrogate, above U+10FFFF
        {"\xF0\x9F\x98\xE2\x82", R + R}};  // cut short by another sequence, by the end
    // clang-format on
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(CStringUtils::StringToWString(bytes), text) << testing::PrintToString(bytes);
        if (text.find(R) == npos) {
            EXPECT_EQ(CStringUtils::WStringToString(text), bytes);
        }
    }
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

// ASCII runs (the 16-byte steps), characters of every length at a random
// density (the 32-byte windows and the straight-line path) and broken
// sequences (the careful path), then a few bytes changed; decoded from an
// exact-size copy so that a sanitizer build sees any read past the end.
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

TEST(Text, NumbersAffixesTrimAndSeparate) {
    // clang-format off
    const std::pair<const wchar_t*, int> numbers[] = {{L"4.3.12", 4}, {L"\u00A0\t-12 ", -12},
        {L"- 5", 0}, {L"2147483648", INT_MAX}, {L"-99999999999999999999", INT_MIN}};
    // clang-format on
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(CStringUtils::StrToI32(text), value) << text;
    EXPECT_EQ(CStringUtils::I32ToStr(INT_MIN), L"-2147483648");
    // clang-format off
    const struct { const wchar_t *text, *affix; signed char flag; bool begins, ends; } affixes[] = {
        {L"Win7.VMX", L"win7", 0, true, false}, {L"Win7.VMX", L".vmx", 0, false, true},
        {L"Win7.VMX", L".vmx", 1, false, false}, {L"\u00C9t\u00E9", L"\u00E9", 0, false, true},
        {L"abc", L"", 1, true, true}, {L"ab", L"abc", 0, false, false}};
    // clang-format on
    for (const auto& c : affixes) {
        EXPECT_EQ(CStringUtils::BeginsWith(c.text, c.affix, c.flag), c.begins) << c.text << c.affix;
        EXPECT_EQ(CStringUtils::EndsWith(c.text, c.affix, c.flag), c.ends) << c.text << c.affix;
    }
    EXPECT_EQ(CStringUtils::Trim(L" \t\r\n\v\f\u00A0 a b \r\n"), L"a b");
    EXPECT_EQ(CStringUtils::Separate(L"a,,b,", L","), (Pieces{L"a", L"", L"b"}));
}

std::wstring Parse(const std::wstring& text, const wchar_t* section, const wchar_t* begin,
                   const wchar_t* end, size_t* pos = nullptr) {
    return CStringUtils::ParseSubstringFromString(text, section, begin, end, pos);
}

TEST(Parse, SectionBeginEndAndPosition) {
    const std::wstring xml =
        L"<Identification><VmName>Win</VmName></Identification>"
        L"<General><OsType>9</OsType></General><VmName>late</VmName><Tail>cut";
    // clang-format off
    const std::array<const wchar_t*, 4> cases[] = {  // section, begin, end, value
        {L"<Identification>", L"<VmName>", L"</VmName>", L"Win"},
        {L"<General>", L"<VmName>", L"</VmName>", L"late"},  // begin may lie past the section
        {L"<Missing>", L"<OsType>", L"</OsType>", L""},
        {L"", L"<Tail>", L"</Tail>", L""},  // a truncated value is not returned
        {L"", L"<Tail>", L"", L"cut"}};     // empty end: to the end of the text
    // clang-format on
    for (const auto& c : cases) EXPECT_EQ(Parse(xml, c[0], c[1], c[2]), c[3]) << c[0] << c[1];

    const std::wstring text = L"NIC 1: a\nNIC 2: b\nNIC 3: c";
    size_t pos = 0;
    EXPECT_EQ(Parse(text, L"NIC", L": ", L"\n", &pos), L"a");
    EXPECT_EQ(pos, 9u);  // just past the end marker
    EXPECT_EQ(Parse(text, L"NIC", L": ", L"\n", &pos), L"b");
    EXPECT_EQ(Parse(text, L"NIC", L": ", L"\n", &pos), L"");
    EXPECT_EQ(pos, npos);  // "c" has no end marker
    EXPECT_EQ(Parse(text, L"", L"NIC", L":", &pos), L"");
    EXPECT_EQ(pos, npos);  // a failed position stays failed
}

// Markers: ASCII letters fold, nothing else does; a line feed also matches
// "\r\n", whose carriage return never ends up in the value.
TEST(Parse, MarkerMatchingRules) {
    // clang-format off
    const std::array<const wchar_t*, 4> cases[] = {  // text, begin, end, value
        {L"GUESTOS = \"RHEL5\"\r\nx", L"guestOS = \"", L"\"\n", L"RHEL5"},
        {L"<VmName>\u00C9x</VMNAME>", L"<vmname>", L"</VmName>", L"\u00C9x"},
        {L"\u00E9=1;", L"\u00C9=", L";", L""}, {L"Name: \r\nX", L"Name: ", L"\n", L""},
        {L"a\r\nb=1\n", L"a\nb=", L"\n", L"1"}, {L"Name: vm\rX", L"Name: ", L"\n", L""},
        {L"h\n\r\nbody\r\n\n", L"\n\n", L"\n\n", L"body"},
        {L"k=v\r\r\n", L"k=", L"\n", L"v\r"},  // only one carriage return belongs to the pair
        {L"k=v\rw\n", L"k=", L"\r\n", L""}};   // a marker's own "\r" needs one in the text
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(Parse(c[0], L"", c[1], c[2]), c[3]) << testing::PrintToString(std::wstring(c[0]));
}

TEST(ParseEx, SectionsAppendReplaceLimitAndTruncation) {
    const std::wstring xml =
        L"<VirtualMachine><VmHome>/a.pvm</VmHome></VirtualMachine><VirtualMachine><Other/>"
        L"</VirtualMachine><VirtualMachine><VmHome>/b.pvm</VmHome><VirtualMachine><VmHome>/cut";
    const auto ex = [&xml](Pieces& list, const wchar_t* section, const wchar_t* end, int max,
                           int append) {
        return CStringUtils::ParseSubstringFromStringEx(xml, list, section, L"<VmHome>", end, max,
                                                        append);
    };
    Pieces list{L"kept"};
    EXPECT_EQ(ex(list, L"<VirtualMachine>", L"</VmHome>", 0, 1), 2);
    EXPECT_EQ(list, (Pieces{L"kept", L"/a.pvm", L"/b.pvm"}));
    EXPECT_EQ(ex(list, L"", L"</VmHome>", 1, 0), 1);
    EXPECT_EQ(ex(list, L"", L"", 0, 0), KALDO::kInvalidArgument);
    EXPECT_EQ(list, Pieces{L"/a.pvm"});
}

// Marker searches jump between occurrences of one character of the marker or,
// for all-letter markers, scan folded: over a small alphabet, where near
// misses are everywhere, they must find what a plain folded search finds.
TEST(Extract, MarkerSearchAgreesWithAPlainFoldedSearch) {
    const auto lower = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? c + 32 : c; };
    std::mt19937 rng(11);
    const auto random = [&rng](size_t length, size_t alphabet) {
        std::wstring text;
        while (text.size() < length) text += L"aAbB= \"<\u00E9|"[rng() % alphabet];
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::wstring text = random(rng() % 60, 10), begin = random(1 + rng() % 4, 9);
        const size_t from = rng() % (text.size() + 2);
        size_t expectedPos = npos, b = from;
        for (; b + begin.size() <= text.size(); ++b) {
            size_t i = 0;
            while (i < begin.size() && lower(text[b + i]) == lower(begin[i])) ++i;
            if (i == begin.size()) break;
        }
        if (b + begin.size() <= text.size() && text.find(L'|', b + begin.size()) != npos)
            expectedPos = b + begin.size();
        size_t pos = 0;
        const std::wstring value =
            CStringUtils::ExtractStringBetweenEnhance(text, begin, L"|", from, &pos);
        ASSERT_EQ(pos, expectedPos) << testing::PrintToString(CStringUtils::WStringToString(text))
                                    << " " << testing::PrintToString(begin) << " from " << from;
        ASSERT_EQ(value, pos == npos ? L"" : text.substr(pos, text.find(L'|', pos) - pos));
    }
}

}  // namespace
