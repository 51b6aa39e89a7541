#include "TerminalText.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace implvm {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// One UTF-8 sequence at the front of `text`: its code point (kInvalid for a
// byte that starts no valid sequence) and its length in bytes (1 then).
struct Decoded {
    char32_t point;
    size_t length;
};

Decoded DecodeFront(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return {lead, 1};
    size_t length = 0;
    char32_t point = 0;
    char32_t least = 0;  // the smallest code point that needs this length
    if ((lead & 0xE0) == 0xC0) {
        length = 2, point = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, point = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, point = lead & 0x07, least = 0x10000;
    } else {
        return {kInvalid, 1};
    }
    if (text.size() < length) return {kInvalid, 1};
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return {kInvalid, 1};
        point = (point << 6) | (byte(i) & 0x3F);
    }
    if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
        return {kInvalid, 1};
    return {point, length};
}

struct Range {
    char32_t first, last;
};

// Characters that take no column of their own: combining marks, zero-width
// spaces and joiners, direction marks, variation selectors.
constexpr Range kZeroWidth[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
    {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200B, 0x200F}, {0x202A, 0x202E}, {0x2060, 0x2064}, {0x20D0, 0x20FF}, {0x302A, 0x302D},
    {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF},
};

// East Asian wide and fullwidth characters, and the emoji a terminal draws
// two columns wide.
constexpr Range kWide[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},
    {0x25FD, 0x25FE},   {0x2614, 0x2615},   {0x2E80, 0x303E},   {0x3041, 0x3247},
    {0x3250, 0x4DBF},   {0x4E00, 0xA4CF},   {0xA960, 0xA97F},   {0xAC00, 0xD7A3},
    {0xF900, 0xFAFF},   {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6},   {0x16FE0, 0x18CFF}, {0x1B000, 0x1B2FF}, {0x1F300, 0x1F64F},
    {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD},
};

template <size_t N>
bool In(const Range (&ranges)[N], char32_t point) {
    const auto after = std::upper_bound(std::begin(ranges), std::end(ranges), point,
                                        [](char32_t p, const Range& r) { return p < r.first; });
    return after != std::begin(ranges) && point <= std::prev(after)->last;
}

size_t Columns(char32_t point) {
    if (In(kZeroWidth, point)) return 0;
    return In(kWide, point) ? 2 : 1;
}

std::string Hex(const char* prefix, uint32_t value, int digits) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text = prefix;
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text += kDigits[(value >> shift) & 0xF];
    return text;
}

// The escape that stands for a character a terminal would act on; "" for
// one it shows as it is.
std::string EscapeOf(char32_t point, unsigned char firstByte) {
    switch (point) {
        case 0x1B:
            return "\\e";
        case '\r':
            return "\\r";
        case '\n':
            return "\\n";
        case '\t':
            return "\\t";
        case kInvalid:
            return Hex("\\x", firstByte, 2);
        default:
            break;
    }
    if (point < 0x20 || point == 0x7F) return Hex("\\x", point, 2);
    if (point >= 0x80 && point <= 0x9F) return Hex("\\u", point, 4);
    return "";
}

constexpr std::string_view kEllipsis = "\u2026";

}  // namespace

std::string Printable(std::string_view utf8, size_t maxColumns) {
    // Pieces are added while they fit in maxColumns - 1, keeping a column for
    // the ellipsis; whether it is needed is known only once the text is over.
    std::string shown;
    size_t columns = 0;
    size_t fitting = 0;  // bytes of `shown` that leave room for the ellipsis
    bool cut = false;
    for (size_t at = 0; at < utf8.size();) {
        const Decoded decoded = DecodeFront(utf8.substr(at));
        const std::string escape = EscapeOf(decoded.point, static_cast<unsigned char>(utf8[at]));
        const std::string_view piece =
            escape.empty() ? utf8.substr(at, decoded.length) : std::string_view(escape);
        const size_t width = escape.empty() ? Columns(decoded.point) : escape.size();
        at += decoded.length;
        if (maxColumns != std::string_view::npos && columns + width > maxColumns) {
            cut = true;
            break;
        }
        shown += piece;
        columns += width;
        if (maxColumns != std::string_view::npos && columns + 1 <= maxColumns)
            fitting = shown.size();
    }
    if (!cut) return shown;
    if (maxColumns == 0) return "";
    shown.resize(fitting);
    return shown += kEllipsis;
}

size_t DisplayWidth(std::string_view utf8) {
    size_t columns = 0;
    for (size_t at = 0; at < utf8.size();) {
        const Decoded decoded = DecodeFront(utf8.substr(at));
        columns += decoded.point == kInvalid ? 1 : Columns(decoded.point);
        at += decoded.length;
    }
    return columns;
}

}  // namespace implvm
