// The rule tables' own check: a rule that an earlier one shadows can never
// decide, so a table in which one does is a mistake the build must catch
// (every table of the module is checked with FirstShadowedRule at compile
// time).
#include <gtest/gtest.h>

#include <map>

#include "Golden.h"
#include "TextRules.h"

namespace {

using ImplVm::TextRule;
using ImplVm::Where;

constexpr Where kIs = Where::kWhole, kBegins = Where::kStart, kAnyCase = Where::kStartAnyCase,
                kIn = Where::kAnywhere, kNot = Where::kAbsent;

// Each case of tests/data/text_rule_shadowing: an earlier and a later rule,
// each its text and where it must occur.
TEST(TextRules, ShadowingPairs) {
    implvm_test::CheckGoldenTable("text_rule_shadowing", [](const implvm::Json& pair) {
        const std::map<std::string, Where> where = {{"whole", kIs},
                                                    {"start", kBegins},
                                                    {"start any case", kAnyCase},
                                                    {"anywhere", kIn},
                                                    {"absent", kNot}};
        const std::wstring earlier = implvm_test::Widen(pair[0][0]),
                           later = implvm_test::Widen(pair[1][0]);
        return ImplVm::Shadows(TextRule<int>{earlier, where.at(pair[0][1].get<std::string>()), 1},
                               TextRule<int>{later, where.at(pair[1][1].get<std::string>()), 2});
    });
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
