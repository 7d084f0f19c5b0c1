// PlantState: a plant file read for a command: refused whole when anything is wrong with it.
#pragma once

#include <string>
#include <string_view>

#include "Plan.h"
#include "pvss/PlantFile.h"

namespace kelgw {

struct Context;

/// The plant of a text or file, with what the broker's side could not take among its errors: the names of
/// publications, subscribed to or sent, that no publication can have.
[[nodiscard]] pvss::PlantFile parsePlant(std::string_view text);
[[nodiscard]] pvss::PlantFile readPlant(const std::string& path);

/// Says every error of the file and nothing else. In JSON: {"file", "ok", "errors": [{"line", "what"}]}.
void showPlantErrors(const pvss::PlantFile& plant, const std::string& path, Context& context);

[[nodiscard]] WantedState wantedStateOf(const pvss::PlantFile& plant);

}  // namespace kelgw
