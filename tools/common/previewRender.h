// A restore preview for people (one line per file and a summary) and for
// scripts (JSON with the same content).
#pragma once

#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "restorePreview.h"

namespace preview {

// `what` names the backup file and the tree, for the heading.
void renderText(std::ostream& out, const std::string& what, const Preview& p);
nlohmann::ordered_json toJson(const std::string& file, const Preview& p);

}  // namespace preview
