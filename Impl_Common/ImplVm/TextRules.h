// Matching a text against a table: every classification the module makes
// from a text (a tool's answer, a guest-OS key, a state word, an attachment
// kind) is a table of rules tried top to bottom, the first that holds
// giving the answer.
#pragma once

#include <climits>
#include <cstddef>
#include <span>
#include <string_view>
#include <type_traits>

namespace ImplVm {

// Where a rule's text must stand for the rule to hold.
enum class Where {
    kWhole,         // the text is exactly this
    kStart,         // the text begins with this
    kStartAnyCase,  // the same, ASCII letters in any case
    kAnywhere,      // this occurs in the text
    kAbsent,        // this does not occur in the text
};

template <class Answer>
struct TextRule {
    std::wstring_view text;
    Where where;
    Answer answer;
};

constexpr wchar_t FoldAscii(wchar_t c) {
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + (L'a' - L'A')) : c;
}

constexpr bool StartsAnyCase(std::wstring_view text, std::wstring_view start) {
    if (start.size() > text.size()) return false;
    for (size_t i = 0; i < start.size(); ++i)
        if (FoldAscii(text[i]) != FoldAscii(start[i])) return false;
    return true;
}

// Whether `marker` stands at `at` in text, ASCII letters in any case: the
// support library's marker matching, for the readers that index a text in
// one pass instead of searching it key by key.
constexpr bool MatchesFoldedAt(std::wstring_view text, size_t at, std::wstring_view marker) {
    return at <= text.size() && StartsAnyCase(text.substr(at), marker);
}

// A numbered key at `at`: `word` (ASCII letters in any case), then a number
// as a key built with I32ToStr writes it (plain decimal, no leading zero,
// within int). Where the digits end, with the number in `number`; npos when
// the text there is no such key.
constexpr size_t NumberedKeyAt(std::wstring_view text, size_t at, std::wstring_view word,
                               int& number) {
    if (!MatchesFoldedAt(text, at, word)) return std::wstring_view::npos;
    const size_t digits = at + word.size();
    size_t p = digits;
    long long n = 0;
    while (p < text.size() && text[p] >= L'0' && text[p] <= L'9' && n <= INT_MAX)
        n = n * 10 + (text[p++] - L'0');
    if (p == digits || n > INT_MAX || (text[digits] == L'0' && p - digits > 1))
        return std::wstring_view::npos;
    number = static_cast<int>(n);
    return p;
}

template <class Answer>
constexpr bool Holds(const TextRule<Answer>& rule, std::wstring_view text) {
    switch (rule.where) {
        case Where::kWhole:
            return text == rule.text;
        case Where::kStart:
            return text.starts_with(rule.text);
        case Where::kStartAnyCase:
            return StartsAnyCase(text, rule.text);
        case Where::kAnywhere:
            return text.find(rule.text) != std::wstring_view::npos;
        case Where::kAbsent:
            return text.find(rule.text) == std::wstring_view::npos;
    }
    return false;
}

// The answer of the first rule that holds for `text`; `otherwise` when none
// does.
template <class Answer>
constexpr Answer FirstMatch(std::span<const TextRule<Answer>> rules, std::wstring_view text,
                            const std::type_identity_t<Answer>& otherwise) {
    for (const TextRule<Answer>& rule : rules)
        if (Holds(rule, text)) return rule.answer;
    return otherwise;
}
template <class Answer, size_t N>
constexpr Answer FirstMatch(const TextRule<Answer> (&rules)[N], std::wstring_view text,
                            const std::type_identity_t<Answer>& otherwise) {
    return FirstMatch(std::span<const TextRule<Answer>>(rules), text, otherwise);
}

// Whether every text that `later` holds for is taken by `earlier` first, so
// that `later` can never decide: a prefix before a longer key it begins, a
// part before a whole text that contains it, a repeated key.
template <class Answer>
constexpr bool Shadows(const TextRule<Answer>& earlier, const TextRule<Answer>& later) {
    if (earlier.where == Where::kAbsent || later.where == Where::kAbsent)
        return earlier.where == later.where && earlier.text == later.text;
    const std::wstring_view e = earlier.text;
    const std::wstring_view l = later.text;
    switch (earlier.where) {
        case Where::kWhole:
            return later.where == Where::kWhole && e == l;
        case Where::kStart:
            return later.where != Where::kAnywhere && later.where != Where::kStartAnyCase &&
                   l.starts_with(e);
        case Where::kStartAnyCase:
            return later.where != Where::kAnywhere && StartsAnyCase(l, e);
        case Where::kAnywhere:
            return later.where != Where::kStartAnyCase && l.find(e) != std::wstring_view::npos;
        case Where::kAbsent:
            break;
    }
    return false;
}

// The index of the first rule an earlier one shadows, or N when none is.
template <class Answer, size_t N>
constexpr size_t FirstShadowedRule(const TextRule<Answer> (&rules)[N]) {
    for (size_t later = 1; later < N; ++later)
        for (size_t earlier = 0; earlier < later; ++earlier)
            if (Shadows(rules[earlier], rules[later])) return later;
    return N;
}

}  // namespace ImplVm
