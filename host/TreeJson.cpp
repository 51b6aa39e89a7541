#include "TreeJson.h"

#include <limits>
#include <stdexcept>

#include "KALDO/CStringUtils.h"

namespace implvm {

using KALDO::CStringUtils;
using KALDO::typeProperty;

Json TreeToJson(const typeProperty& tree) {
    switch (tree.kind()) {
        case typeProperty::Kind::Empty:
            return nullptr;
        case typeProperty::Kind::String: {
            std::wstring s;
            tree.getString(s);
            return CStringUtils::WStringToString(s);
        }
        case typeProperty::Kind::Integer: {
            int v = 0;
            tree.getIntVal(v);
            return v;
        }
        case typeProperty::Kind::Map: {
            Json object = Json::object();
            for (const auto& [key, value] : *tree.mapEntries())
                object[CStringUtils::WStringToString(key)] = TreeToJson(value);
            return object;
        }
        case typeProperty::Kind::Vector: {
            Json array = Json::array();
            for (const typeProperty& value : *tree.vecEntries()) array.push_back(TreeToJson(value));
            return array;
        }
    }
    return nullptr;
}

typeProperty JsonToTree(const Json& json) {
    typeProperty tree;
    if (json.is_string()) {
        tree.setVal(CStringUtils::StringToWString(json.get<std::string>()));
    } else if (json.is_boolean()) {
        tree.setIntVal(json.get<bool>() ? 1 : 0);
    } else if (json.is_number_integer()) {
        const auto v = json.get<long long>();
        if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max())
            throw std::invalid_argument("integer out of range: " + json.dump());
        tree.setIntVal(static_cast<int>(v));
    } else if (json.is_number()) {
        throw std::invalid_argument("not an integer: " + json.dump());
    } else if (json.is_object()) {
        tree.changeTypeToMap();
        for (const auto& [key, value] : json.items())
            tree.addMapVal(CStringUtils::StringToWString(key), JsonToTree(value));
    } else if (json.is_array()) {
        tree.changeTypeToVec();
        for (const auto& value : json) tree.addVecVal(JsonToTree(value));
    }
    return tree;
}

Json ParseJson(const std::string& text, int maxDepth) {
    const auto limit = [maxDepth](int depth, Json::parse_event_t event, Json&) {
        const bool opens =
            event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        if (opens && depth >= maxDepth)
            throw std::invalid_argument("objects and arrays nested deeper than " +
                                        std::to_string(maxDepth) + " levels");
        return true;
    };
    return Json::parse(text, limit);
}

}  // namespace implvm
