// "Did you mean ...?" for a mistyped command or method name.
#pragma once

#include <string>
#include <vector>

namespace implvm {

// The candidate closest to `typed` (edit distance, letters in any case),
// when it is close enough to be what was meant: at most a third of its
// length away. "" otherwise.
std::string ClosestName(const std::string& typed, const std::vector<std::string>& candidates);

}  // namespace implvm
