// The shape of a property list, measured on its bytes before libplist sees
// them.
//
// libplist's binary reader recurses once per level of nesting and builds a
// fresh node for every reference, so a small hostile file can exhaust the
// stack (100,000 nested arrays take 900 KB, and on a 512 KiB thread 6,000
// levels are enough) or unfold a few shared objects into billions of nodes.
// Nothing may reach libplist that has not passed this check.
#pragma once

#include <string_view>

namespace KALDO::detail {

// Arrays, sets and dictionaries nested in one another, the outermost
// counting 1 and an empty one a level of its own. Real property lists nest a
// handful deep.
inline constexpr int kMaxPlistNesting = 256;

// The fewest nodes a binary list may unfold into whatever its size; beyond
// that it may unfold into no more nodes than it has bytes, which a list
// without shared arrays or dictionaries never does.
inline constexpr unsigned kMinPlistNodeBudget = 1u << 16;

// kOk when libplist may parse `bytes`: an XML property list (after spaces,
// its first byte is '<') or a binary one ("bplist00") whose arrays, sets and
// dictionaries nest at most kMaxPlistNesting deep, and, binary, whose
// objects unfold into at most max(size, kMinPlistNodeBudget) nodes without a
// cycle. kInvalidArgument otherwise: any other form, markup the check cannot
// follow the way libplist does, a malformed binary trailer, offset table or
// reference, a dictionary key libplist would abort on (UTF-16, holding
// U+0000). Linear in the size; memory: six bytes per binary object.
int CheckPlistShape(std::string_view bytes);

}  // namespace KALDO::detail
