// The tree value, versions, the error log and input merging.
#include <gtest/gtest.h>

#include <climits>
#include <thread>

#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/Failpoints.h"
#include "KALDO/typeProperty.h"

using namespace KALDO;
using Kind = typeProperty::Kind;
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

typeProperty Vec(std::initializer_list<typeProperty> items) {
    typeProperty t;
    t.changeTypeToVec();
    for (const auto& item : items) t.addVecVal(item);
    return t;
}

Keys KeysOf(const typeProperty& map) {
    Keys keys;
    EXPECT_EQ(map.getMapKeys(keys), 0);
    return keys;
}

TEST(TypeProperty, KindsChangeOnlyAsDocumented) {
    typeProperty map, vec, str = Str(L"text");
    EXPECT_EQ(map.addMapVal(L"k", 1), 0);  // an empty value becomes what it is first given
    EXPECT_EQ(vec.addVecVal(L"x"), 0);
    EXPECT_EQ(map.kind(), Kind::Map);
    EXPECT_EQ(vec.kind(), Kind::Vector);
    // Adds of the other kind fail and change nothing.
    EXPECT_EQ(map.addVecVal(L"x"), kInvalidArgument);
    EXPECT_EQ(vec.addMapVal(L"k", L"v"), kInvalidArgument);
    EXPECT_EQ(vec.addSubTree(L"k", Int(1)), kInvalidArgument);
    EXPECT_EQ(str.addInteger(L"k", 1), kInvalidArgument);
    EXPECT_EQ(str.addVecVal(Int(1)), kInvalidArgument);
    EXPECT_EQ(KeysOf(map), Keys{L"k"});
    EXPECT_EQ(vec, Vec({Str(L"x")}));
    EXPECT_EQ(str, Str(L"text"));

    str.changeTypeToMap();
    EXPECT_TRUE(KeysOf(str).empty());
    str.setIntVal(3);
    EXPECT_EQ(str, Int(3));
    str.changeTypeToVec();
    int size = -1;
    EXPECT_EQ(str.getVecSize(size), 0);
    EXPECT_EQ(size, 0);
    map.clear();
    EXPECT_TRUE(map.isEmpty());
}

TEST(TypeProperty, MapKeepsInsertionOrderAndReplacesInPlace) {
    typeProperty map;
    map.addMapVal(L"b", L"1");
    map.addMapVal(L"a", 2);
    map.addMapVal(L"c", Str(L"3"));
    EXPECT_EQ(map.addString(L"b", L"again"), 0);
    EXPECT_EQ(map.addInteger(L"a", 7), 0);
    EXPECT_EQ(KeysOf(map), (Keys{L"b", L"a", L"c"}));
    EXPECT_EQ(*map.findMapVal(L"b"), Str(L"again"));
    EXPECT_EQ(*map.findMapVal(L"a"), Int(7));
    map.addMapVal(L"a", L"now a string");  // replacing may change the kind
    EXPECT_EQ(*map.findMapVal(L"a"), Str(L"now a string"));
}

// {"s": "text", "i": 5, "v": ["x", 1], "m": {}}
TEST(TypeProperty, MissingAndWrongKindLookups) {
    typeProperty map, emptyMap;
    map.addMapVal(L"s", L"text");
    map.addMapVal(L"i", 5);
    map.addSubTree(L"v", Vec({Str(L"x"), Int(1)}));
    emptyMap.changeTypeToMap();
    map.addSubTree(L"m", emptyMap);

    std::wstring str = L"untouched";
    int number = -1;
    std::vector<typeProperty> list;
    typeProperty tree;
    const std::pair<int, int> codes[] = {
        {map.lookupString(L"missing", str), kNotFound},
        {map.lookupString(L"i", str), kInvalidArgument},
        {map.getMapVal(L"s", number), kInvalidArgument},
        {map.getMapVal(L"missing", number), kNotFound},
        {map.getMapVal(L"m", list), kInvalidArgument},
        {map.getMapVal(L"missing", tree), kNotFound},
        {map.findMapVal(L"v")->getVecVal(1, str), kInvalidArgument},
        {map.findMapVal(L"v")->getVecVal(2, str), kNotFound},
        {map.findMapVal(L"v")->getVecVal(-1, tree), kNotFound},
        {map.getVecVal(0, str), kInvalidArgument},
        {map.getVecSize(number), kInvalidArgument},
        {Int(4).getString(str), kInvalidArgument},
        {Str(L"4").getIntVal(number), kInvalidArgument},
        {Int(4).lookupString(L"s", str), kNotFound}};
    for (size_t i = 0; i < std::size(codes); ++i) EXPECT_EQ(codes[i].first, codes[i].second) << i;
    EXPECT_EQ(str, L"untouched");
    EXPECT_EQ(number, -1);
    EXPECT_EQ(map.getMapVal(L"v", list), 0);
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(map.getMapVal(L"m", tree), 0);  // the tree form takes every kind
    EXPECT_EQ(tree, emptyMap);
    Keys keys{L"stale"};
    EXPECT_EQ(list[0].getMapKeys(keys), kInvalidArgument);
    EXPECT_EQ(typeProperty().getMapKeys(keys), 0);
    EXPECT_TRUE(keys.empty());
}

TEST(TypeProperty, CopiesAreDeepAndAliasingIsSafe) {
    typeProperty inner, outer;
    inner.addMapVal(L"x", 1);
    outer.addSubTree(L"inner", inner);
    outer.addSubTree(L"list", Vec({inner, Str(L"s")}));
    typeProperty assigned;
    assigned = outer;
    EXPECT_EQ(typeProperty(outer), outer);
    const_cast<typeProperty*>(outer.findMapVal(L"inner"))->addMapVal(L"x", 2);
    EXPECT_EQ(*assigned.findMapVal(L"inner"), inner);
    EXPECT_NE(assigned, outer);

    typeProperty reordered;  // equality includes the order of keys
    reordered.addSubTree(L"list", *assigned.findMapVal(L"list"));
    reordered.addSubTree(L"inner", inner);
    EXPECT_NE(reordered, assigned);

    // A tree added into itself, an element appended to its own vector, and a
    // value fetched into its own parent.
    typeProperty self;
    self.addMapVal(L"a", L"1");
    EXPECT_EQ(self.addSubTree(L"self", self), 0);
    EXPECT_EQ(KeysOf(*self.findMapVal(L"self")), Keys{L"a"});
    typeProperty vec = Vec({Str(L"first")});
    for (int i = 0; i < 10; ++i) vec.addVecVal((*vec.vecEntries())[0]);
    EXPECT_EQ(vec.vecEntries()->back(), Str(L"first"));
    typeProperty holder;
    holder.addSubTree(L"k", Str(L"v"));
    EXPECT_EQ(holder.getMapVal(L"k", holder), 0);
    EXPECT_EQ(holder, Str(L"v"));

    typeProperty moved(std::move(outer));
    EXPECT_TRUE(outer.isEmpty());  // NOLINT(bugprone-use-after-move): documented empty
    EXPECT_EQ(KeysOf(moved), (Keys{L"inner", L"list"}));
}

TEST(TypeProperty, LargeMapsStayCorrectAcrossTheIndex) {
    typeProperty map;
    for (int i = 0; i < 5000; ++i) map.addMapVal(L"k" + std::to_wstring(i), i);
    map.addMapVal(L"k17", -17);
    typeProperty copy(map);
    map.clear();  // the copy's index must not refer to the original
    for (int i = 0; i < 5000; i += 7) {
        int v = 0;
        ASSERT_EQ(copy.getMapVal(L"k" + std::to_wstring(i), v), 0) << i;
        EXPECT_EQ(v, i == 17 ? -17 : i);
    }
    EXPECT_EQ(copy.findMapVal(L"k5000"), nullptr);
    ASSERT_EQ(copy.mapEntries()->size(), 5000u);
    EXPECT_EQ((*copy.mapEntries())[17].first, L"k17");
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

TEST(SoftwareVersion, ParsesLeadingNumbersAndKeepsText) {
    // clang-format off
    const std::pair<const char*, std::vector<int>> cases[] = {
        {"5.0.3", {5, 0, 3}}, {"4.3.12r93733", {4, 3, 12}}, {"7.1.2 beta", {7, 1, 2}},
        {"10.", {10}}, {"beta 2", {}}, {"", {}}, {"3..4", {3}}, {"99999999999.1", {INT_MAX, 1}},
    };
    // clang-format on
    for (const auto& [text, components] : cases) {
        const CSoftwareVersion v(text);
        EXPECT_EQ(v.components(), components) << text;
        EXPECT_EQ(CSoftwareVersion(v).toCharStr(), text);
        EXPECT_EQ(CGeneralUtils::GetMajorVersion(&v), components.empty() ? 0 : components[0]);
    }
    EXPECT_EQ(CGeneralUtils::GetMajorVersion(nullptr), 0);
    EXPECT_EQ(CSoftwareVersion(std::wstring(L"12.5")).minor(), 5);
    EXPECT_EQ(CSoftwareVersion("5.0").compare(CSoftwareVersion("5.0.0")), 0);
    EXPECT_LT(CSoftwareVersion("5.0.9").compare(CSoftwareVersion("5.1")), 0);
    EXPECT_GT(CSoftwareVersion("10").compare(CSoftwareVersion("9.9")), 0);
}

class ErrorLog : public ::testing::Test {
protected:
    void SetUp() override { CErrorInfo::clearErrors(); }
    void TearDown() override { CErrorInfo::clearErrors(); }
};

TEST_F(ErrorLog, RecordsFailuresOnlyAndKeepsTheNewest) {
    EXPECT_EQ(CErrorInfo::addIfError(0, L"f", 1), 0);
    EXPECT_EQ(CErrorInfo::addIfError(3, L"f", 2), 3);
    EXPECT_EQ(CErrorInfo::addIfError(-4, L"/src/a", 10), -4);
    EXPECT_EQ(CErrorInfo::addIfError(-1, nullptr, 11), -1);
    EXPECT_EQ(CErrorInfo::getErrors(),
              (std::vector<ErrorRecord>{{-4, L"/src/a", 10}, {-1, L"", 11}}));

    CErrorInfo::clearErrors();
    const int total = static_cast<int>(CErrorInfo::kMaxRecords) + 10;
    for (int i = 0; i < total; ++i) CErrorInfo::addIfError(-1, L"f", i);
    const auto records = CErrorInfo::getErrors();
    ASSERT_EQ(records.size(), CErrorInfo::kMaxRecords);
    EXPECT_EQ(records.front().line, 10);
    EXPECT_EQ(records.back().line, total - 1);
    EXPECT_EQ(CErrorInfo::droppedCount(), 10u);
    CErrorInfo::clearErrors();
    EXPECT_TRUE(CErrorInfo::getErrors().empty());
    EXPECT_EQ(CErrorInfo::droppedCount(), 0u);
}

TEST_F(ErrorLog, ConcurrentRecordersLoseNothing) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 1000; ++i) CErrorInfo::addIfError(-1 - t, L"thread", i);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(CErrorInfo::getErrors().size() + CErrorInfo::droppedCount(), 8000u);
}

class Inputs : public ::testing::Test {
protected:
    void TearDown() override {
        CDbUtils::clearDefaultInputs();
        CFailpoints::Clear();
    }
};

TEST_F(Inputs, CallerInputsWinAndDefaultsFillTheRest) {
    typeProperty defaults, inputs, merged;
    defaults.addMapVal(L"BundleId", L"default.id");
    defaults.addMapVal(L"Extra", 1);
    ASSERT_EQ(CDbUtils::registerDefaultInputs(1, 2, 3, defaults), 0);
    inputs.addMapVal(L"BundleId", L"given.id");
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(KeysOf(merged), (Keys{L"BundleId", L"Extra"}));
    EXPECT_EQ(*merged.findMapVal(L"BundleId"), Str(L"given.id"));

    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 4, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(merged, inputs);  // another context has no defaults
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, nullptr, &merged), 0);
    EXPECT_EQ(merged, defaults);
    CDbUtils::clearDefaultInputs();
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, nullptr, &merged), 0);
    EXPECT_EQ(merged.kind(), Kind::Map);
    EXPECT_TRUE(KeysOf(merged).empty());
}

TEST_F(Inputs, RefusesBadArgumentsAndHonoursItsFailpoint) {
    typeProperty merged = Str(L"kept");
    const typeProperty list = Vec({Str(L"a")});
    EXPECT_EQ(CDbUtils::getInputsForMethod(0, 0, 0, nullptr, nullptr, nullptr), kInvalidArgument);
    EXPECT_EQ(CDbUtils::getInputsForMethod(0, 0, 0, nullptr, &list, &merged), kInvalidArgument);
    EXPECT_EQ(CDbUtils::registerDefaultInputs(0, 0, 0, list), kInvalidArgument);
    ASSERT_EQ(CFailpoints::Set("getInputsForMethod=-32"), 0);
    EXPECT_EQ(CDbUtils::getInputsForMethod(0, 0, 0, nullptr, nullptr, &merged), kBusy);
    EXPECT_EQ(merged, Str(L"kept"));
}

}  // namespace
