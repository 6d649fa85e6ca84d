#pragma once

#include <json/json.h>

#include <string>

namespace HostAgent {

// Parses `text` as one JSON document into `root`. With `strict`, comments, duplicate keys, a root
// that is not an object or array, and text after the document are refused as well. False, with
// `error` holding JsonCpp's account on one line ("Line 3, Column 5 Missing ',' or '}' ..."), when
// the text does not fit.
bool ParseJsonText(const std::string& text, bool strict, Json::Value& root, std::string& error);

}  // namespace HostAgent
