#include "Columns.h"

#include "TopError.h"

#include <algorithm>
#include <cctype>

namespace VelikTop {

const std::vector<ColumnInfo>& allColumns() {
    static const std::vector<ColumnInfo> columns{
        {Column::task, "task", "TASK", 4, true},
        {Column::status, "sp", "SP", 2, true},
        {Column::runs, "runs", "RUN/s", 7, false},
        {Column::share, "time", "TIME%", 6, false},
        {Column::maxLatency, "maxlat", "MAX-LAT", 8, false},
        {Column::qv200, "qv200", "QV200", 5, false},
        {Column::qv500, "qv500", "QV500", 5, false},
        {Column::latencyP50, "p50", "LAT-P50", 8, false},
        {Column::latencyP99, "p99", "LAT-P99", 8, false},
        {Column::work, "work", "WORK/s", 7, false},
        {Column::pending, "pend", "PEND", 6, false},
        {Column::lastLatency, "lastlat", "LAST-LAT", 8, false},
        {Column::maxRun, "maxrun", "MAX-RUN", 8, false},
        {Column::timerP99, "timer", "TMR-P99", 8, false},
        {Column::scheduler, "scheduler", "SCHEDULER", 9, true},
        {Column::thread, "thread", "THREAD", 6, true},
    };
    return columns;
}

const ColumnInfo& columnInfo(Column id) {
    return allColumns()[static_cast<std::size_t>(id)];
}

std::vector<Column> defaultColumns(bool severalThreads) {
    std::vector<Column> out;
    for (const ColumnInfo& c : allColumns()) {
        if (c.id != Column::thread || severalThreads) {
            out.push_back(c.id);
        }
    }
    return out;
}

std::vector<Column> parseColumns(std::string_view list) {
    std::vector<Column> out;
    while (true) {
        const auto comma = list.find(',');
        std::string key(list.substr(0, comma));
        std::transform(key.begin(), key.end(), key.begin(),
                       [](char c) { return static_cast<char>(std::tolower(c)); });
        const auto& all = allColumns();
        const auto it = std::find_if(all.begin(), all.end(),
                                     [&key](const ColumnInfo& c) { return key == c.key; });
        if (it == all.end()) {
            std::string known;
            for (const ColumnInfo& c : all) {
                known += (known.empty() ? "" : ",") + std::string(c.key);
            }
            throw TopError(exitUsage,
                           "unknown column \"" + key + "\" (the columns: " + known + ")");
        }
        if (std::find(out.begin(), out.end(), it->id) == out.end()) {
            out.push_back(it->id);
        }
        if (comma == std::string_view::npos) {
            break;
        }
        list.remove_prefix(comma + 1);
    }
    if (out.front() != Column::task) {
        out.erase(std::remove(out.begin(), out.end(), Column::task), out.end());
        out.insert(out.begin(), Column::task);
    }
    return out;
}

std::string columnKeys(const std::vector<Column>& columns) {
    std::string out;
    for (const Column c : columns) {
        out += (out.empty() ? "" : ",") + std::string(columnInfo(c).key);
    }
    return out;
}

}  // namespace VelikTop
