#include "KALDO/typeProperty.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace KALDO {

namespace {

// Contents shared by copies of a value, counted. A value about to change
// contents that another value still shares makes its own copy first; the
// count is read with acquire so that the other value's last reads happen
// before this value's writes.
struct Counted {
    std::atomic<long> refs{1};
};

template <typename T>
T* Share(T* data) {
    if (data != nullptr) data->refs.fetch_add(1, std::memory_order_relaxed);
    return data;
}

template <typename T>
void Release(T*& data) {
    if (data != nullptr && data->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete data;
    data = nullptr;
}

template <typename T>
T& Own(T*& data) {
    if (data->refs.load(std::memory_order_acquire) != 1) {
        T* copy = new T(*data);
        Release(data);
        data = copy;
    }
    return *data;
}

}  // namespace

struct typeProperty::VecData : Counted {
    std::vector<typeProperty> items;
    VecData() = default;
    VecData(const VecData& other) : Counted(), items(other.items) {}
    VecData& operator=(const VecData&) = delete;
};

// Map entries stay in insertion order in a vector (that is what hosts walk);
// maps that grow beyond a few keys also get a hash index of entry positions,
// so lookups stay constant-time in large maps (a long "VMs" inventory, a big
// property list) while small maps pay nothing for it.
struct typeProperty::MapData : Counted {
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
    std::unique_ptr<Index> index;  // made when the map reaches kIndexThreshold keys

    MapData() = default;
    MapData(const MapData& other) : Counted(), entries(other.entries) { rebuildIndex(); }
    MapData& operator=(const MapData&) = delete;

    void rebuildIndex() {
        index.reset();
        if (entries.size() < kIndexThreshold) return;
        index = std::make_unique<Index>(entries.size(), Hash{this}, Equal{this});
        for (size_t i = 0; i < entries.size(); ++i) index->insert(i);
    }

    const typeProperty* find(std::wstring_view key) const {
        if (entries.size() < kIndexThreshold) {
            for (const Entry& e : entries)
                if (e.first == key) return &e.second;
            return nullptr;
        }
        const auto it = index->find(key);
        return it == index->end() ? nullptr : &entries[*it].second;
    }

    // Takes both over: an add copies its key and value once, before the map
    // changes (either may live inside this very tree).
    void put(std::wstring&& key, typeProperty&& value) {
        if (typeProperty* existing = const_cast<typeProperty*>(find(key))) {
            *existing = std::move(value);
            return;
        }
        // Most maps are small records (an adapter, a VM's OS): room for a
        // few keys at once spares them the growth steps 1, 2, 4.
        if (entries.empty()) entries.reserve(4);
        entries.emplace_back(std::move(key), std::move(value));
        if (entries.size() == kIndexThreshold)
            rebuildIndex();
        else if (entries.size() > kIndexThreshold)
            index->insert(entries.size() - 1);
    }
};

typeProperty::typeProperty() = default;

typeProperty::typeProperty(const typeProperty& other)
    : kind_(other.kind_),
      int_(other.int_),
      str_(other.str_),
      vec_data_(Share(other.vec_data_)),
      map_data_(Share(other.map_data_)) {}

typeProperty::typeProperty(typeProperty&& other) noexcept
    : kind_(other.kind_),
      int_(other.int_),
      str_(std::move(other.str_)),
      vec_data_(std::exchange(other.vec_data_, nullptr)),
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
        Release(vec_data_);
        Release(map_data_);
        kind_ = std::exchange(other.kind_, Kind::Empty);
        int_ = std::exchange(other.int_, 0);
        str_ = std::move(other.str_);
        vec_data_ = std::exchange(other.vec_data_, nullptr);
        map_data_ = std::exchange(other.map_data_, nullptr);
        other.str_.clear();
    }
    return *this;
}

typeProperty::~typeProperty() {
    Release(vec_data_);
    Release(map_data_);
}

void typeProperty::clear() {
    kind_ = Kind::Empty;
    int_ = 0;
    str_.clear();
    str_.shrink_to_fit();
    Release(vec_data_);
    Release(map_data_);
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
    const MapData* map = kind_ == Kind::Map ? map_data_ : nullptr;
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    return found->getString(value);
}

int typeProperty::addSubTree(const std::wstring& key, const typeProperty& value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Map) return kInvalidArgument;
    // Copy first: value may be this tree or a part of it.
    return putCopies(key, typeProperty(value));
}

int typeProperty::addInteger(const std::wstring& key, int value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Map) return kInvalidArgument;
    typeProperty item;
    item.setIntVal(value);
    return putCopies(key, std::move(item));
}

int typeProperty::addString(const std::wstring& key, const std::wstring& value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Map) return kInvalidArgument;
    typeProperty item;
    item.kind_ = Kind::String;
    item.str_ = value;  // a copy, made before this tree changes
    return putCopies(key, std::move(item));
}

int typeProperty::putCopies(const std::wstring& key, typeProperty&& value) {
    std::wstring keyCopy(key);  // key may be one of this map's own
    makeMapIfEmpty();
    ownMap().put(std::move(keyCopy), std::move(value));
    return kOk;
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
    typeProperty copy(value);  // value may be an element of this vector
    kind_ = Kind::Vector;
    ownVec().push_back(std::move(copy));
    return kOk;
}

int typeProperty::addVecVal(typeProperty&& value) {
    if (kind_ != Kind::Empty && kind_ != Kind::Vector) return kInvalidArgument;
    if (&value == this) return addVecVal(static_cast<const typeProperty&>(value));
    typeProperty taken(std::move(value));  // value may be an element of this vector
    kind_ = Kind::Vector;
    ownVec().push_back(std::move(taken));
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
    const MapData* map = kind_ == Kind::Map ? map_data_ : nullptr;
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    if (found != &value) value = *found;
    return kOk;
}

int typeProperty::getMapVal(const std::wstring& key, std::wstring& value) const {
    return lookupString(key, value);
}

int typeProperty::getMapVal(const std::wstring& key, int& value) const {
    const MapData* map = kind_ == Kind::Map ? map_data_ : nullptr;
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    return found->getIntVal(value);
}

int typeProperty::getMapVal(const std::wstring& key, std::vector<typeProperty>& values) const {
    const MapData* map = kind_ == Kind::Map ? map_data_ : nullptr;
    const typeProperty* found = map ? map->find(key) : nullptr;
    if (!found) return kNotFound;
    if (found->kind_ != Kind::Vector) return kInvalidArgument;
    std::vector<typeProperty> copy(found->vec());
    values.swap(copy);
    return kOk;
}

const typeProperty* typeProperty::findMapVal(const std::wstring& key) const {
    const MapData* map = kind_ == Kind::Map ? map_data_ : nullptr;
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
    size = static_cast<int>(vec().size());
    return kOk;
}

int typeProperty::getVecVal(int index, std::wstring& value) const {
    if (kind_ != Kind::Vector) return kInvalidArgument;
    if (index < 0 || static_cast<size_t>(index) >= vec().size()) return kNotFound;
    return vec()[static_cast<size_t>(index)].getString(value);
}

int typeProperty::getVecVal(int index, typeProperty& value) const {
    if (kind_ != Kind::Vector) return kInvalidArgument;
    if (index < 0 || static_cast<size_t>(index) >= vec().size()) return kNotFound;
    const typeProperty& element = vec()[static_cast<size_t>(index)];
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
    return kind_ == Kind::Vector ? &vec() : nullptr;
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
            return vec_data_ == other.vec_data_ || vec() == other.vec();
        case Kind::Map:
            return map_data_ == other.map_data_ || map_data_->entries == other.map_data_->entries;
    }
    return false;
}

void typeProperty::makeMapIfEmpty() {
    if (kind_ == Kind::Empty) changeTypeToMap();
}

typeProperty::MapData& typeProperty::ownMap() {
    return Own(map_data_);
}

std::vector<typeProperty>& typeProperty::ownVec() {
    if (vec_data_ == nullptr) vec_data_ = new VecData();
    return Own(vec_data_).items;
}

const std::vector<typeProperty>& typeProperty::vec() const {
    static const std::vector<typeProperty> kNone;
    return vec_data_ != nullptr ? vec_data_->items : kNone;
}

}  // namespace KALDO
