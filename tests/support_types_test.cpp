// The tree value, versions, the error log and input merging.
#include <gtest/gtest.h>

#include <thread>

#include "KALDO/CDbUtils.h"
#include "KALDO/CErrorInfo.h"
#include "KALDO/CSoftwareVersion.h"
#include "KALDO/Failpoints.h"
#include "KALDO/typeProperty.h"

using KALDO::typeProperty;

namespace {

typeProperty Str(const std::wstring& s) {
    typeProperty t;
    t.setVal(s);
    return t;
}

TEST(TypeProperty, MapKeepsInsertionOrderAndReplacesInPlace) {
    typeProperty map;
    EXPECT_EQ(map.addMapVal(L"b", L"1"), 0);
    EXPECT_EQ(map.addMapVal(L"a", 2), 0);
    EXPECT_EQ(map.addMapVal(L"c", Str(L"3")), 0);
    EXPECT_EQ(map.addMapVal(L"b", 7), 0);  // replace keeps place, changes kind
    std::vector<std::wstring> keys;
    ASSERT_EQ(map.getMapKeys(keys), 0);
    EXPECT_EQ(keys, (std::vector<std::wstring>{L"b", L"a", L"c"}));
    int b = 0;
    EXPECT_EQ(map.getMapVal(L"b", b), 0);
    EXPECT_EQ(b, 7);
}

TEST(TypeProperty, LargeMapLookupsAfterIndexing) {
    typeProperty map;
    for (int i = 0; i < 5000; ++i) map.addMapVal(L"k" + std::to_wstring(i), i);
    map.addMapVal(L"k17", -17);
    typeProperty copy(map);
    for (int i = 0; i < 5000; i += 97) {
        int v = 0;
        ASSERT_EQ(copy.getMapVal(L"k" + std::to_wstring(i), v), 0);
        EXPECT_EQ(v, i == 17 ? -17 : i);
    }
    int v = 0;
    EXPECT_EQ(copy.getMapVal(L"k5000", v), KALDO::kNotFound);
    EXPECT_EQ(copy.mapEntries()->size(), 5000u);
    EXPECT_EQ((*copy.mapEntries())[17].first, L"k17");
}

}  // namespace
