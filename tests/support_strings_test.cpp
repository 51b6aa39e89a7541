// Text conversion and the substring parsers.
#include <gtest/gtest.h>

#include <climits>
#include <random>

#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

using KALDO::CStringUtils;
using Pieces = std::vector<std::wstring>;

namespace {

constexpr size_t npos = std::wstring::npos;
const std::wstring R = L"\uFFFD";

TEST(Utf8, DecodingTable) {
    // clang-format off
    struct Case {
        std::string bytes;
        std::wstring text;
    } cases[] = {
        {"plain ascii", L"plain ascii"},
        {"a\xC3\xA9", L"a\u00E9"},
        {"\xE2\x82\xAC", L"\u20AC"},
        {"\xF0\x9F\x98\x80", L"\U0001F600"},
        {"\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
        {std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
        {"\x80", R},                          // stray continuation byte
        {"\xC0\xAF", R + R},                  // overlong "/"
        {"\xE0\x80\xAF", R + R + R},          // overlong, three bytes
        {"\xED\xA0\x80", R + R + R},          // a surrogate
        {"\xF4\x90\x80\x80", R + R + R + R},  // above U+10FFFF
        {"\xF5\xFF", R + R},                  // bytes that never start a sequence
        {"\xE2\x82", R},                      // cut short at the end
        {"\xE2\x82"
         "A",
         R + L"A"},  // cut short by an ASCII byte
        {"\xF0\x9F\x98"
         "\xF0\x9F\x98\x80",
         R + L"\U0001F600"},
        {"\xEF\xBB\xBFx", L"\uFEFFx"}  // a BOM is only dropped from files
    };
    // clang-format on
    for (const Case& c : cases)
        EXPECT_EQ(CStringUtils::StringToWString(c.bytes), c.text)
            << testing::PrintToString(c.bytes);
}

TEST(Utf8, EncodingReplacesWhatCannotBeEncoded) {
    EXPECT_EQ(CStringUtils::WStringToString(L"a\u00E9\u20AC\U0010FFFF"),
              "a\xC3\xA9\xE2\x82\xAC\xF4\x8F\xBF\xBF");
    EXPECT_EQ(CStringUtils::WStringToString(std::wstring(1, wchar_t(0xD800))), "\xEF\xBF\xBD");
    EXPECT_EQ(CStringUtils::WStringToString(std::wstring(1, wchar_t(0x110000))), "\xEF\xBF\xBD");
    EXPECT_EQ(CStringUtils::WStringToString(std::wstring(L"\0z", 2)), std::string("\0z", 2));
}

// Mixed text with non-ASCII characters at every offset relative to the
// 16-byte ASCII steps survives the round trip.
TEST(Utf8, RoundTripOfMixedText) {
    std::mt19937 rng(7);
    const wchar_t samples[] = {L'a',   L'Z',    L' ',     L'\n', 0xE9,
                               0x20AC, 0x1F600, 0x10FFFF, 0x7F,  0x80};
    for (int round = 0; round < 200; ++round) {
        std::wstring text;
        const size_t length = rng() % 100;
        for (size_t i = 0; i < length; ++i)
            text.push_back(rng() % 4 ? L'a' + static_cast<wchar_t>(rng() % 26)
                                     : samples[rng() % std::size(samples)]);
        ASSERT_EQ(CStringUtils::StringToWString(CStringUtils::WStringToString(text)), text);
    }
}

TEST(Numbers, StrToI32Table) {
    // clang-format off
    struct Case {
        const wchar_t* text;
        int value;
    } cases[] = {
        {L"42", 42}, {L" 7 ", 7}, {L"4.3.12", 4}, {L"-12", -12}, {L"+5", 5}, {L"12abc", 12},
        {L"abc", 0}, {L"", 0}, {L"-", 0}, {L"- 5", 0}, {L"\u00A0\t9", 9}, {L"2147483647", INT_MAX},
        {L"2147483648", INT_MAX}, {L"-2147483648", INT_MIN}, {L"-99999999999999999999", INT_MIN},
        {L"000123", 123},
    };
    // clang-format on
    for (const Case& c : cases) EXPECT_EQ(CStringUtils::StrToI32(c.text), c.value) << c.text;
    EXPECT_EQ(CStringUtils::I32ToStr(INT_MIN), L"-2147483648");
    EXPECT_EQ(CStringUtils::I32ToStr(0), L"0");
}

TEST(Text, BeginsWithEndsWithFlags) {
    // clang-format off
    struct Case {
        const wchar_t* text;
        const wchar_t* affix;
        signed char flag;
        bool begins;
        bool ends;
    } cases[] = {{L"Win7.VMX", L"win7", 0, true, false},
                 {L"Win7.VMX", L".vmx", 0, false, true},
                 {L"Win7.VMX", L".vmx", 1, false, false},
                 {L"Win7.vmx", L".vmx", 1, false, true},
    
        {L"\u00C9t\u00E9", L"\u00E9", 0, false, true},
        {L"\u00C9t\u00E9", L"\u00E9t", 0, false, false}, {L"abc", L"", 1, true, true},
        {L"", L"", 0, true, true}, {L"ab", L"abc", 0, false, false},
        {L"abc", L"abc", -1, true, true},
    };
    // clang-format on
    for (const Case& c : cases) {
        EXPECT_EQ(CStringUtils::BeginsWith(c.text, c.affix, c.flag), c.begins) << c.text << c.affix;
        EXPECT_EQ(CStringUtils::EndsWith(c.text, c.affix, c.flag), c.ends) << c.text << c.affix;
    }
}

TEST(Text, TrimAndSeparate) {
    EXPECT_EQ(CStringUtils::Trim(L" \t\r\n\v\f\u00A0 running \r\n"), L"running");
    EXPECT_EQ(CStringUtils::Trim(L" \r\n "), L"");
    EXPECT_EQ(CStringUtils::Trim(L"a b"), L"a b");
    // clang-format off
    struct Case {
        const wchar_t* text;
        const wchar_t* separator;
        Pieces pieces;
    } cases[] = {{L"a,b,c", L",", {L"a", L"b", L"c"}},
                 {L"a,,b", L",", {L"a", L"", L"b"}},
                 {L"a,b,", L",", {L"a", L"b"}},
                 {L"a,b,,", L",", {L"a", L"b", L""}},
                 {L",a", L",", {L"", L"a"}},
                 {L",", L",", {L""}},
        {L"", L",", {}}, {L"abc", L"", {L"abc"}}, {L"abc", L";", {L"abc"}},
        {L"a::b:c", L"::", {L"a", L"b:c"}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CStringUtils::Separate(c.text, c.separator), c.pieces) << c.text;
}

TEST(Extract, BetweenMarkers) {
    EXPECT_EQ(CStringUtils::ExtractStringBetween(L"x]a[b]c", L"[", L"]"), L"b");
    EXPECT_EQ(CStringUtils::ExtractStringBetween(L"a[b", L"[", L"]"), L"");
    EXPECT_EQ(CStringUtils::ExtractStringBetween(L"a]b", L"[", L"]"), L"");
    EXPECT_EQ(CStringUtils::ExtractStringBetweenEnhance(L"config = \"\"\nconfig = \"/v.vmx\"",
                                                        L"config = \"", L"\""),
              L"");
    // The position form walks a text without copying what is left of it.
    const std::wstring text = L"config = \"/a.vmx\"\nconfig = \"/b c.vmx\"\nconfig = \"/trunc";
    Pieces values;
    size_t at = 0;
    size_t pos = 0;
    for (;;) {
        std::wstring v =
            CStringUtils::ExtractStringBetweenEnhance(text, L"config = \"", L"\"", at, &pos);
        if (pos == npos) break;
        EXPECT_EQ(text.compare(pos, v.size(), v), 0);
        at = pos + v.size() + 1;
        values.push_back(v);
    }
    EXPECT_EQ(values, (Pieces{L"/a.vmx", L"/b c.vmx"}));
}

TEST(Parse, SubstringTable) {
    const std::wstring xml =
        L"<Identification><VmName>Win</VmName></Identification>"
        L"<General><OsType>9</OsType><OsNumber>2058</OsNumber></General>"
        L"<VmName>late</VmName><Tail>cut";
    // clang-format off
    struct Case {
        const wchar_t* section;
        const wchar_t* begin;
        const wchar_t* end;
        const wchar_t* value;
    } cases[] = {
        {L"<Identification>", L"<VmName>", L"</VmName>", L"Win"},
        {L"<General>", L"<VmName>", L"</VmName>", L"late"},  // begin may lie past the section
        {L"", L"<OsNumber>", L"</OsNumber>", L"2058"},
        {L"<Missing>", L"<OsType>", L"</OsType>", L""},
        {L"<General>", L"<Nope>", L"</Nope>", L""},
        {L"", L"<Tail>", L"</Tail>", L""},  // a truncated value is not returned
        {L"", L"<Tail>", L"", L"cut"},      // empty end: to the end of the text
        {L"<General>", L"<General>", L"</General>",
         L"<OsType>9</OsType><OsNumber>2058</OsNumber>"}};
    for (const Case& c : cases)
        EXPECT_EQ(CStringUtils::ParseSubstringFromString(xml, c.section, c.begin, c.end, nullptr),
                  c.value)
            << c.section << c.begin;
}

TEST(Parse, PositionInAndOut) {
    const std::wstring text = L"NIC 1: a\nNIC 2: b\nNIC 3: c";
    size_t pos = 0;
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"NIC", L": ", L"\n", &pos), L"a");
    EXPECT_EQ(pos, 9u);  // just past the end marker
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"NIC", L": ", L"\n", &pos), L"b");
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"NIC", L": ", L"\n", &pos), L"");
    EXPECT_EQ(pos, npos);  // "c" has no end marker
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"", L"NIC", L":", &pos), L"");
    EXPECT_EQ(pos, npos);  // a failed position stays failed
    pos = text.size() + 5;
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"", L"", L"", &pos), L"");
    EXPECT_EQ(pos, npos);
}

// A line feed in a marker also matches "\r\n"; the carriage return never ends
// up in a value.
TEST(Parse, LineFeedMarkersToleratCrLf) {
    // clang-format off
    struct Case {
        std::wstring text;
        const wchar_t* begin;
        const wchar_t* end;
        std::wstring value;
    } cases[] = {
        {L"guestOS = \"winxp\"\r\nx", L"guestOS = \"", L"\"\n", L"winxp"},
        {L"guestOS = \"winxp\"\nx", L"guestOS = \"", L"\"\n", L"winxp"},
        {L"Name: vm\r\nX", L"Name: ", L"\n", L"vm"},
        {L"Name: \r\nX", L"Name: ", L"\n", L""},
        {L"a\r\nb=1\n", L"a\nb=", L"\n", L"1"},
        {L"h\r\n\r\nbody\r\n\r\n", L"\n\n", L"\n\n", L"body"},
        {L"h\n\r\nbody\r\n\n", L"\n\n", L"\n\n", L"body"},
        {L"k=v\r\r\n", L"k=", L"\n", L"v\r"},  // only one carriage return belongs to the pair
        {L"k=v\rw\n", L"k=", L"\r\n", L""},    // a marker's own "\r" needs one in the text
        {L"Name: vm\rX", L"Name: ", L"\n", L""}};
    for (const Case& c : cases)
        EXPECT_EQ(CStringUtils::ParseSubstringFromString(c.text, L"", c.begin, c.end, nullptr),
                  c.value)
            << testing::PrintToString(CStringUtils::WStringToString(c.text));
}

TEST(ParseEx, AppendReplaceLimitAndTruncation) {
    const std::wstring xml =
        L"<VirtualMachine><VmHome>/a.pvm</VmHome></VirtualMachine>\r\n"
        L"<VirtualMachine><Other/></VirtualMachine>"
        L"<VirtualMachine><VmHome>/b.pvm</VmHome></VirtualMachine>"
        L"<VirtualMachine><VmHome>/trunc";
    Pieces list{L"kept"};
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(xml, list, L"<VirtualMachine>", L"<VmHome>",
                                                       L"</VmHome>", 0, 1),
              2);
    EXPECT_EQ(list, (Pieces{L"kept", L"/a.pvm", L"/b.pvm"}));
    EXPECT_EQ(
        CStringUtils::ParseSubstringFromStringEx(xml, list, L"", L"<VmHome>", L"</VmHome>", 1, 0),
        1);
    EXPECT_EQ(list, (Pieces{L"/a.pvm"}));
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(L"none", list, L"", L"<a>", L"</a>", 0, 0),
              0);
    EXPECT_TRUE(list.empty());

    list = {L"kept"};
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(xml, list, L"", L"", L"</VmHome>", 0, 0),
              KALDO::kInvalidArgument);
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(xml, list, L"", L"<VmHome>", L"", 0, 0),
              KALDO::kInvalidArgument);
    EXPECT_EQ(list, Pieces{L"kept"});
}

TEST(ParseEx, OneValuePerSectionAndEveryPairWithout) {
    const std::wstring text =
        L"<MachineEntry uuid=\"1\" src=\"/m/a.vbox\"/>\n<MachineEntry src=\"/m/b.vbox\" x=\"y\"/>\n"
        L"<MachineEntry src=\"/m/c.vbox\"/>";
    Pieces list;
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(text, list, L"<MachineEntry", L"src=\"",
                                                       L"\"/>", 0, 1),
              3);
    // A src that is not the element's last attribute runs on to the element's
    // closing marker: the text is cut, not parsed.
    EXPECT_EQ(list, (Pieces{L"/m/a.vbox", L"/m/b.vbox\" x=\"y", L"/m/c.vbox"}));
    list.clear();
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(L"<a>1</a><a>2</a><a></a>", list, L"",
                                                       L"<a>", L"</a>", 0, 1),
              3);
    EXPECT_EQ(list, (Pieces{L"1", L"2", L""}));
}

TEST(Parse, MarkersFoldAsciiCaseValuesStayAsWritten) {
    const std::wstring text =
        L"DISPLAYNAME = \"Fedora\"\nGUESTOS = \"RHEL5\"\n<VmName>\u00C9x</VMNAME>";
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"", L"guestOS = \"", L"\"\n", nullptr),
              L"RHEL5");
    EXPECT_EQ(CStringUtils::ExtractStringBetween(text, L"displayname = \"", L"\""), L"Fedora");
    std::vector<std::wstring> all;
    EXPECT_EQ(
        CStringUtils::ParseSubstringFromStringEx(text, all, L"", L"<vmname>", L"</VmName>", 0, 0),
        1);
    EXPECT_EQ(all, (std::vector<std::wstring>{L"\u00C9x"}));
    // Only ASCII letters fold.
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(L"\u00E9=1;", L"", L"\u00C9=", L";", nullptr),
              L"");
}

}  // namespace
