// typeProperty: the tree value that carries every input and output between a
// host and the module.
//
// A value is empty (never given a kind), a string, an integer, a map from wide
// key to value (kept in insertion order) or a vector of values. Values behave
// as deep copies: changing one never changes another. A copy shares its
// maps and vectors with the original until either is changed, so handing a
// large tree on costs no time or memory.
//
// Thread safety: distinct values may be used from different threads freely,
// also copies of one another; one value is not synchronised (like a standard
// container).
//
// Kinds of values change only in these ways:
//  - an empty value becomes a map on its first map add and a vector on its
//    first vector add;
//  - setVal / setString make any value a string, changeTypeToVec an empty
//    vector, changeTypeToMap an empty map, setIntVal an integer;
//  - clear() makes any value empty again.
// A map add on a non-empty value that is not a map (or a vector add on a
// non-vector) fails with kInvalidArgument and changes nothing.
#pragma once

#include <string>
#include <vector>

#include "KALDO/Export.h"
#include "KALDO/Result.h"

namespace KALDO {

class KALDO_API typeProperty {
public:
    enum class Kind { Empty, String, Integer, Map, Vector };

    typeProperty();
    typeProperty(const typeProperty& other);
    typeProperty(typeProperty&& other) noexcept;
    typeProperty& operator=(const typeProperty& other);
    typeProperty& operator=(typeProperty&& other) noexcept;

    // ---- Virtual members. Their order is the order of the class's virtual
    // table and is part of the binary interface with modules: do not reorder,
    // insert or remove. ----

    virtual ~typeProperty();

    // Makes the value empty (no kind, no contents).
    virtual void clear();

    // The value of a string-valued tree. kInvalidArgument when the value is
    // not a string; `value` is untouched then.
    virtual int getString(std::wstring& value) const;

    // Makes the value a string holding `value`.
    virtual void setString(const std::wstring& value);

    // The string stored under `key` of a map value. kNotFound when the key is
    // missing (or the value is not a map), kInvalidArgument when the value
    // under key is not a string.
    virtual int lookupString(const std::wstring& key, std::wstring& value) const;

    // Adds (a copy of) `value` under `key`; an existing key keeps its place
    // and gets the new value. Returns 0 or kInvalidArgument (see above).
    virtual int addSubTree(const std::wstring& key, const typeProperty& value);

    // Adds an integer under `key`, as addSubTree.
    virtual int addInteger(const std::wstring& key, int value);

    // Adds a string under `key`, as addSubTree.
    virtual int addString(const std::wstring& key, const std::wstring& value);

    // ---- Non-virtual members. ----

    Kind kind() const { return kind_; }
    bool isEmpty() const { return kind_ == Kind::Empty; }

    // Makes the value a string (same effect as setString).
    void setVal(const std::wstring& value);
    // Makes the value an integer.
    void setIntVal(int value);
    // Makes the value an empty vector / an empty map.
    void changeTypeToVec();
    void changeTypeToMap();

    // Appends a copy of an element to a vector value (an empty value becomes
    // a vector first). Returns 0 or kInvalidArgument.
    int addVecVal(const typeProperty& value);
    // The same, taking the element over instead of copying it (a large list
    // is built without a second copy of every element).
    int addVecVal(typeProperty&& value);
    int addVecVal(const std::wstring& value);

    // Map adds, as the virtual add operations.
    int addMapVal(const std::wstring& key, const std::wstring& value);
    int addMapVal(const std::wstring& key, int value);
    int addMapVal(const std::wstring& key, const typeProperty& value);

    // Map lookups: 0 on success; kNotFound when the key is missing or this is
    // not a map; kInvalidArgument when the value is of another kind (the
    // typeProperty form accepts every kind; the vector form needs a vector).
    int getMapVal(const std::wstring& key, typeProperty& value) const;
    int getMapVal(const std::wstring& key, std::wstring& value) const;
    int getMapVal(const std::wstring& key, int& value) const;
    int getMapVal(const std::wstring& key, std::vector<typeProperty>& values) const;

    // The value under key without copying it: nullptr when the key is missing
    // or this is not a map. Valid until the map is next changed.
    const typeProperty* findMapVal(const std::wstring& key) const;

    // The keys of a map value, in insertion order (replaces `keys`).
    // kInvalidArgument when this is not a map (an empty value gives no keys
    // and 0).
    int getMapKeys(std::vector<std::wstring>& keys) const;

    // Vector access: size, and the element at index as a string or as a tree.
    // kInvalidArgument when this is not a vector or the element is not a
    // string; kNotFound when index is out of range.
    int getVecSize(int& size) const;
    int getVecVal(int index, std::wstring& value) const;
    int getVecVal(int index, typeProperty& value) const;

    // The integer of an integer-valued tree; kInvalidArgument otherwise.
    int getIntVal(int& value) const;

    // Read-only views for hosts that walk a whole tree (nullptr unless the
    // value is of that kind). Valid until the value is next changed.
    const std::vector<std::pair<std::wstring, typeProperty>>* mapEntries() const;
    const std::vector<typeProperty>* vecEntries() const;

    // Deep equality: same kind, same contents, same map order.
    bool operator==(const typeProperty& other) const;
    bool operator!=(const typeProperty& other) const { return !(*this == other); }

private:
    struct MapData;
    struct VecData;
    void makeMapIfEmpty();
    // Adds value under a copy of key to a map (or an empty value).
    int putCopies(const std::wstring& key, typeProperty&& value);
    // The contents to change, no longer shared with any copy.
    MapData& ownMap();
    std::vector<typeProperty>& ownVec();
    const std::vector<typeProperty>& vec() const;

    Kind kind_ = Kind::Empty;
    int int_ = 0;
    std::wstring str_;
    VecData* vec_data_ = nullptr;  // shared with copies (counted); null: no elements
    MapData* map_data_ = nullptr;  // shared with copies (counted); set for every map
};

}  // namespace KALDO
