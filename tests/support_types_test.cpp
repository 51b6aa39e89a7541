// The tree value, the error log and input merging.
#include <gtest/gtest.h>

#include <thread>

#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "TreeJson.h"

using namespace KALDO;

namespace {

typeProperty Tree(const char* json) {
    return implvm::JsonToTree(implvm::Json::parse(json));
}

std::string Dump(const typeProperty& tree) {
    return implvm::TreeToJson(tree).dump();
}

TEST(TypeProperty, KindsInsertionOrderAndReplaceInPlace) {
    typeProperty map, vec, str = Tree(R"("text")");
    EXPECT_EQ(map.addMapVal(L"b", L"1") + vec.addVecVal(L"x"), 0);  // empty becomes either kind
    // Adds and lookups of the other kind, or of nothing, fail and change nothing.
    std::wstring out = L"untouched";
    std::vector<typeProperty> list;
    EXPECT_EQ(map.addVecVal(L"x") + vec.addSubTree(L"k", str), 2 * kInvalidArgument);
    EXPECT_EQ(str.addInteger(L"k", 1) + str.addVecVal(vec), 2 * kInvalidArgument);
    EXPECT_EQ(map.lookupString(L"missing", out) + vec.getVecVal(1, out), 2 * kNotFound);
    EXPECT_EQ(str.lookupString(L"k", out), kNotFound);
    map.addMapVal(L"a", 2);
    map.addMapVal(L"c", str);
    EXPECT_EQ(map.lookupString(L"a", out) + map.getMapVal(L"c", list), 2 * kInvalidArgument);
    EXPECT_EQ(out, L"untouched");
    EXPECT_EQ(map.addString(L"b", L"again"), 0);
    map.addMapVal(L"a", L"now a string");  // replacing may change the kind
    EXPECT_EQ(Dump(map) + Dump(vec) + Dump(str),
              R"({"b":"again","a":"now a string","c":"text"}["x"]"text")");
}

TEST(TypeProperty, CopiesAreDeepAndAliasingIsSafe) {
    // Copies share their contents until one changes: every change, at any
    // depth and through any operation, must leave the others as they were.
    typeProperty outer = Tree(R"({"inner":{"x":1},"list":[{"y":1}]})"), assigned;
    assigned = outer;
    const typeProperty copied(outer), taken = typeProperty(outer);
    typeProperty inner, element;
    outer.getMapVal(L"inner", inner);
    inner.addMapVal(L"x", 2);
    outer.addSubTree(L"inner", inner);
    std::vector<typeProperty> list;
    outer.getMapVal(L"list", list);
    list[0].addMapVal(L"y", 2);
    list[0].addVecVal(L"refused: a map");
    typeProperty newList;
    newList.addVecVal(list[0]);
    outer.addSubTree(L"list", newList);
    EXPECT_EQ(Dump(outer), R"({"inner":{"x":2},"list":[{"y":2}]})");
    for (const typeProperty* unchanged : {&copied, &taken}) {
        EXPECT_EQ(Dump(*unchanged), R"({"inner":{"x":1},"list":[{"y":1}]})");
    }
    assigned.clear();
    EXPECT_EQ(Dump(copied), R"({"inner":{"x":1},"list":[{"y":1}]})");
    assigned = Tree(R"({"inner":{"x":1}})");
    // A tree added into itself, an element appended to its own vector, and a
    // value fetched into its own parent.
    typeProperty self = Tree(R"({"a":"1"})"), vec = Tree(R"(["v"])");
    EXPECT_EQ(self.addSubTree(L"self", self), 0);
    for (int i = 0; i < 4; ++i) vec.addVecVal((*vec.vecEntries())[0]);
    EXPECT_EQ(Dump(assigned) + Dump(self) + Dump(vec),
              R"({"inner":{"x":1}}{"a":"1","self":{"a":"1"}}["v","v","v","v","v"])");
    EXPECT_EQ(self.getMapVal(L"a", self), 0);
    EXPECT_EQ(Dump(self), R"("1")");

    // Large maps are indexed: a copy's index must not refer to the original.
    typeProperty big;
    for (int i = 0; i < 5000; ++i) big.addMapVal(L"k" + std::to_wstring(i), i);
    typeProperty copy(big);
    big.clear();
    const typeProperty moved = std::move(copy);
    for (int i = 0, value = -1; i < 5000; i += 7) {
        EXPECT_EQ(moved.getMapVal(L"k" + std::to_wstring(i), value), 0);
        EXPECT_EQ(value, i);
    }
}

// A module built elsewhere calls these members through the virtual table, so
// their slots are a binary interface: call each through its slot number (the
// destructor takes slots 0 and 1 in the Itanium ABI).
TEST(TypeProperty, VirtualSlotOrder) {
    using W = const std::wstring&;
    typeProperty t;
    typeProperty* base = &t;
    void** slot = *reinterpret_cast<void***>(base);
    std::wstring out;
    reinterpret_cast<void (*)(typeProperty*, W)>(slot[4])(base, L"via table");
    EXPECT_EQ(reinterpret_cast<int (*)(const typeProperty*, std::wstring&)>(slot[3])(base, out), 0);
    EXPECT_EQ(out, L"via table");
    reinterpret_cast<void (*)(typeProperty*)>(slot[2])(base);
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(reinterpret_cast<int (*)(typeProperty*, W, const typeProperty&)>(slot[6])(base, L"t",
                                                                                        Tree("1")),
              0);
    EXPECT_EQ(reinterpret_cast<int (*)(typeProperty*, W, int)>(slot[7])(base, L"n", 5), 0);
    EXPECT_EQ(reinterpret_cast<int (*)(typeProperty*, W, W)>(slot[8])(base, L"s", L"v"), 0);
    EXPECT_EQ(
        reinterpret_cast<int (*)(const typeProperty*, W, std::wstring&)>(slot[5])(base, L"s", out),
        0);
    EXPECT_EQ(out, L"v");
    EXPECT_EQ(Dump(t), R"({"t":1,"n":5,"s":"v"})");
}

TEST(ErrorLog, RecordsFailuresOnlyKeepsTheNewestAndLosesNone) {
    CErrorInfo::clearErrors();
    EXPECT_EQ(CErrorInfo::addIfError(0, L"f", 1) + CErrorInfo::addIfError(3, L"f", 2), 3);
    EXPECT_EQ(CErrorInfo::addIfError(-4, nullptr, 3), -4);
    EXPECT_EQ(CErrorInfo::getErrors(), (std::vector<ErrorRecord>{{-4, L"", 3, L""}}));
    const int total = static_cast<int>(CErrorInfo::kMaxRecords) + 10;
    for (int i = 4; i < total; ++i) CErrorInfo::addIfError(-1, L"f", i);
    const auto records = CErrorInfo::getErrors();
    ASSERT_EQ(records.size(), CErrorInfo::kMaxRecords);
    EXPECT_EQ(records.front().line, 10);
    EXPECT_EQ(records.back().line, total - 1);
    EXPECT_EQ(CErrorInfo::droppedCount(), 7u);
    CErrorInfo::clearErrors();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 1000; ++i) CErrorInfo::addIfError(-1 - t, L"thread", i);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(CErrorInfo::getErrors().size() + CErrorInfo::droppedCount(), 8000u);
    CErrorInfo::clearErrors();
}

TEST(Inputs, CallerInputsWinAndDefaultsFillTheRest) {
    const typeProperty inputs = Tree(R"({"BundleId":"given.id"})"), list = Tree("[1]");
    typeProperty merged;
    ASSERT_EQ(CDbUtils::registerDefaultInputs(1, 2, 3, Tree(R"({"BundleId":"d","Extra":1})")), 0);
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(Dump(merged), R"({"BundleId":"given.id","Extra":1})");
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 4, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(merged, inputs);  // another context has no defaults
    EXPECT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &list, &merged), kInvalidArgument);
    CDbUtils::clearDefaultInputs();
}

}  // namespace
