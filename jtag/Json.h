// The JSON documents the chain tools and the library print, built with
// nlohmann-json in the order their keys are documented. Text taken from
// files (names, paths) may hold bytes that are not UTF-8: they are written
// as U+FFFD, so every document is valid JSON.
#pragma once
#include <nlohmann/json.hpp>
#include <string>

namespace jtag {

using Json = nlohmann::ordered_json;

// One line of JSON text.
std::string jsonText(const Json& value);

}  // namespace jtag
