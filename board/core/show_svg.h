// show_svg.h - the maps of a report as one drawing.
#pragma once

#include <string>

#include "board/core/report.h"

namespace qel::board {

// A whole SVG document; one that says so where the report has no map.
std::string draw_svg(const std::string &title, const Report &report);

}  // namespace qel::board
