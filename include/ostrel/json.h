// The JSON type of the kit: nlohmann's, with members kept in insertion order so that
// written objects list their members in the documented order.
#pragma once

#include <nlohmann/json.hpp>

namespace ostrel {

using Json = nlohmann::ordered_json;

}  // namespace ostrel
