// The keys of the live view with what each does: the `?` pane and the
// manual list them from here.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace VelikTop {

// (keys, what they do), in the order the help shows them.
const std::vector<std::pair<std::string, std::string>>& keyHelp();

}  // namespace VelikTop
