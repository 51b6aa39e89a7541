// The rule tables' own check: a rule that an earlier one shadows can never
// decide, so a table in which one does is a mistake the build must catch
// (every table of the module is checked with FirstShadowedRule at compile
// time).
#include <gtest/gtest.h>

#include "TextRules.h"

namespace {

using ImplVm::TextRule;
using ImplVm::Where;

constexpr Where kIs = Where::kWhole, kBegins = Where::kStart, kAnyCase = Where::kStartAnyCase,
                kIn = Where::kAnywhere, kNot = Where::kAbsent;

struct Case {
    TextRule<int> earlier, later;
    bool shadows;
};

TEST(TextRules, ShadowingPairs) {
    const Case cases[] = {
        // Swapping a key with a longer one it begins loses the longer one.
        {{L"winxp", kAnyCase, 1}, {L"winxppro-64", kAnyCase, 2}, true},
        {{L"winxppro-64", kAnyCase, 2}, {L"winxp", kAnyCase, 1}, false},
        {{L"windows7", kAnyCase, 1}, {L"windows7srv", kAnyCase, 2}, true},
        {{L"WINDOWS7", kAnyCase, 1}, {L"windows7srv", kBegins, 2}, true},
        {{L"win2000", kAnyCase, 1}, {L"win2000", kIs, 2}, true},
        // A repeated whole key (a row renumbered onto another).
        {{L"2057", kIs, 1}, {L"2057", kIs, 2}, true},
        {{L"2057", kIs, 1}, {L"20570", kIs, 2}, false},
        {{L"win95", kIs, 1}, {L"win95x", kAnyCase, 2}, false},
        // Exact case does not take every spelling an any-case rule does.
        {{L"Win", kBegins, 1}, {L"Windows", kAnyCase, 2}, false},
        {{L"Error", kBegins, 1}, {L"Error: Cannot lock VM", kBegins, 2}, true},
        {{L"lock", kIn, 1}, {L"Error: Cannot lock VM", kBegins, 2}, true},
        {{L"lock", kIn, 1}, {L"Error: Cannot LOCK VM", kAnyCase, 2}, false},
        {{L"Error", kBegins, 1}, {L"Error", kIn, 2}, false},
        // An absent text decides alone; it shadows only its own repeat.
        {{L"error", kNot, 0}, {L"VBOX_E_INVALID_VM_STATE", kIn, 1}, false},
        {{L"error", kNot, 0}, {L"error", kNot, 1}, true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ImplVm::Shadows(c.earlier, c.later), c.shadows)
            << std::string(c.earlier.text.begin(), c.earlier.text.end()) << " / "
            << std::string(c.later.text.begin(), c.later.text.end());
}

TEST(TextRules, FirstMatchTriesRulesInOrder) {
    constexpr TextRule<int> kRules[] = {
        {L"error", kNot, 0},
        {L"fatal", kIn, -4},
        {L"Error: Cannot", kBegins, -6},
        {L"vbox", kAnyCase, -32},
    };
    static_assert(ImplVm::FirstShadowedRule(kRules) == std::size(kRules));
    EXPECT_EQ(ImplVm::FirstMatch(kRules, L"all done", -1), 0);
    EXPECT_EQ(ImplVm::FirstMatch(kRules, L"Error: Cannot open; fatal error", -1), -4);
    EXPECT_EQ(ImplVm::FirstMatch(kRules, L"Error: Cannot open: error", -1), -6);
    EXPECT_EQ(ImplVm::FirstMatch(kRules, L"VBox says error", -1), -32);
    EXPECT_EQ(ImplVm::FirstMatch(kRules, L"an error", -1), -1);

    constexpr TextRule<int> kSwapped[] = {{L"winxp", kAnyCase, 1}, {L"winxppro-64", kAnyCase, 2}};
    static_assert(ImplVm::FirstShadowedRule(kSwapped) == 1);
}

}  // namespace
