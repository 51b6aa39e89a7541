#include "KALDO/typeProperty.h"

#include <functional>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace KALDO {

// Map entries stay in insertion order in a vector (that is what hosts walk);
// maps that grow beyond a few keys also get a hash index of entry positions,
// so lookups stay constant-time in large maps (a long "VMs" inventory, a big
// property list) while small maps pay nothing for it.
struct typeProperty::MapData {
    using Entry = std::pair<std::wstring, typeProperty>;
    static constexpr size_t kIndexThreshold = 12;

    // Hash and equality over entry positions, transparent so that a key can be
    // looked up without building an entry. They read the keys through the
    // owning MapData, whose address never changes (it lives on the heap).
    struct Hash {
        using is_transparent = void;
        const MapData* owner;
        size_t operator()(size_t at) const { return (*this)(owner->entries[at].first); }
        size_t operator()(std::wstring_view key) const {
            return std::hash<std::wstring_view>{}(key);
        }
    };
    struct Equal {
        using is_transparent = void;
        const MapData* owner;
        std::wstring_view key(size_t at) const { return owner->entries[at].first; }
        bool operator()(size_t a, size_t b) const { return key(a) == key(b); }
        bool operator()(std::wstring_view a, size_t b) const { return a == key(b); }
        bool operator()(size_t a, std::wstring_view b) const { return key(a) == b; }
    };
    using Index = std::unordered_set<size_t, Hash, Equal>;

    std::vector<Entry> entries;
    Index index{0, Hash{this}, Equal{this}};

    MapData() = default;
    MapData(const MapData& other) : entries(other.entries) { rebuildIndex(); }
    MapData& operator=(const MapData&) = delete;

    void rebuildIndex() {
        index.clear();
        if (entries.size() < kIndexThreshold) return;
        index.reserve(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) index.insert(i);
    }

    const typeProperty* find(std::wstring_view key) const {
        if (entries.size() < kIndexThreshold) {
            for (const Entry& e : entries)
                if (e.first == key) return &e.second;
            return nullptr;
        }
        const auto it = index.find(key);
        return it == index.end() ? nullptr : &entries[*it].second;
    }

    void put(const std::wstring& key, typeProperty&& value) {
        if (typeProperty* existing = const_cast<typeProperty*>(find(key))) {
            *existing = std::move(value);
            return;
        }
        entries.emplace_back(key, std::move(value));
        if (entries.size() == kIndexThreshold)
            rebuildIndex();
        else if (entries.size() > kIndexThreshold)
            index.insert(entries.size() - 1);
    }
};

typeProperty::typeProperty() = default;

typeProperty::typeProperty(const typeProperty& other)
    : kind_(other.kind_),
      int_(other.int_),
      str_(other.str_),
      vec_(other.vec_),
      map_data_(other.map_data_ ? new MapData(*other.map_data_) : nullptr) {}

typeProperty::typeProperty(typeProperty&& other) noexcept
    : kind_(other.kind_),
      int_(other.int_),
      str_(std::move(other.str_)),
      vec_(std::move(other.vec_)),
      map_data_(std::exchange(other.map_data_, nullptr)) {
    other.kind_ = Kind::Empty;
    other.int_ = 0;
}

typeProperty& typeProperty::operator=(const typeProperty& other) {
    if (this != &other) {
        typeProperty copy(other);
        *this = std::move(copy);
    }
    return *this;
}

typeProperty& typeProperty::operator=(typeProperty&& other) noexcept {
    if (this != &other) {
        delete map_data_;
        kind_ = std::exchange(other.kind_, Kind::Empty);
        int_ = std::exchange(other.int_, 0);
        str_ = std::move(other.str_);
        vec_ = std::move(other.vec_);
        map_data_ = std::exchange(other.map_data_, nullptr);
        other.str_.clear();
        other.vec_.clear();
    }
    return *this;
}

typeProperty::~typeProperty() {
    delete map_data_;
}

void typeProperty::clear() {
    kind_ = Kind::Empty;
    int_ = 0;
    str_.clear();
    str_.shrink_to_fit();
    vec_.clear();
    vec_.shrink_to_fit();
    delete map_data_;
    map_data_ = nullptr;
}

int typeProperty::getString(std::wstring& value) const {
    if (kind_ != Kind::String) return kInvalidArgument;
    value = str_;
    return kOk;
}

void typeProperty::setString(const std::wstring& value) {
    std::wstring copy(value);  // value may live inside this tree
    clear();
    kind_ = Kind::String;
    str_ = std::move(copy);
}

int typeProperty::lookupString(const std::wstring& key, std::wstring& value) const {
    const MapData* map = map_();
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    return found->getString(value);
}

int typeProperty::addSubTree(const std::wstring& key, const typeProperty& value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Map) return kInvalidArgument;
    // Copy first: value may be this tree or a part of it.
    typeProperty copy(value);
    std::wstring keyCopy(key);
    makeMapIfEmpty();
    map_data_->put(keyCopy, std::move(copy));
    return kOk;
}

int typeProperty::addInteger(const std::wstring& key, int value) {
    typeProperty item;
    item.setIntVal(value);
    return addSubTree(key, item);
}

int typeProperty::addString(const std::wstring& key, const std::wstring& value) {
    typeProperty item;
    item.setString(value);
    return addSubTree(key, item);
}

void typeProperty::setVal(const std::wstring& value) {
    setString(value);
}

void typeProperty::setIntVal(int value) {
    clear();
    kind_ = Kind::Integer;
    int_ = value;
}

void typeProperty::changeTypeToVec() {
    clear();
    kind_ = Kind::Vector;
}

void typeProperty::changeTypeToMap() {
    clear();
    kind_ = Kind::Map;
    map_data_ = new MapData();
}

int typeProperty::addVecVal(const typeProperty& value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Vector) return kInvalidArgument;
    typeProperty copy(value);  // value may be an element of vec_
    kind_ = Kind::Vector;
    vec_.push_back(std::move(copy));
    return kOk;
}

int typeProperty::addVecVal(const std::wstring& value) {
    typeProperty item;
    item.setString(value);
    return addVecVal(item);
}

int typeProperty::addMapVal(const std::wstring& key, const std::wstring& value) {
    return addString(key, value);
}

int typeProperty::addMapVal(const std::wstring& key, int value) {
    return addInteger(key, value);
}

int typeProperty::addMapVal(const std::wstring& key, const typeProperty& value) {
    return addSubTree(key, value);
}

int typeProperty::getMapVal(const std::wstring& key, typeProperty& value) const {
    const MapData* map = map_();
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    if (found != &value) value = *found;
    return kOk;
}

int typeProperty::getMapVal(const std::wstring& key, std::wstring& value) const {
    return lookupString(key, value);
}

int typeProperty::getMapVal(const std::wstring& key, int& value) const {
    const MapData* map = map_();
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    return found->getIntVal(value);
}

int typeProperty::getMapVal(const std::wstring& key, std::vector<typeProperty>& values) const {
    const MapData* map = map_();
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    if (found->kind_ != Kind::Vector) return kInvalidArgument;
    std::vector<typeProperty> copy(found->vec_);
    values.swap(copy);
    return kOk;
}

const typeProperty* typeProperty::findMapVal(const std::wstring& key) const {
    const MapData* map = map_();
    return map ? map->find(key) : nullptr;
}

int typeProperty::getMapKeys(std::vector<std::wstring>& keys) const {
    if (kind_ == Kind::Empty) {
        keys.clear();
        return kOk;
    }
    if (kind_ != Kind::Map) return kInvalidArgument;
    std::vector<std::wstring> result;
    result.reserve(map_data_->entries.size());
    for (const auto& entry : map_data_->entries) result.push_back(entry.first);
    keys.swap(result);
    return kOk;
}

int typeProperty::getVecSize(int& size) const {
    if (kind_ != Kind::Vector) return kInvalidArgument;
    size = static_cast<int>(vec_.size());
    return kOk;
}

int typeProperty::getVecVal(int index, std::wstring& value) const {
    if (kind_ != Kind::Vector) return kInvalidArgument;
    if (index < 0 || static_cast<size_t>(index) >= vec_.size()) return kNotFound;
    return vec_[static_cast<size_t>(index)].getString(value);
}

int typeProperty::getVecVal(int index, typeProperty& value) const {
    if (kind_ != Kind::Vector) return kInvalidArgument;
    if (index < 0 || static_cast<size_t>(index) >= vec_.size()) return kNotFound;
    const typeProperty& element = vec_[static_cast<size_t>(index)];
    if (&element != &value) value = element;
    return kOk;
}

int typeProperty::getIntVal(int& value) const {
    if (kind_ != Kind::Integer) return kInvalidArgument;
    value = int_;
    return kOk;
}

const std::vector<std::pair<std::wstring, typeProperty>>* typeProperty::mapEntries() const {
    return kind_ == Kind::Map ? &map_data_->entries : nullptr;
}

const std::vector<typeProperty>* typeProperty::vecEntries() const {
    return kind_ == Kind::Vector ? &vec_ : nullptr;
}

bool typeProperty::operator==(const typeProperty& other) const {
    if (kind_ != other.kind_) return false;
    switch (kind_) {
        case Kind::Empty:
            return true;
        case Kind::String:
            return str_ == other.str_;
        case Kind::Integer:
            return int_ == other.int_;
        case Kind::Vector:
            return vec_ == other.vec_;
        case Kind::Map:
            return map_data_->entries == other.map_data_->entries;
    }
    return false;
}

void typeProperty::makeMapIfEmpty() {
    if (kind_ == Kind::Empty) changeTypeToMap();
}

typeProperty::MapData* typeProperty::map_() {
    return kind_ == Kind::Map ? map_data_ : nullptr;
}

const typeProperty::MapData* typeProperty::map_() const {
    return kind_ == Kind::Map ? map_data_ : nullptr;
}

}  // namespace KALDO
