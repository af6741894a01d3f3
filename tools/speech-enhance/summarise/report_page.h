// The report as a page.
#pragma once

#include <string>

#include "summarise/summary.h"

namespace se_tool {

// One HTML file that needs nothing beside it: figures, failures, the strangest recordings,
// distributions, and players with spectrograms for the sample and the strangest of each figure.
// Whatever the names in the results hold is shown as text. `excerpt_s` is the length of what
// players play at most; recordings that are not where the results say are named as such.
std::string report_page(const Summary& summary, const std::string& title, double excerpt_s);

}  // namespace se_tool
