// The status document (status::status_json) as Prometheus text exposition
// (format 0.0.4): counters of what this server took in and sent out since it
// started, and gauges of the ring as a whole: clients, fill, per-source
// latency and packets held, per-reader lag. Label values are escaped as the
// format asks (backslash, double quote, newline); the document's text is
// valid UTF-8 already.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

std::string metrics_text(const nlohmann::json& doc);
