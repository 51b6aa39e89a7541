#include "KALDO/CStringUtils.h"

#include <algorithm>
#include <climits>

#include "KALDO/Failpoints.h"
#include "KALDO/Result.h"
#include "Utf8.h"

namespace KALDO {

namespace {

constexpr size_t npos = std::wstring::npos;

// A marker found in a text: where the match starts and how many characters
// of the text it covers (more than the marker's length when a line feed of
// the marker matched a carriage return + line feed pair).
struct Match {
    size_t pos = npos;
    size_t length = 0;
    bool found() const { return pos != npos; }
    size_t end() const { return pos + length; }
};

wchar_t AsciiLower(wchar_t c) {
    return (c >= L'A' && c <= L'Z') ? c + (L'a' - L'A') : c;
}

bool IsAsciiLetter(wchar_t c) {
    const wchar_t lower = AsciiLower(c);
    return lower >= L'a' && lower <= L'z';
}

bool MatchesFoldedAt(std::wstring_view text, size_t pos, std::wstring_view marker) {
    for (size_t i = 0; i < marker.size(); ++i)
        if (AsciiLower(text[pos + i]) != AsciiLower(marker[i])) return false;
    return true;
}

// The marker character to look for first: one with a single spelling (not an
// ASCII letter), preferably not a blank, which is everywhere in text. npos
// when the marker is all letters.
size_t AnchorOf(std::wstring_view marker) {
    size_t blank = npos;
    for (size_t k = 0; k < marker.size(); ++k) {
        if (IsAsciiLetter(marker[k])) continue;
        if (marker[k] != L' ') return k;
        if (blank == npos) blank = k;
    }
    return blank;
}

// The first position at or after `from` where marker occurs, ASCII letters
// compared without regard to case. Nearly every marker holds a character
// that is not a letter ("=", "<", a quote): the library's search for one
// character is vectorised, so the text is walked from one occurrence of it to
// the next and only there compared folded.
size_t FindFolded(std::wstring_view text, std::wstring_view marker, size_t from) {
    if (marker.empty()) return from <= text.size() ? from : npos;
    if (marker.size() > text.size() || from > text.size() - marker.size()) return npos;
    const size_t last = text.size() - marker.size();  // the last possible start
    const size_t anchor = AnchorOf(marker);
    if (anchor != npos) {
        const wchar_t c = marker[anchor];
        for (size_t hit = text.find(c, from + anchor); hit != npos && hit - anchor <= last;
             hit = text.find(c, hit + 1)) {
            if (MatchesFoldedAt(text, hit - anchor, marker)) return hit - anchor;
        }
        return npos;
    }
    const wchar_t first = AsciiLower(marker[0]);
    for (size_t pos = from; pos <= last; ++pos) {
        if (AsciiLower(text[pos]) == first && MatchesFoldedAt(text, pos, marker)) return pos;
    }
    return npos;
}

// Matches `marker` at `at` in text, ASCII letters folded, each line feed of
// the marker also accepting "\r\n". Returns the end of the match or npos.
size_t MatchTolerant(std::wstring_view text, size_t at, std::wstring_view marker) {
    for (const wchar_t m : marker) {
        if (at >= text.size()) return npos;
        if (m == L'\n' && text[at] == L'\r' && at + 1 < text.size() && text[at + 1] == L'\n')
            at += 2;
        else if (AsciiLower(text[at]) == AsciiLower(m))
            ++at;
        else
            return npos;
    }
    return at;
}

bool IsNameStart(wchar_t c) {
    return IsAsciiLetter(c) || c == L'_' || c == L':' || c > 0x7F;
}

bool IsNameChar(wchar_t c) {
    return IsNameStart(c) || (c >= L'0' && c <= L'9') || c == L'-' || c == L'.';
}

// "<Name>": a whole start tag without attributes.
bool IsBareStartTag(std::wstring_view marker) {
    if (marker.size() < 3 || marker.front() != L'<' || marker.back() != L'>' ||
        !IsNameStart(marker[1]))
        return false;
    const std::wstring_view name = marker.substr(1, marker.size() - 2);
    return std::all_of(name.begin(), name.end(), IsNameChar);
}

bool IsTagBlank(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n';
}

// A start tag "<Name>" also matches the element's start tag with attributes,
// "<Name" + blank + anything up to the next ">", as XML writers put them on
// the very elements the readers search from. An empty element "<Name .../>"
// starts no value and does not match.
Match FindStartTag(std::wstring_view text, std::wstring_view marker, size_t from) {
    const std::wstring_view open = marker.substr(0, marker.size() - 1);
    for (size_t pos = FindFolded(text, open, from); pos != npos;) {
        const size_t next = pos + open.size();
        if (next >= text.size()) return {};
        if (text[next] == L'>') return {pos, marker.size()};
        size_t resume = pos + 1;
        if (IsTagBlank(text[next])) {
            const size_t close = text.find(L'>', next);
            if (close == npos) return {};  // no later "<Name" can be closed either
            if (text[close - 1] != L'/') return {pos, close + 1 - pos};
            // Every "<Name" before this ">" ends at it too: none can match.
            resume = close + 1;
        }
        pos = FindFolded(text, open, resume);
    }
    return {};
}

// The first match of marker in text at or after `from`. Markers without a
// line feed (nearly all of them) take the direct search; the others anchor on
// their first line-feed-free piece and verify the rest in place.
Match FindMarker(std::wstring_view text, std::wstring_view marker, size_t from) {
    if (from > text.size()) return {};
    if (IsBareStartTag(marker)) return FindStartTag(text, marker, from);
    const size_t lf = marker.find(L'\n');
    if (lf == npos) {
        const size_t pos = FindFolded(text, marker, from);
        return pos == npos ? Match{} : Match{pos, marker.size()};
    }
    if (lf > 0) {
        const std::wstring_view head = marker.substr(0, lf);
        for (size_t pos = FindFolded(text, head, from); pos != npos;
             pos = FindFolded(text, head, pos + 1)) {
            const size_t end = MatchTolerant(text, pos, marker);
            if (end != npos) return {pos, end - pos};
        }
        return {};
    }
    // The marker starts with a line feed: a match may start one character
    // early, at the carriage return of a "\r\n" pair.
    for (size_t nl = text.find(L'\n', from); nl != npos; nl = text.find(L'\n', nl + 1)) {
        const size_t start = (nl > from && text[nl - 1] == L'\r') ? nl - 1 : nl;
        const size_t end = MatchTolerant(text, start, marker);
        if (end != npos) return {start, end - start};
    }
    return {};
}

// One begin...end value searched from `from`: where the value starts and
// ends, and where the end marker's match ends. An empty end marker means
// "to the end of the text" when toEndIfEmpty is set.
struct Value {
    size_t begin = npos;
    size_t end = npos;
    size_t after = npos;
    bool found() const { return begin != npos; }
};

Value FindValue(std::wstring_view text, std::wstring_view beginMarker, std::wstring_view endMarker,
                size_t from, bool toEndIfEmpty) {
    const Match b = FindMarker(text, beginMarker, from);
    if (!b.found()) return {};
    const size_t valueStart = b.end();
    if (endMarker.empty() && toEndIfEmpty) return {valueStart, text.size(), text.size()};
    const Match e = FindMarker(text, endMarker, valueStart);
    if (!e.found()) return {};
    return {valueStart, e.pos, e.end()};
}

bool IsTrimSpace(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\n' || c == L'\r' || c == L'\v' || c == L'\f' ||
           c == 0xA0;
}

bool SameText(std::wstring_view a, std::wstring_view b, signed char flag) {
    if (a.size() != b.size()) return false;
    if (flag != 0) return a == b;
    for (size_t i = 0; i < a.size(); ++i)
        if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
    return true;
}

}  // namespace

std::wstring CStringUtils::StringToWString(const std::string& text) {
    return StringToWString(std::string_view(text));
}

std::wstring CStringUtils::StringToWString(std::string_view text) {
    std::wstring result;
    result.reserve(text.size());
    size_t consumed = 0;
    detail::AppendDecodedUtf8(reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                              true, result, consumed);
    return result;
}

std::string CStringUtils::WStringToString(const std::wstring& text) {
    std::string result;
    detail::EncodeUtf8(text.data(), text.size(), result);
    return result;
}

std::wstring CStringUtils::I32ToStr(int value) {
    return std::to_wstring(value);
}

int CStringUtils::StrToI32(const std::wstring& text) {
    size_t i = 0;
    while (i < text.size() && IsTrimSpace(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == L'+' || text[i] == L'-')) negative = text[i++] == L'-';
    long long value = 0;
    for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i) {
        value = value * 10 + (text[i] - L'0');
        if (value > static_cast<long long>(INT_MAX) + 1)
            value = static_cast<long long>(INT_MAX) + 1;
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

bool CStringUtils::BeginsWith(const std::wstring& text, const std::wstring& prefix,
                              signed char flag) {
    if (prefix.size() > text.size()) return false;
    return SameText(std::wstring_view(text).substr(0, prefix.size()), prefix, flag);
}

bool CStringUtils::EndsWith(const std::wstring& text, const std::wstring& suffix,
                            signed char flag) {
    if (suffix.size() > text.size()) return false;
    return SameText(std::wstring_view(text).substr(text.size() - suffix.size()), suffix, flag);
}

std::wstring CStringUtils::Trim(const std::wstring& text) {
    size_t first = 0;
    size_t last = text.size();
    while (first < last && IsTrimSpace(text[first])) ++first;
    while (last > first && IsTrimSpace(text[last - 1])) --last;
    return text.substr(first, last - first);
}

std::vector<std::wstring> CStringUtils::Separate(const std::wstring& text,
                                                 const std::wstring& separator) {
    std::vector<std::wstring> pieces;
    if (text.empty()) return pieces;
    if (separator.empty()) {
        pieces.push_back(text);
        return pieces;
    }
    // A line break stands for every kind of line end: the same tool prints
    // CR LF on one system and LF on another.
    const bool lineBreak = separator == L"\r\n" || separator == L"\n" || separator == L"\r";
    size_t start = 0;
    while (start < text.size()) {
        const size_t hit =
            lineBreak ? text.find_first_of(L"\r\n", start) : text.find(separator, start);
        if (hit == npos) {
            pieces.push_back(text.substr(start));
            break;
        }
        pieces.push_back(text.substr(start, hit - start));
        size_t length = separator.size();
        if (lineBreak) length = text.compare(hit, 2, L"\r\n") == 0 ? 2 : 1;
        start = hit + length;
    }
    return pieces;
}

std::wstring CStringUtils::ExtractStringBetween(const std::wstring& text, const std::wstring& begin,
                                                const std::wstring& end) {
    return ExtractStringBetweenEnhance(text, begin, end, 0, nullptr);
}

std::wstring CStringUtils::ExtractStringBetweenEnhance(const std::wstring& text,
                                                       const std::wstring& begin,
                                                       const std::wstring& end) {
    return ExtractStringBetweenEnhance(std::wstring_view(text), std::wstring_view(begin),
                                       std::wstring_view(end), 0, nullptr);
}

std::wstring CStringUtils::ExtractStringBetweenEnhance(std::wstring_view text,
                                                       std::wstring_view begin,
                                                       std::wstring_view end, size_t from,
                                                       size_t* valuePos) {
    const Value v = FindValue(text, begin, end, from, false);
    if (valuePos) *valuePos = v.begin;
    if (!v.found()) return {};
    return std::wstring(text.substr(v.begin, v.end - v.begin));
}

std::wstring CStringUtils::ParseSubstringFromString(const std::wstring& text,
                                                    const std::wstring& section,
                                                    const std::wstring& begin,
                                                    const std::wstring& end, size_t* pos) {
    const std::wstring_view view(text);
    const size_t from = pos ? *pos : 0;
    Value v;
    if (from <= view.size()) {
        const Match s = section.empty() ? Match{from, 0} : FindMarker(view, section, from);
        if (s.found()) v = FindValue(view, begin, end, s.pos, true);
    }
    if (pos) *pos = v.after;
    if (!v.found()) return {};
    return std::wstring(view.substr(v.begin, v.end - v.begin));
}

int CStringUtils::ParseSubstringFromStringEx(const std::wstring& text,
                                             std::vector<std::wstring>& results,
                                             const std::wstring& section, const std::wstring& begin,
                                             const std::wstring& end, int maxResults,
                                             int appendResults) {
    int failure = 0;
    if (CFailpoints::Check("ParseSubstringFromStringEx", begin, failure)) return failure;
    if (begin.empty() || end.empty()) return kInvalidArgument;
    if (appendResults == 0) results.clear();

    const std::wstring_view view(text);
    int count = 0;
    size_t from = 0;
    while (maxResults <= 0 || count < maxResults) {
        size_t valueFrom = from;
        if (!section.empty()) {
            const Match s = FindMarker(view, section, from);
            if (!s.found()) break;
            valueFrom = s.pos;
        }
        const Value v = FindValue(view, begin, end, valueFrom, false);
        if (!v.found()) break;
        results.emplace_back(view.substr(v.begin, v.end - v.begin));
        ++count;
        from = v.after;
    }
    return count;
}

}  // namespace KALDO
