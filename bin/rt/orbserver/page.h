// The status document (status::status_json) as a plain HTML page: the ring,
// its sources with their latency and its clients with their lag, in tables
// that need no script or style sheet to read, reloading itself every
// `refresh` seconds. All text from the document is escaped for HTML.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

std::string status_page(const nlohmann::json& doc, int refresh = 5);
