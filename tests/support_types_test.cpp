// The tree value, the error log and input merging.
#include <gtest/gtest.h>

#include <thread>

#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/typeProperty.h"

using namespace KALDO;
using Keys = std::vector<std::wstring>;

namespace {

typeProperty Str(const std::wstring& s) {
    typeProperty t;
    t.setVal(s);
    return t;
}

typeProperty Int(int v) {
    typeProperty t;
    t.setIntVal(v);
    return t;
}

Keys KeysOf(const typeProperty& map) {
    Keys keys;
    EXPECT_EQ(map.getMapKeys(keys), 0);
    return keys;
}

TEST(TypeProperty, KindsInsertionOrderAndReplaceInPlace) {
    typeProperty map, vec, str = Str(L"text");
    EXPECT_EQ(map.addMapVal(L"b", L"1") + vec.addVecVal(L"x"), 0);  // empty becomes either kind
    // Adds and lookups of the other kind, or of nothing, fail and change nothing.
    std::wstring out = L"untouched";
    std::vector<typeProperty> list;
    EXPECT_EQ(map.addVecVal(L"x") + vec.addSubTree(L"k", Int(1)), 2 * kInvalidArgument);
    EXPECT_EQ(str.addInteger(L"k", 1) + str.addVecVal(Int(1)), 2 * kInvalidArgument);
    EXPECT_EQ(map.lookupString(L"missing", out) + vec.getVecVal(1, out), 2 * kNotFound);
    EXPECT_EQ(str.lookupString(L"k", out), kNotFound);
    EXPECT_EQ(vec.vecEntries()->size(), 1u);
    EXPECT_EQ(str, Str(L"text"));

    map.addMapVal(L"a", 2);
    map.addMapVal(L"c", Str(L"3"));
    EXPECT_EQ(map.lookupString(L"a", out) + map.getMapVal(L"c", list), 2 * kInvalidArgument);
    EXPECT_EQ(out, L"untouched");
    EXPECT_EQ(map.addString(L"b", L"again"), 0);
    map.addMapVal(L"a", L"now a string");  // replacing may change the kind
    EXPECT_EQ(KeysOf(map), (Keys{L"b", L"a", L"c"}));
    EXPECT_EQ(*map.findMapVal(L"b"), Str(L"again"));
    EXPECT_EQ(*map.findMapVal(L"a"), Str(L"now a string"));
}

TEST(TypeProperty, CopiesAreDeepAndAliasingIsSafe) {
    typeProperty inner, outer, assigned;
    inner.addMapVal(L"x", 1);
    outer.addSubTree(L"inner", inner);
    assigned = outer;
    const_cast<typeProperty*>(outer.findMapVal(L"inner"))->addMapVal(L"x", 2);
    EXPECT_EQ(*assigned.findMapVal(L"inner"), inner);

    // A tree added into itself, an element appended to its own vector, and a
    // value fetched into its own parent.
    typeProperty self;
    self.addMapVal(L"a", L"1");
    EXPECT_EQ(self.addSubTree(L"self", self), 0);
    EXPECT_EQ(KeysOf(*self.findMapVal(L"self")), Keys{L"a"});
    inner.changeTypeToVec();
    inner.addVecVal(L"first");
    for (int i = 0; i < 10; ++i) inner.addVecVal((*inner.vecEntries())[0]);
    EXPECT_EQ(inner.vecEntries()->back(), Str(L"first"));
    EXPECT_EQ(self.getMapVal(L"a", self), 0);
    EXPECT_EQ(self, Str(L"1"));

    // Large maps are indexed: a copy's index must not refer to the original.
    typeProperty big;
    for (int i = 0; i < 5000; ++i) big.addMapVal(L"k" + std::to_wstring(i), i);
    typeProperty copy(big);
    big.clear();
    for (int i = 0; i < 5000; i += 7)
        EXPECT_EQ(*copy.findMapVal(L"k" + std::to_wstring(i)), Int(i));
    const typeProperty moved = std::move(copy);
    EXPECT_EQ(*moved.findMapVal(L"k4999"), Int(4999));
}

// A module built elsewhere calls these members through the virtual table, so
// their slots are a binary interface: call each through its slot number (the
// destructor takes slots 0 and 1 in the Itanium ABI).
TEST(TypeProperty, VirtualSlotOrder) {
    using Clear = void (*)(typeProperty*);
    using GetString = int (*)(const typeProperty*, std::wstring&);
    using SetString = void (*)(typeProperty*, const std::wstring&);
    using Lookup = int (*)(const typeProperty*, const std::wstring&, std::wstring&);
    using AddTree = int (*)(typeProperty*, const std::wstring&, const typeProperty&);
    using AddInt = int (*)(typeProperty*, const std::wstring&, int);
    using AddString = int (*)(typeProperty*, const std::wstring&, const std::wstring&);
    typeProperty t;
    typeProperty* base = &t;
    void** table = *reinterpret_cast<void***>(base);
    reinterpret_cast<SetString>(table[4])(base, L"via table");
    std::wstring out;
    EXPECT_EQ(reinterpret_cast<GetString>(table[3])(base, out), 0);
    EXPECT_EQ(out, L"via table");
    reinterpret_cast<Clear>(table[2])(base);
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(reinterpret_cast<AddTree>(table[6])(base, L"t", Int(1)), 0);
    EXPECT_EQ(reinterpret_cast<AddInt>(table[7])(base, L"n", 5), 0);
    EXPECT_EQ(reinterpret_cast<AddString>(table[8])(base, L"s", L"v"), 0);
    EXPECT_EQ(reinterpret_cast<Lookup>(table[5])(base, L"s", out), 0);
    EXPECT_EQ(out, L"v");
    EXPECT_EQ(KeysOf(t), (Keys{L"t", L"n", L"s"}));
    EXPECT_EQ(*t.findMapVal(L"n"), Int(5));
}

TEST(ErrorLog, RecordsFailuresOnlyKeepsTheNewestAndLosesNone) {
    CErrorInfo::clearErrors();
    EXPECT_EQ(CErrorInfo::addIfError(0, L"f", 1) + CErrorInfo::addIfError(3, L"f", 2), 3);
    EXPECT_EQ(CErrorInfo::addIfError(-4, nullptr, 3), -4);
    EXPECT_EQ(CErrorInfo::getErrors(), (std::vector<ErrorRecord>{{-4, L"", 3}}));
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
    typeProperty defaults, inputs, merged, list;
    defaults.addMapVal(L"BundleId", L"default.id");
    defaults.addMapVal(L"Extra", 1);
    ASSERT_EQ(CDbUtils::registerDefaultInputs(1, 2, 3, defaults), 0);
    inputs.addMapVal(L"BundleId", L"given.id");
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(KeysOf(merged), (Keys{L"BundleId", L"Extra"}));
    EXPECT_EQ(*merged.findMapVal(L"BundleId"), Str(L"given.id"));
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 4, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(merged, inputs);  // another context has no defaults
    list.addVecVal(L"a");
    EXPECT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &list, &merged), kInvalidArgument);
    CDbUtils::clearDefaultInputs();
}

}  // namespace
