#include "KeyHelp.h"

namespace VelikTop {

std::vector<std::pair<std::string, std::string>> keyHelp(bool replay) {
    std::vector<std::pair<std::string, std::string>> keys;
    if (replay) {
        keys = {
            {"Space", "pause or play the recording (at its end: from the start)"},
            {", . < >", "one frame or ten back or on (pauses)"},
        };
    }
    keys.insert(keys.end(),
                {
                    {"t l v n", "sort by time share, worst latency, quantum violations, name"},
                    {"r", "invert the sort order"},
                    {"/", "a new filter by task name (any case; Enter keeps, Esc undoes)"},
                    {"Ctrl-U", "clear the filter (also while typing it)"},
                    {"Enter", "the task under the cursor in detail (Esc or Enter goes back)"},
                });
    if (!replay) {
        keys.emplace_back("Space", "fold or unfold the group under the cursor");
    }
    keys.insert(keys.end(), {
                                {"f", "fold or unfold all groups"},
                                {"T", "tree or flat view"},
                                {"m", "merge tasks of one name: crowds (5 or more), all, off"},
                                {"i", "hide or show idle tasks (no run in the last interval)"},
                                {"e", "show or hide the stats endpoint's own tasks"},
                                {"o", "choose the columns (a list such as task,sp,runs,time)"},
                                {"left right", "scroll the figures sideways; the task stays"},
                                {"up down k j", "move the cursor; PgUp PgDn Home End as usual"},
                                {"c", "show or hide completed records"},
                                {"h", "show or hide the pane of recent events"},
                                {"w", "the hints: what stands out, and why (w again: the table)"},
                                {"s", "the stalls pane, or the table again"},
                                {"+ -", "longer or shorter interval"},
                                {"?", "this help (any key goes back)"},
                                {"q", "quit"},
                            });
    return keys;
}

}  // namespace VelikTop
