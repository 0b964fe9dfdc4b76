// How the client shows the daemon's reply to "status" to a monitoring
// system: metric families for Prometheus, read from the same object as
// `ctl status --json`.
#pragma once

#include "ctl/exposition.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

/// The beginning of every metric family's name.
constexpr const char* kMetricsPrefix = "q9_korvane_xml_events_";

/// The figures of `status` (status_object() of a reply) as metric
/// families: daemon_running 1, counters for what was counted since start,
/// gauges for what is now, the version and the settings in force as info
/// metrics.  Each status pair "refusals.REASON" becomes a sample of
/// refusals_total with the label reason="REASON".  A field the reply lacks
/// gives no sample, and a family without samples is left out.  The age of
/// the last load is counted up to `now_unix` (seconds of the Unix epoch).
std::string format_metrics(const nlohmann::ordered_json& status, uint64_t now_unix,
                           ExpositionFormat format);
/// What is said when no status could be had: daemon_running 0 alone.
std::string format_metrics_without_daemon(ExpositionFormat format);
