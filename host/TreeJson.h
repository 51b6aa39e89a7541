// Conversion between typeProperty trees and JSON, shared by implvm and the
// tests: integers as numbers, strings as strings, maps as objects in insertion
// order, vectors as arrays, a value that never got a kind as null.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "KALDO/typeProperty.h"

namespace implvm {

using Json = nlohmann::ordered_json;

Json TreeToJson(const KALDO::typeProperty& tree);

// JSON strings, integers, objects and arrays become the matching tree kinds,
// null an empty value. Booleans become the integers 0 and 1; a number that is
// not an integer in the int range throws std::invalid_argument. Recursive:
// give it JSON of bounded depth (ParseJson).
KALDO::typeProperty JsonToTree(const Json& json);

// Parses JSON text whose objects and arrays nest at most maxDepth levels (the
// outermost one is level 1). Deeper text throws std::invalid_argument as soon
// as the parser reaches the level beyond, so no deep value is ever built; bad
// JSON throws Json::parse_error. The parser itself keeps its nesting on the
// heap, never on the stack.
Json ParseJson(const std::string& text, int maxDepth);

}  // namespace implvm
