// PlantState: a plant file read for a command: refused whole when anything is wrong with it.
#pragma once

#include <string>

#include "Plan.h"
#include "pvss/PlantFile.h"

namespace kelgw {

struct Context;

/// Says every error of the file and nothing else. In JSON: {"file", "ok", "errors": [{"line", "what"}]}.
void showPlantErrors(const pvss::PlantFile& plant, const std::string& path, Context& context);

[[nodiscard]] WantedState wantedStateOf(const pvss::PlantFile& plant);

}  // namespace kelgw
