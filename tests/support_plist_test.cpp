// Property lists that nest too deep, refer to themselves or unfold into
// billions of nodes are refused before libplist parses them, whatever the
// reading thread's stack; real ones up to the limit still read.
//
// The hostile files are written by hand: libplist's writer recurses too, and
// cannot write a cycle or a shared array.
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KALDO/KALDO.h"
#include "TestMachine.h"

using namespace KALDO;
using implvm_test::TestMachine;

namespace {

constexpr int kLimit = 256;       // arrays and dictionaries nested in one another
constexpr int kHostile = 100000;  // deep enough to crash libplist on any stack

std::string BigEndian(uint64_t value, unsigned width) {
    std::string out(width, '\0');
    for (unsigned i = width; i-- > 0; value >>= 8) out[i] = static_cast<char>(value & 0xFF);
    return out;
}

// A binary property list: objects in order, each an encoded string of bytes.
struct Bplist {
    unsigned refSize = 4, offsetSize = 4;
    std::vector<std::string> objects;

    void add(std::string encoded) { objects.push_back(std::move(encoded)); }
    // An array (0xA), set (0xC) or dictionary (0xD, keys then values) of
    // references. The count goes in the marker below 15, else after it as an
    // integer object, and always there when `countAfter`.
    std::string collection(unsigned type, const std::vector<uint64_t>& refs,
                           bool countAfter = false) const {
        const uint64_t count = type == 0xD ? refs.size() / 2 : refs.size();
        std::string out;
        if (count < 15 && !countAfter) {
            out += static_cast<char>(type << 4 | count);
        } else {
            out += static_cast<char>(type << 4 | 0xF);
            out += static_cast<char>(0x12);  // a 4-byte integer
            out += BigEndian(count, 4);
        }
        for (uint64_t ref : refs) out += BigEndian(ref, refSize);
        return out;
    }
    static std::string ascii(const std::string& text) {
        return static_cast<char>(0x50 | text.size()) + text;  // shorter than 15
    }
    // The file, object 0 at the top.
    std::string bytes() const {
        std::string out = "bplist00";
        std::vector<uint64_t> offsets;
        for (const std::string& object : objects) {
            offsets.push_back(out.size());
            out += object;
        }
        const uint64_t tableAt = out.size();
        for (uint64_t offset : offsets) out += BigEndian(offset, offsetSize);
        out += std::string(6, '\0');
        out += static_cast<char>(offsetSize);
        out += static_cast<char>(refSize);
        out += BigEndian(objects.size(), 8) + BigEndian(0, 8) + BigEndian(tableAt, 8);
        return out;
    }
};

enum class Via { kValues, kKeys, kCountAfter };

// `levels` collections of `type`, each holding the next (as a dictionary's
// value or key), the innermost holding the string "bottom".
std::string BinaryNested(int levels, unsigned type, Via via = Via::kValues, unsigned width = 4) {
    Bplist plist;
    plist.refSize = plist.offsetSize = width;
    const uint64_t bottom = levels, key = levels + 1;
    for (int i = 0; i < levels; ++i) {
        const uint64_t next = i + 1;
        if (type != 0xD)
            plist.add(plist.collection(type, {next}, via == Via::kCountAfter));
        else if (via == Via::kKeys)
            plist.add(plist.collection(type, {next, bottom}));
        else
            plist.add(plist.collection(type, {key, next}));
    }
    plist.add(Bplist::ascii("bottom"));
    plist.add(Bplist::ascii("k"));
    return plist.bytes();
}

// `levels` arrays (or dictionaries) in one another, `extra` after each
// opening tag, the string "bottom" innermost.
std::string XmlNested(int levels, bool dicts = false, const std::string& open = "<array>",
                      const std::string& extra = "") {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">";
    for (int i = 0; i < levels; ++i) xml += (dicts ? "<dict><key>k</key>" : open) + extra;
    xml += "<string>bottom</string>";
    for (int i = 0; i < levels; ++i) xml += dicts ? "</dict>" : "</array>";
    return xml + "</plist>\n";
}

// Object i holds `fanout` references to object i + 1: a file of a few
// hundred bytes that unfolds into fanout^levels nodes.
std::string BinaryShared(int levels, int fanout) {
    Bplist plist;
    for (int i = 0; i < levels; ++i)
        plist.add(plist.collection(0xA, std::vector<uint64_t>(fanout, i + 1)));
    plist.add(Bplist::ascii("leaf"));
    return plist.bytes();
}

// A chain of 200 arrays reached twice from the top array: at once, and
// through a chain of `detour` arrays, which puts its deepest at 201 + detour.
std::string BinaryDeepShared(int detour) {
    Bplist plist;
    const int chain = 200;
    const uint64_t bottom = 1 + chain, detourAt = bottom + 1;
    plist.add(plist.collection(0xA, {1, detourAt}));
    for (int i = 0; i < chain; ++i) plist.add(plist.collection(0xA, {uint64_t(2 + i)}));
    plist.add(Bplist::ascii("bottom"));
    for (int i = 0; i < detour; ++i)
        plist.add(plist.collection(0xA, {i + 1 < detour ? detourAt + i + 1 : 1}));
    return plist.bytes();
}

// A dictionary of one entry whose key is a UTF-16 string.
std::string Utf16KeyDict(const std::u16string& key) {
    Bplist plist;
    plist.add(plist.collection(0xD, {1, 2}));
    std::string encoded(1, static_cast<char>(key.size() < 15 ? 0x60 | key.size() : 0x6F));
    if (key.size() >= 15) encoded += "\x10" + BigEndian(key.size(), 1);
    for (char16_t c : key) encoded += BigEndian(c, 2);
    plist.add(encoded);
    plist.add(Bplist::ascii("value"));
    return plist.bytes();
}

int Read(const std::wstring& path, typeProperty& tree) {
    return CAppleUtils::ReadPlistFileToTypePropertyTree(path, tree);
}

// The same read on a thread with a 512 KiB stack, a secondary thread's
// default on macOS.
int ReadOnSmallStack(const std::wstring& path, typeProperty& tree) {
    struct Job {
        const std::wstring* path;
        typeProperty* tree;
        int rc;
    } job{&path, &tree, 1};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512 << 10);
    pthread_t thread;
    const int started = pthread_create(
        &thread, &attr,
        [](void* arg) -> void* {
            auto* j = static_cast<Job*>(arg);
            j->rc = Read(*j->path, *j->tree);
            return nullptr;
        },
        &job);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(started, 0);
    if (started == 0) pthread_join(thread, nullptr);
    return job.rc;
}

// How deep vectors and maps nest in a tree.
int Nesting(const typeProperty& tree) {
    int deepest = 0;
    std::vector<std::pair<const typeProperty*, int>> pending{{&tree, 0}};
    while (!pending.empty()) {
        auto [at, depth] = pending.back();
        pending.pop_back();
        if (const auto* vec = at->vecEntries()) {
            ++depth;
            for (const typeProperty& item : *vec) pending.emplace_back(&item, depth);
        } else if (const auto* map = at->mapEntries()) {
            ++depth;
            for (const auto& entry : *map) pending.emplace_back(&entry.second, depth);
        }
        deepest = std::max(deepest, depth);
    }
    return deepest;
}

struct Case {
    const char* name;
    std::function<std::string()> bytes;
};

void ExpectRefused(const std::vector<Case>& cases) {
    TestMachine mac;
    for (const Case& c : cases) {
        mac.writeFile("/p.plist", c.bytes());
        typeProperty tree;
        tree.setVal(L"untouched");
        EXPECT_EQ(Read(L"/p.plist", tree), kInvalidArgument) << c.name;
        EXPECT_EQ(ReadOnSmallStack(L"/p.plist", tree), kInvalidArgument) << c.name;
        std::wstring kept;
        EXPECT_TRUE(tree.getString(kept) == 0 && kept == L"untouched") << c.name;
    }
}

// Each shape is one a check could miss: a set, a dictionary nested through
// its keys, a count written after the marker, three-byte references, and
// XML whose comments, text and attributes hold closing tags a naive count
// would subtract.
TEST(PlistDepth, DeepListsAreRefusedOnAnyStack) {
    ExpectRefused({
        {"binary arrays", [] { return BinaryNested(kHostile, 0xA); }},
        {"binary sets", [] { return BinaryNested(kHostile, 0xC); }},
        {"binary dicts", [] { return BinaryNested(kHostile, 0xD); }},
        {"binary dicts by key", [] { return BinaryNested(kHostile, 0xD, Via::kKeys); }},
        {"count after marker", [] { return BinaryNested(kHostile, 0xA, Via::kCountAfter); }},
        {"3-byte refs", [] { return BinaryNested(kHostile, 0xA, Via::kValues, 3); }},
        {"one past the limit", [] { return BinaryNested(kLimit + 1, 0xA); }},
        {"one past, through a shared array", [] { return BinaryDeepShared(kLimit + 1 - 201); }},
        {"xml arrays", [] { return XmlNested(kHostile); }},
        {"xml dicts", [] { return XmlNested(kHostile, true); }},
        {"xml one past", [] { return XmlNested(kLimit + 1); }},
        {"xml one past, empty", [] { return XmlNested(kLimit, false, "<array>", "<array/>"); }},
        {"xml one past, after an empty top array",  // libplist nests the rest in it
         [] {
             std::string xml = XmlNested(kLimit);
             return xml.insert(xml.find("<array>"), "<array/>");
         }},
        {"xml comments", [] { return XmlNested(kHostile, false, "<array>", "<!--</array>-->"); }},
        {"xml cdata",
         [] {
             return XmlNested(kHostile, false, "<array>", "<string><![CDATA[</array>]]></string>");
         }},
        {"xml attribute", [] { return XmlNested(kHostile, false, "<array a=\"</array>\">"); }},
        {"xml instruction",
         [] { return XmlNested(kHostile, false, "<array>", "<?x \"</array>\"?>"); }},
        {"xml internal subset",
         [] {
             std::string xml = XmlNested(kHostile, false, "<array>", "");
             return xml.insert(xml.find("<plist "), "<!DOCTYPE x [ > <!-- ]>") + "-->";
         }},
    });
}

TEST(PlistDepth, CyclesAndSharedObjectsThatUnfoldTooFarAreRefused) {
    ExpectRefused({
        {"self",
         [] {
             Bplist p;
             p.add(p.collection(0xA, {0}));
             return p.bytes();
         }},
        {"through a dict",
         [] {
             Bplist p;
             p.add(p.collection(0xD, {2, 1}));
             p.add(p.collection(0xA, {3, 0}));
             p.add(Bplist::ascii("k"));
             p.add(Bplist::ascii("v"));
             return p.bytes();
         }},
        {"2^64 nodes", [] { return BinaryShared(64, 2); }},
        {"10^9 nodes", [] { return BinaryShared(3, 1000); }},
        {"90,301 nodes in 2 KB", [] { return BinaryShared(2, 300); }},
    });
}

// Damage the walk must survive (every size, offset and reference is checked
// against the bytes before it is used), a key libplist aborts the process on,
// and forms other libplist versions parse recursively.
TEST(PlistDepth, WhatLibplistCannotTakeIsRefused) {
    const auto damaged = [](size_t at, std::string with) {
        return [at, with] {
            std::string bytes = BinaryNested(3, 0xA);
            const size_t from = at < 64 ? at : bytes.size() - (at - 64);
            return bytes.replace(from, with.size(), with);
        };
    };
    // Offsets from the end are written 64 + n: the trailer is the last 32
    // bytes (offset size at 26, reference size at 25, object count at 24,
    // top object at 16, offset table at 8).
    ExpectRefused({
        {"no room for a trailer", [] { return std::string("bplist00") + std::string(31, '\0'); }},
        {"offset size 9", damaged(64 + 26, "\x09")},
        {"reference size 0", damaged(64 + 25, std::string(1, '\0'))},
        {"no objects", damaged(64 + 24, std::string(8, '\0'))},
        {"more objects than the table holds", damaged(64 + 24, BigEndian(1000, 8))},
        {"count overflowing", damaged(64 + 24, BigEndian(~0ull / 2, 8))},
        {"top past the objects", damaged(64 + 16, BigEndian(5, 8))},
        {"table in the header", damaged(64 + 8, BigEndian(2, 8))},
        {"offset into the table", damaged(64 + 32 + 20, BigEndian(40, 4))},
        {"reference past the objects", damaged(9, BigEndian(99, 4))},
        {"count past the table", damaged(8, "\xA9")},
        {"count after marker not an integer", damaged(8, "\xAF\x50")},
        {"count after marker of 16 bytes", damaged(8, "\xAF\x14")},
        {"count after marker cut off",
         [] {
             Bplist p;
             p.add("\xAF\x13");
             return p.bytes();
         }},
        {"key holding U+0000", [] { return Utf16KeyDict(std::u16string(u"a\0b", 3)); }},
        {"long key ending in U+0000",
         [] { return Utf16KeyDict(std::u16string(u"fifteen letters\0", 16)); }},
        {"json", [] { return std::string(kHostile, '[') + std::string(kHostile, ']'); }},
        {"openstep", [] { return std::string(kHostile, '(') + std::string(kHostile, ')'); }},
    });
}

// Up to the limit, in both forms, with the markup real files use.
TEST(PlistDepth, ListsUpToTheLimitRead) {
    const Case cases[] = {
        {"binary arrays", [] { return BinaryNested(kLimit, 0xA); }},
        {"binary dicts", [] { return BinaryNested(kLimit, 0xD); }},
        {"binary sets", [] { return BinaryNested(kLimit, 0xC); }},
        {"binary, through a shared array", [] { return BinaryDeepShared(kLimit - 201); }},
        {"3-byte refs, counts after markers",
         [] { return BinaryNested(kLimit, 0xA, Via::kCountAfter, 3); }},
        {"xml arrays", [] { return XmlNested(kLimit); }},
        {"xml dicts", [] { return XmlNested(kLimit, true); }},
        {"xml with comments, cdata, attributes and empty elements",
         [] {  // the empty arrays innermost are the deepest
             return XmlNested(kLimit - 1, false, "<array class='x'>",
                              "<!-- <array> </array> --><array/><dict/><string><![CDATA[</array>]]>"
                              "<!--x--></string><?pi a=\"b\"?>");
         }},
    };
    TestMachine mac;
    for (const Case& c : cases) {
        mac.writeFile("/p.plist", c.bytes());
        for (const auto read : {Read, ReadOnSmallStack}) {
            typeProperty tree;
            ASSERT_EQ(read(L"/p.plist", tree), 0) << c.name;
            EXPECT_EQ(Nesting(tree), kLimit) << c.name;
        }
    }
}

TEST(PlistDepth, Utf16KeysRead) {
    TestMachine mac;
    for (const std::u16string& key :
         {std::u16string(u"caf\u00e9"), std::u16string(20, u'\u4f4d')}) {
        mac.writeFile("/keys.plist", Utf16KeyDict(key));
        typeProperty tree;
        std::wstring value;
        ASSERT_EQ(Read(L"/keys.plist", tree), 0);
        EXPECT_EQ(tree.lookupString(L"\\s" + std::wstring(key.begin(), key.end()), value), 0);
        EXPECT_EQ(value, L"\\svalue");
    }
}

// Objects shared as writers share them: one string in every place, an array
// in many places. The tree holds every copy, up to 65,536 nodes for a file
// smaller than that.
TEST(PlistDepth, SharedObjectsWithinBoundsUnfold) {
    Bplist flat;
    flat.add(flat.collection(0xA, std::vector<uint64_t>(100000, 1)));
    flat.add(Bplist::ascii("same"));
    const struct {
        std::string bytes;
        size_t elements;
        int nesting;
    } cases[] = {
        {BinaryShared(10, 2), 2, 10}, {BinaryShared(2, 250), 250, 2}, {flat.bytes(), 100000, 1}};
    TestMachine mac;
    for (const auto& c : cases) {
        mac.writeFile("/p.plist", c.bytes);
        typeProperty tree;
        ASSERT_EQ(Read(L"/p.plist", tree), 0) << c.elements;
        ASSERT_TRUE(tree.vecEntries() && tree.vecEntries()->size() == c.elements);
        EXPECT_EQ(tree.vecEntries()->front(), tree.vecEntries()->back());
        EXPECT_EQ(Nesting(tree), c.nesting);
    }
}

}  // namespace
