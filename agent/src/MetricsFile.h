#pragma once

#include "framework/Task.h"

#include <string>
#include <vector>

namespace HostAgent {

// `metrics` in Prometheus' text exposition format: each name's HELP and TYPE lines once, before its
// first sample, names in the order they first come; label values escaped.
std::string PrometheusText(const std::vector<Framework::TaskMetric>& metrics);

// 'name="value"' with the value escaped for a Prometheus label.
std::string Label(const std::string& name, const std::string& value);

// Writes `text` to `path` through a temporary file and rename(), readable by everyone (a node
// exporter reads it). False, with `error`, when it fails.
bool WriteMetricsFile(const std::string& path, const std::string& text, std::string& error);

}  // namespace HostAgent
