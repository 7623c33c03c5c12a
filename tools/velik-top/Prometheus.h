// The figures of one or more snapshots in the Prometheus text exposition
// format, for a node exporter's textfile collector:
//
//   velik-top --prometheus > /var/lib/node_exporter/velik.prom.$$ &&
//       mv /var/lib/node_exporter/velik.prom.$$ /var/lib/node_exporter/velik.prom
//
// Every metric has its HELP and TYPE lines, once, before its samples. Task
// samples carry the labels thread, scheduler, task, address (empty for
// completed records), priority and state ("live" or "completed"); scheduler
// samples carry thread and scheduler, per-priority ones priority as well.
// Counters end in "_total"; times are in seconds.
#pragma once

#include "SnapshotModel.h"

#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

std::string prometheusText(const std::vector<ThreadSnapshot>& threads);

// A label value as the format wants it: backslash, double quote and line
// feed escaped as \\, \" and \n. Other control characters and bytes that
// are not UTF-8 become the viewer's printable "\x1b" text first (its
// backslash then escaped, "\\x1b"), so the exposition is valid UTF-8 and
// nothing in it can drive a terminal.
std::string escapeLabelValue(std::string_view value);

}  // namespace VelikTop
