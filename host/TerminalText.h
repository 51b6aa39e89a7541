// Text from a Mac's files and tools, made safe to show on a terminal. A VM's
// name, a path or a snapshot name may hold anything, escape sequences
// included, and a terminal must show them, never obey them. The JSON forms
// need none of this: JSON escapes control characters itself.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace implvm {

// A cell of a table is cut at this many columns (ellipsis included), so that
// one long name does not widen every row.
inline constexpr size_t kMaxCellColumns = 48;

// `utf8` with every character a terminal would act on shown as an escape:
// ESC as \e, CR \r, LF \n, TAB \t, the other C0 controls and DEL as \x00 to
// \x1f and \x7f, the C1 controls U+0080 to U+009F as \u0080 to \u009f
// (some terminals read U+009B as the start of a control sequence), and a
// byte that is not part of valid UTF-8 as \xHH. Backslashes are shown as
// they are. With maxColumns, the result is cut to at most that many columns,
// the last being "…", never in the middle of a character or an escape.
std::string Printable(std::string_view utf8, size_t maxColumns = std::string_view::npos);

// The columns `utf8` takes on a terminal: East Asian wide and fullwidth
// characters take two, combining marks and zero-width characters none,
// every other character one; a byte that is not valid UTF-8 counts as one.
size_t DisplayWidth(std::string_view utf8);

}  // namespace implvm
