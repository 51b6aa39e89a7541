// Text conversion and the substring parsers.
#include <gtest/gtest.h>

#include "KALDO/CStringUtils.h"
#include "KALDO/Result.h"

using KALDO::CStringUtils;

namespace {

TEST(Utf8, DecodesAndReplacesInvalid) {
    EXPECT_EQ(CStringUtils::StringToWString(std::string("a\xC3\xA9\xF0\x9F\x98\x80z")),
              std::wstring(L"a\u00E9\U0001F600z"));
    EXPECT_EQ(CStringUtils::StringToWString(std::string("\xC0\xAF")),
              std::wstring(L"\uFFFD\uFFFD"));
}

TEST(Parse, SectionBeginEnd) {
    const std::wstring text = L"<A><x>1</x></A><B><x>2</x></B>";
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"<B>", L"<x>", L"</x>", nullptr), L"2");
    std::vector<std::wstring> all;
    EXPECT_EQ(CStringUtils::ParseSubstringFromStringEx(text, all, L"", L"<x>", L"</x>", 0, 1), 2);
    EXPECT_EQ(all, (std::vector<std::wstring>{L"1", L"2"}));
}

TEST(Parse, LineFeedMarkerMatchesCrLf) {
    const std::wstring text = L"displayName = \"Win\"\r\nguestOS = \"winxp\"\r\n";
    EXPECT_EQ(CStringUtils::ParseSubstringFromString(text, L"", L"guestOS = \"", L"\"\n", nullptr),
              L"winxp");
    EXPECT_EQ(
        CStringUtils::ParseSubstringFromString(L"Name: vm\r\nX", L"", L"Name: ", L"\n", nullptr),
        L"vm");
}

}  // namespace
