// The tree value, versions, the error log and input merging.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <thread>

#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/Failpoints.h"
#include "KALDO/typeProperty.h"

using KALDO::typeProperty;
using Kind = KALDO::typeProperty::Kind;
using namespace KALDO;

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

std::vector<std::wstring> Keys(const typeProperty& map) {
    std::vector<std::wstring> keys;
    EXPECT_EQ(map.getMapKeys(keys), 0);
    return keys;
}

TEST(TypeProperty, KindsChangeOnlyAsDocumented) {
    typeProperty t;
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(t.addMapVal(L"k", 1), 0);
    EXPECT_EQ(t.kind(), Kind::Map);
    EXPECT_EQ(t.addVecVal(L"x"), kInvalidArgument);  // a map does not take vector adds
    EXPECT_EQ(Keys(t), std::vector<std::wstring>{L"k"});

    typeProperty v;
    EXPECT_EQ(v.addVecVal(L"x"), 0);
    EXPECT_EQ(v.kind(), Kind::Vector);
    EXPECT_EQ(v.addMapVal(L"k", L"v"), kInvalidArgument);
    EXPECT_EQ(v.addSubTree(L"k", Int(1)), kInvalidArgument);
    int size = 0;
    EXPECT_EQ(v.getVecSize(size), 0);
    EXPECT_EQ(size, 1);

    typeProperty s = Str(L"text");
    EXPECT_EQ(s.addInteger(L"k", 1), kInvalidArgument);
    EXPECT_EQ(s.addVecVal(Int(1)), kInvalidArgument);
    s.changeTypeToMap();
    EXPECT_EQ(s.kind(), Kind::Map);
    EXPECT_TRUE(Keys(s).empty());
    s.setIntVal(3);
    EXPECT_EQ(s.kind(), Kind::Integer);
    s.changeTypeToVec();
    EXPECT_EQ(s.getVecSize(size), 0);
    EXPECT_EQ(size, 0);
    s.clear();
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(s, typeProperty());
}

TEST(TypeProperty, MapKeepsInsertionOrderAndReplacesInPlace) {
    typeProperty map;
    EXPECT_EQ(map.addMapVal(L"b", L"1"), 0);
    EXPECT_EQ(map.addMapVal(L"a", 2), 0);
    EXPECT_EQ(map.addMapVal(L"c", Str(L"3")), 0);
    EXPECT_EQ(map.addString(L"b", L"again"), 0);
    EXPECT_EQ(map.addInteger(L"a", 7), 0);  // replacing may change the kind
    EXPECT_EQ(Keys(map), (std::vector<std::wstring>{L"b", L"a", L"c"}));
    std::wstring b;
    int a = 0;
    EXPECT_EQ(map.getMapVal(L"b", b), 0);
    EXPECT_EQ(map.getMapVal(L"a", a), 0);
    EXPECT_EQ(b, L"again");
    EXPECT_EQ(a, 7);
}

// Wrong-kind and missing lookups, each from a fresh map:
// {"s": "text", "i": 5, "v": ["x", 1], "m": {}}
TEST(TypeProperty, LookupCodes) {
    typeProperty map;
    map.addMapVal(L"s", L"text");
    map.addMapVal(L"i", 5);
    map.addSubTree(L"v", Vec({Str(L"x"), Int(1)}));
    typeProperty empty;
    empty.changeTypeToMap();
    map.addSubTree(L"m", empty);

    std::wstring str = L"untouched";
    int number = -1;
    std::vector<typeProperty> list;
    typeProperty tree;
    EXPECT_EQ(map.lookupString(L"missing", str), kNotFound);
    EXPECT_EQ(map.lookupString(L"i", str), kInvalidArgument);
    EXPECT_EQ(map.getMapVal(L"s", number), kInvalidArgument);
    EXPECT_EQ(map.getMapVal(L"missing", number), kNotFound);
    EXPECT_EQ(map.getMapVal(L"m", list), kInvalidArgument);
    EXPECT_EQ(map.getMapVal(L"missing", tree), kNotFound);
    EXPECT_EQ(str, L"untouched");
    EXPECT_EQ(number, -1);
    EXPECT_EQ(map.getMapVal(L"v", list), 0);
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(map.getMapVal(L"m", tree), 0);  // the tree form takes every kind
    EXPECT_EQ(tree.kind(), Kind::Map);

    const typeProperty& v = *map.findMapVal(L"v");
    EXPECT_EQ(v.getVecVal(0, str), 0);
    EXPECT_EQ(str, L"x");
    EXPECT_EQ(v.getVecVal(1, str), kInvalidArgument);
    EXPECT_EQ(v.getVecVal(2, str), kNotFound);
    EXPECT_EQ(v.getVecVal(-1, tree), kNotFound);
    EXPECT_EQ(map.getVecVal(0, str), kInvalidArgument);
    EXPECT_EQ(map.getVecSize(number), kInvalidArgument);
    std::vector<std::wstring> keys{L"stale"};
    EXPECT_EQ(v.getMapKeys(keys), kInvalidArgument);
    EXPECT_EQ(typeProperty().getMapKeys(keys), 0);
    EXPECT_TRUE(keys.empty());
    EXPECT_EQ(Int(4).getString(str), kInvalidArgument);
    EXPECT_EQ(Str(L"4").getIntVal(number), kInvalidArgument);
    EXPECT_EQ(Int(4).lookupString(L"s", str), kNotFound);
}

TEST(TypeProperty, CopiesAreDeepAndAliasingIsSafe) {
    typeProperty inner;
    inner.addMapVal(L"x", 1);
    typeProperty outer;
    outer.addSubTree(L"inner", inner);
    outer.addSubTree(L"list", Vec({inner, Str(L"s")}));

    typeProperty copy(outer);
    typeProperty assigned;
    assigned = outer;
    EXPECT_EQ(copy, outer);
    copy.clear();
    const_cast<typeProperty*>(outer.findMapVal(L"inner"))->addMapVal(L"x", 2);
    int x = 0;
    EXPECT_EQ(assigned.findMapVal(L"inner")->getMapVal(L"x", x), 0);
    EXPECT_EQ(x, 1);
    EXPECT_NE(assigned, outer);

    // A tree added into itself, and an element appended to its own vector.
    typeProperty self;
    self.addMapVal(L"a", L"1");
    EXPECT_EQ(self.addSubTree(L"self", self), 0);
    EXPECT_EQ(self.findMapVal(L"self")->findMapVal(L"a")->kind(), Kind::String);
    EXPECT_EQ(self.findMapVal(L"self")->findMapVal(L"self"), nullptr);
    typeProperty vec = Vec({Str(L"first")});
    for (int i = 0; i < 10; ++i) vec.addVecVal((*vec.vecEntries())[0]);
    EXPECT_EQ(vec.vecEntries()->back(), Str(L"first"));
    EXPECT_EQ(vec.getMapVal(L"x", vec), kNotFound);
    typeProperty holder;
    holder.addSubTree(L"k", Str(L"v"));
    EXPECT_EQ(holder.getMapVal(L"k", holder), 0);  // the value replaces its own parent
    EXPECT_EQ(holder, Str(L"v"));

    typeProperty moved(std::move(outer));
    EXPECT_TRUE(outer.isEmpty());  // NOLINT: moved-from state is documented as empty
    EXPECT_EQ(Keys(moved), (std::vector<std::wstring>{L"inner", L"list"}));
}

TEST(TypeProperty, EqualityIsDeepAndOrdered) {
    typeProperty a;
    a.addMapVal(L"x", 1);
    a.addMapVal(L"y", 2);
    typeProperty b;
    b.addMapVal(L"y", 2);
    b.addMapVal(L"x", 1);
    EXPECT_NE(a, b);
    EXPECT_NE(Str(L"1"), Int(1));
    EXPECT_EQ(Vec({Int(1), Str(L"a")}), Vec({Int(1), Str(L"a")}));
    EXPECT_NE(Vec({Int(1)}), Vec({Int(1), Int(1)}));
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
    int v = 0;
    EXPECT_EQ(copy.getMapVal(L"k5000", v), kNotFound);
    ASSERT_EQ(copy.mapEntries()->size(), 5000u);
    EXPECT_EQ((*copy.mapEntries())[17].first, L"k17");
    typeProperty moved = std::move(copy);
    EXPECT_EQ(moved.getMapVal(L"k4999", v), 0);
    EXPECT_EQ(v, 4999);
}

// The module calls these members through the virtual table of a library it
// was not built with, so their slots are a binary interface. In the Itanium
// ABI a pointer to a virtual member holds 1 + the slot's byte offset (ARM
// keeps the offset and flags the adjustment); the destructor takes slots 0
// and 1, so clear must be slot 2 and the rest must follow in order.
TEST(TypeProperty, VirtualSlotOrder) {
    struct Encoded {
        uintptr_t ptr;
        ptrdiff_t adj;
    };
    auto slot = [](auto member) {
        Encoded e;
        static_assert(sizeof(member) == sizeof(Encoded));
        std::memcpy(&e, &member, sizeof e);
#if defined(__arm__) || defined(__aarch64__)
        EXPECT_EQ(e.adj & 1, 1);
        return static_cast<long>(e.ptr / sizeof(void*));
#else
        EXPECT_EQ(e.ptr % sizeof(void*), 1u);
        return static_cast<long>((e.ptr - 1) / sizeof(void*));
#endif
    };
    EXPECT_EQ(slot(&typeProperty::clear), 2);
    EXPECT_EQ(slot(&typeProperty::getString), 3);
    EXPECT_EQ(slot(&typeProperty::setString), 4);
    EXPECT_EQ(slot(&typeProperty::lookupString), 5);
    EXPECT_EQ(slot(&typeProperty::addSubTree), 6);
    EXPECT_EQ(slot(&typeProperty::addInteger), 7);
    EXPECT_EQ(slot(&typeProperty::addString), 8);
}

// Calls through the raw table, as a module compiled elsewhere does.
TEST(TypeProperty, CallsThroughTheTableReachTheDocumentedMembers) {
    using SetString = void (*)(typeProperty*, const std::wstring&);
    using GetString = int (*)(const typeProperty*, std::wstring&);
    using Clear = void (*)(typeProperty*);
    using AddInt = int (*)(typeProperty*, const std::wstring&, int);
    using Lookup = int (*)(const typeProperty*, const std::wstring&, std::wstring&);
    using AddString = int (*)(typeProperty*, const std::wstring&, const std::wstring&);
    typeProperty t;
    void** table = *reinterpret_cast<void***>(&t);
    reinterpret_cast<SetString>(table[4])(&t, L"via table");
    std::wstring out;
    EXPECT_EQ(reinterpret_cast<GetString>(table[3])(&t, out), 0);
    EXPECT_EQ(out, L"via table");
    reinterpret_cast<Clear>(table[2])(&t);
    EXPECT_TRUE(t.isEmpty());
    EXPECT_EQ(reinterpret_cast<AddInt>(table[7])(&t, L"n", 5), 0);
    EXPECT_EQ(reinterpret_cast<AddString>(table[8])(&t, L"s", L"v"), 0);
    EXPECT_EQ(reinterpret_cast<Lookup>(table[5])(&t, L"s", out), 0);
    EXPECT_EQ(out, L"v");
    EXPECT_EQ(Keys(t), (std::vector<std::wstring>{L"n", L"s"}));
}

TEST(SoftwareVersion, ParsesLeadingNumbersAndKeepsText) {
    struct Case {
        const char* text;
        std::vector<int> components;
    } cases[] = {
        {"5.0.3", {5, 0, 3}},
        {"4.3.12r93733", {4, 3, 12}},
        {"7.1.2 beta", {7, 1, 2}},
        {"10.", {10}},
        {"beta 2", {}},
        {"", {}},
        {"99999999999.1", {INT_MAX, 1}},
        {"3..4", {3}},
    };
    for (const Case& c : cases) {
        const CSoftwareVersion v(c.text);
        EXPECT_EQ(v.components(), c.components) << c.text;
        EXPECT_EQ(v.toCharStr(), c.text);
        EXPECT_EQ(CGeneralUtils::GetMajorVersion(&v), c.components.empty() ? 0 : c.components[0]);
        EXPECT_EQ(CSoftwareVersion(v).toCharStr(), c.text);
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

TEST_F(ErrorLog, RecordsOnlyFailuresAndReturnsTheCode) {
    EXPECT_EQ(CErrorInfo::addIfError(0, L"f", 1), 0);
    EXPECT_EQ(CErrorInfo::addIfError(3, L"f", 2), 3);
    EXPECT_EQ(CErrorInfo::addIfError(-4, L"/src/a", 10), -4);
    EXPECT_EQ(CErrorInfo::addIfError(-1, nullptr, 11), -1);
    EXPECT_EQ(CErrorInfo::getErrors(),
              (std::vector<ErrorRecord>{{-4, L"/src/a", 10}, {-1, L"", 11}}));
}

TEST_F(ErrorLog, KeepsTheNewestRecordsAndCountsTheDropped) {
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
    typeProperty defaults;
    defaults.addMapVal(L"BundleId", L"default.id");
    defaults.addMapVal(L"Extra", 1);
    ASSERT_EQ(CDbUtils::registerDefaultInputs(1, 2, 3, defaults), 0);
    typeProperty inputs;
    inputs.addMapVal(L"BundleId", L"given.id");
    typeProperty merged;
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(Keys(merged), (std::vector<std::wstring>{L"BundleId", L"Extra"}));
    std::wstring id;
    merged.lookupString(L"BundleId", id);
    EXPECT_EQ(id, L"given.id");

    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 4, nullptr, &inputs, &merged), 0);
    EXPECT_EQ(merged, inputs);  // another context has no defaults
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, nullptr, &merged), 0);
    EXPECT_EQ(merged, defaults);
    CDbUtils::clearDefaultInputs();
    ASSERT_EQ(CDbUtils::getInputsForMethod(1, 2, 3, nullptr, nullptr, &merged), 0);
    EXPECT_EQ(merged.kind(), Kind::Map);
    EXPECT_TRUE(Keys(merged).empty());
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
