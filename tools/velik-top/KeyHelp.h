// The keys of the live view with what each does: the `?` pane and the
// manual list them from here.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace VelikTop {

// (keys, what they do), in the order the help shows them. A replay
// (--replay) takes Space and , . < > for its own, so its list starts with
// those and leaves out folding by Space.
std::vector<std::pair<std::string, std::string>> keyHelp(bool replay = false);

}  // namespace VelikTop
