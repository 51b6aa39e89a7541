// Text operations on wide strings (4-byte wchar_t, Unicode code points).
//
// All operations are pure functions of their arguments and thread-safe.
//
// Marker matching (ParseSubstringFromString, ParseSubstringFromStringEx,
// ExtractStringBetween, ExtractStringBetweenEnhance): markers are matched
// literally, with two tolerances for files written by hand or on other
// systems:
//  - ASCII letters match without regard to case ("displayName = \"" finds
//    DISPLAYNAME = "..."), because VMware reads .vmx and inventory keys in
//    any case and hand-edited files use every spelling. Other characters,
//    non-ASCII letters included, must be equal. Machine-written XML tags and
//    report labels have one spelling each, so folding finds the same text
//    there.
//  - a line feed in a marker also matches a carriage return + line feed pair
//    in the text. (The value cut out never includes that carriage return.)
//  - a marker that is a whole start tag without attributes, "<Name>", also
//    matches that element's start tag with attributes: "<Name", a blank,
//    tab, CR or LF, then anything up to the next ">"; the text after the
//    match begins after that ">". It never matches "<NameX>" or an empty
//    element "<Name .../>". Closing tags, open markers ("<Name") and every
//    other marker match only as written.
// The value cut out is returned exactly as it stands in the text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "KALDO/Export.h"

namespace KALDO {

class KALDO_API CStringUtils {
public:
    // UTF-8 to wide. Invalid byte sequences (stray continuation bytes, overlong
    // forms, surrogates, values above U+10FFFF, truncated sequences) each
    // become U+FFFD; the conversion never fails.
    static std::wstring StringToWString(const std::string& text);
    static std::wstring StringToWString(std::string_view text);
    // Wide to UTF-8. Code points that cannot be encoded (surrogates, above
    // U+10FFFF) become U+FFFD.
    static std::string WStringToString(const std::wstring& text);

    // Decimal text of an integer ("-12").
    static std::wstring I32ToStr(int value);
    // Integer value of decimal text: leading white space is skipped, an
    // optional sign and the longest run of decimal digits are read, the rest
    // is ignored ("4.3.12" gives 4, " 7 " gives 7). Text without digits gives
    // 0; values beyond the int range are clamped to INT_MIN / INT_MAX.
    static int StrToI32(const std::wstring& text);

    // Prefix / suffix tests. flag 0: ASCII letters compare case-insensitively
    // (file names and configuration values written by hand); any other flag:
    // exact comparison. An empty prefix/suffix always matches.
    static bool BeginsWith(const std::wstring& text, const std::wstring& prefix, signed char flag);
    static bool EndsWith(const std::wstring& text, const std::wstring& suffix, signed char flag);

    // The text without leading and trailing white space (space, tab, line
    // feed, carriage return, vertical tab, form feed, no-break space).
    static std::wstring Trim(const std::wstring& text);

    // Splits text at every occurrence of separator. A separator that is a
    // line break ("\r\n", "\n" or "\r") splits at every line end of any of
    // the three kinds, a CR LF pair counting once. Empty pieces between two
    // separators are kept; a separator at the very end of the text does not
    // add an empty last piece. Empty text gives no pieces; an empty separator
    // gives the whole text as one piece.
    static std::vector<std::wstring> Separate(const std::wstring& text,
                                              const std::wstring& separator);

    // The text between the first occurrence of begin and the next occurrence
    // of end after it; "" when either is missing.
    static std::wstring ExtractStringBetween(const std::wstring& text, const std::wstring& begin,
                                             const std::wstring& end);
    // As ExtractStringBetween.
    static std::wstring ExtractStringBetweenEnhance(const std::wstring& text,
                                                    const std::wstring& begin,
                                                    const std::wstring& end);
    // Position form for linear scans: searches from `from`; on success
    // returns the value and stores in *valuePos (if not null) the index where
    // the value starts in text. On failure returns "" and stores npos.
    static std::wstring ExtractStringBetweenEnhance(std::wstring_view text, std::wstring_view begin,
                                                    std::wstring_view end, size_t from,
                                                    size_t* valuePos);

    // Finds `section` (searching from *pos, or from 0 when pos is null; an
    // empty section means "right there"), then the first `begin` at or after
    // the section's start, then the first `end` after begin, and returns the
    // text between begin and end. An empty `end` means "to the end of the
    // text". Returns "" when the section, begin or end marker is missing (a
    // value whose end marker is missing, as in a truncated file, is not
    // returned). When pos is not null it is set to the index just past the
    // end marker on success and to npos on failure.
    static std::wstring ParseSubstringFromString(const std::wstring& text,
                                                 const std::wstring& section,
                                                 const std::wstring& begin, const std::wstring& end,
                                                 size_t* pos);

    // Collects every value that ParseSubstringFromString would find, scanning
    // forward: with an empty section, every begin...end pair in the text; with
    // a section, for each occurrence of section the first begin...end pair at
    // or after it (the next section is searched after that pair's end).
    // maxResults: 0 for all values, else stop after that many.
    // appendResults: 1 to append to `results`, 0 to replace its contents.
    // Returns the number of values found (>= 0), or kInvalidArgument when
    // begin or end is empty. A final value whose end marker is missing is
    // left out (a truncated file yields its complete values).
    static int ParseSubstringFromStringEx(const std::wstring& text,
                                          std::vector<std::wstring>& results,
                                          const std::wstring& section, const std::wstring& begin,
                                          const std::wstring& end, int maxResults,
                                          int appendResults);
};

}  // namespace KALDO
