// The figures of one or more snapshots in the Prometheus text exposition
// format, for a node exporter's textfile collector:
//
//   velik-top --prometheus > /var/lib/node_exporter/velik.prom.$$ &&
//       mv /var/lib/node_exporter/velik.prom.$$ /var/lib/node_exporter/velik.prom
//
// The text is the library's own exposition (Velik/PrometheusExposition.h),
// the one a daemon serves on `/metrics`: the rows read from the JSON are
// handed to the library's renderer, which velik-top builds in. The `thread`
// label is the name the viewer gives the socket ("main" for main.sock).
#pragma once

#include "SnapshotModel.h"

#include <Velik/PrometheusExposition.h>

#include <string>
#include <vector>

namespace VelikTop {

// The model of one thread's snapshot as the exposition's figures.
Velik::MetricsThreadFigures metricsFigures(const ThreadSnapshot& thread);

std::string prometheusText(const std::vector<ThreadSnapshot>& threads);

}  // namespace VelikTop
