// Conversion between typeProperty trees and JSON, shared by implvm and the
// tests: integers as numbers, strings as strings, maps as objects in insertion
// order, vectors as arrays, a value that never got a kind as null.
#pragma once

#include <nlohmann/json.hpp>

#include "KALDO/typeProperty.h"

namespace implvm {

using Json = nlohmann::ordered_json;

Json TreeToJson(const KALDO::typeProperty& tree);

// JSON strings, integers, objects and arrays become the matching tree kinds,
// null an empty value. Booleans become the integers 0 and 1; a number that is
// not an integer in the int range throws std::invalid_argument.
KALDO::typeProperty JsonToTree(const Json& json);

}  // namespace implvm
