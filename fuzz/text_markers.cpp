// Marker matching and the other text operations against plain reference
// readings of their documented rules: a search that tries every position in
// turn (ASCII letters folded, a marker's line feed also matching CR LF, a
// bare start tag also matching the tag with attributes), and
// the documented relations between the operations (the Ex form collects what
// the single form finds one after the other; ExtractStringBetween and both
// Enhance forms agree).
//
// Input: one option byte, then UTF-8 text holding up to four pieces
// separated by U+0001: section, begin marker, end marker, text.
#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzKit.h"
#include "KALDO/CStringUtils.h"

using implvm_fuzz::Check;
using KALDO::CStringUtils;

namespace {

constexpr size_t npos = std::wstring::npos;

wchar_t Lower(wchar_t c) {
    return c >= L'A' && c <= L'Z' ? c - L'A' + L'a' : c;
}

// Where a match of marker at `at` ends, or npos.
size_t MatchEnd(std::wstring_view text, size_t at, std::wstring_view marker) {
    for (const wchar_t m : marker) {
        if (m == L'\n' && text.substr(at).starts_with(L"\r\n")) {
            at += 2;
        } else if (at < text.size() && Lower(text[at]) == Lower(m)) {
            ++at;
        } else {
            return npos;
        }
    }
    return at;
}

bool IsNameChar(wchar_t c, bool first) {
    const wchar_t l = Lower(c);
    return (l >= L'a' && l <= L'z') || c == L'_' || c == L':' || c > 0x7F ||
           (!first && ((c >= L'0' && c <= L'9') || c == L'-' || c == L'.'));
}

bool IsBareStartTag(std::wstring_view marker) {
    if (marker.size() < 3 || marker.front() != L'<' || marker.back() != L'>') return false;
    for (size_t i = 1; i + 1 < marker.size(); ++i)
        if (!IsNameChar(marker[i], i == 1)) return false;
    return true;
}

// "<Name>" at `at`: as written, or "<Name", a blank, anything but ">", then a
// ">" not preceded by "/".
size_t StartTagEnd(std::wstring_view text, size_t at, std::wstring_view marker) {
    const size_t end = MatchEnd(text, at, marker);
    if (end != npos) return end;
    const size_t open = MatchEnd(text, at, marker.substr(0, marker.size() - 1));
    if (open == npos || open >= text.size() ||
        std::wstring_view(L" \t\r\n").find(text[open]) == npos)
        return npos;
    const size_t close = text.find(L'>', open);
    return close == npos || text[close - 1] == L'/' ? npos : close + 1;
}

struct Found {
    size_t pos = npos;
    size_t end = npos;
};

Found Find(std::wstring_view text, std::wstring_view marker, size_t from) {
    const bool tag = IsBareStartTag(marker);
    for (size_t p = from; p <= text.size(); ++p) {
        const size_t end = tag ? StartTagEnd(text, p, marker) : MatchEnd(text, p, marker);
        if (end != npos) return {p, end};
    }
    return {};
}

// Begin ... end from `from`; an empty end marker runs to the end of the text
// when toEnd is set. Returns the value's start and end and the end of the
// end marker's match.
struct Value {
    size_t begin = npos, end = npos, after = npos;
};

Value FindValue(std::wstring_view text, std::wstring_view begin, std::wstring_view end, size_t from,
                bool toEnd) {
    const Found b = Find(text, begin, from);
    if (b.pos == npos) return {};
    if (end.empty() && toEnd) return {b.end, text.size(), text.size()};
    const Found e = Find(text, end, b.end);
    if (e.pos == npos) return {};
    return {b.end, e.pos, e.end};
}

std::wstring Cut(std::wstring_view text, const Value& v) {
    return v.begin == npos ? std::wstring() : std::wstring(text.substr(v.begin, v.end - v.begin));
}

bool IsSpace(wchar_t c) {
    return std::wstring_view(L" \t\n\r\v\f\u00A0").find(c) != npos;
}

int ReferenceStrToI32(const std::wstring& text) {
    size_t i = 0;
    while (i < text.size() && IsSpace(text[i])) ++i;
    int sign = 1;
    if (i < text.size() && (text[i] == L'-' || text[i] == L'+')) sign = text[i++] == L'-' ? -1 : 1;
    long long value = 0;
    while (i < text.size() && text[i] >= L'0' && text[i] <= L'9' && value < 10'000'000'000LL)
        value = value * 10 + (text[i++] - L'0');
    value *= sign;
    return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

std::wstring Folded(std::wstring_view text) {
    std::wstring out(text);
    for (wchar_t& c : out) c = Lower(c);
    return out;
}

void CheckSingleAndEx(const std::wstring& text, const std::wstring& section,
                      const std::wstring& begin, const std::wstring& end, size_t from) {
    // The single form from `from`, as the reference reads it.
    size_t pos = from;
    const std::wstring single =
        CStringUtils::ParseSubstringFromString(text, section, begin, end, &pos);
    Value expected;
    if (from <= text.size()) {
        const Found s = section.empty() ? Found{from, from} : Find(text, section, from);
        if (s.pos != npos) expected = FindValue(text, begin, end, s.pos, true);
    }
    Check(single == Cut(text, expected), "ParseSubstringFromString value");
    Check(pos == expected.after, "ParseSubstringFromString position");

    // The Ex form collects what the single form finds one after another.
    std::vector<std::wstring> all{L"kept"};
    const int count =
        CStringUtils::ParseSubstringFromStringEx(text, all, section, begin, end, 0, 1);
    if (begin.empty() || end.empty()) {
        Check(count < 0 && all.size() == 1, "ParseSubstringFromStringEx without markers");
        return;
    }
    std::vector<std::wstring> chained{L"kept"};
    for (size_t at = 0; at != npos && chained.size() <= text.size() + 1;) {
        std::wstring value = CStringUtils::ParseSubstringFromString(text, section, begin, end, &at);
        if (at != npos) chained.push_back(std::move(value));
    }
    Check(count >= 0 && static_cast<size_t>(count) + 1 == all.size(), "Ex count");
    Check(all == chained, "Ex differs from the single form in a chain");

    std::vector<std::wstring> first{L"dropped"};
    const int one =
        CStringUtils::ParseSubstringFromStringEx(text, first, section, begin, end, 1, 0);
    Check(one == (count > 0 ? 1 : 0) && first.size() == static_cast<size_t>(one) &&
              (one == 0 || first[0] == all[1]),
          "Ex with one result");
}

void CheckBetween(const std::wstring& text, const std::wstring& begin, const std::wstring& end,
                  size_t from) {
    const std::wstring expected = Cut(text, FindValue(text, begin, end, 0, false));
    Check(CStringUtils::ExtractStringBetween(text, begin, end) == expected, "ExtractStringBetween");
    Check(CStringUtils::ExtractStringBetweenEnhance(text, begin, end) == expected,
          "ExtractStringBetweenEnhance");
    if (!end.empty())
        Check(CStringUtils::ParseSubstringFromString(text, L"", begin, end, nullptr) == expected,
              "ParseSubstringFromString without a section");

    size_t valuePos = 0;
    const std::wstring value =
        CStringUtils::ExtractStringBetweenEnhance(text, begin, end, from, &valuePos);
    const Value v = FindValue(text, begin, end, from, false);
    Check(value == Cut(text, v) && valuePos == v.begin,
          "ExtractStringBetweenEnhance from a position");
}

void CheckOthers(const std::wstring& text, const std::wstring& part) {
    // Separate: the pieces joined with the separator give the text back, less
    // one separator at its very end; a line break stands for any line end.
    const std::vector<std::wstring> pieces = CStringUtils::Separate(text, part);
    if (text.empty()) {
        Check(pieces.empty(), "Separate of empty text");
    } else if (part.empty()) {
        Check(pieces == std::vector<std::wstring>{text}, "Separate without a separator");
    } else if (part == L"\r\n" || part == L"\n" || part == L"\r") {
        std::vector<std::wstring> lines{L""};
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] != L'\r' && text[i] != L'\n') {
                lines.back() += text[i];
                continue;
            }
            if (text[i] == L'\r' && i + 1 < text.size() && text[i + 1] == L'\n') ++i;
            lines.emplace_back();
        }
        if (lines.back().empty()) lines.pop_back();
        Check(pieces == lines, "Separate at line ends");
    } else {
        std::wstring joined;
        for (size_t i = 0; i < pieces.size(); ++i) {
            if (i > 0) joined += part;
            joined += pieces[i];
            Check(pieces[i].find(part) == npos, "Separate left a separator in a piece");
        }
        Check(joined == text || joined + part == text, "Separate does not join back");
    }

    const std::wstring trimmed = CStringUtils::Trim(text);
    Check(text.find(trimmed) != npos, "Trim");
    Check(trimmed.empty() || (!IsSpace(trimmed.front()) && !IsSpace(trimmed.back())), "Trim ends");
    Check(CStringUtils::StrToI32(text) == ReferenceStrToI32(text), "StrToI32");
    Check(CStringUtils::StringToWString(CStringUtils::WStringToString(CStringUtils::I32ToStr(
              ReferenceStrToI32(text)))) == CStringUtils::I32ToStr(ReferenceStrToI32(text)),
          "I32ToStr");

    const bool begins = text.size() >= part.size() && text.starts_with(part);
    const bool ends = text.size() >= part.size() && text.ends_with(part);
    Check(CStringUtils::BeginsWith(text, part, 1) == begins, "BeginsWith exact");
    Check(CStringUtils::EndsWith(text, part, 1) == ends, "EndsWith exact");
    const std::wstring ft = Folded(text), fp = Folded(part);
    Check(CStringUtils::BeginsWith(text, part, 0) == ft.starts_with(fp), "BeginsWith folded");
    Check(CStringUtils::EndsWith(text, part, 0) == ft.ends_with(fp), "EndsWith folded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 4096) return 0;  // the reference search is quadratic
    implvm_fuzz::BeginInput();
    const unsigned options = data[0];
    const std::wstring input =
        CStringUtils::StringToWString(implvm_fuzz::Bytes(data + 1, size - 1));

    std::wstring pieces[4];
    size_t at = 0;
    for (int k = 0; k < 4; ++k) {
        const size_t stop = k == 3 ? npos : input.find(L'\x01', at);
        pieces[k] = input.substr(at, stop == npos ? npos : stop - at);
        if (stop == npos) break;
        at = stop + 1;
    }
    const std::wstring& section = pieces[0];
    const std::wstring& begin = pieces[1];
    const std::wstring& end = pieces[2];
    const std::wstring& text = pieces[3];
    const size_t from = options % 16 == 15 ? text.size() + 1 : options % 16;

    CheckSingleAndEx(text, section, begin, end, from);
    CheckBetween(text, begin, end, from);
    CheckOthers(text, (options & 0x10) ? begin : section);
    return 0;
}
