// The binary form of JSON values (JSON::toBinary) read as events: for a reader that keeps a few
// members of a record and must not pay for building the whole of it. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "marl/Json.h"

namespace MarlLogger::json {

// Decodes the binary form without building values: `events` receives each item in order, as
// JSON::parseEvents delivers text, and the bytes pass and fail exactly as with JSON::parseBinary,
// in the same words. A key or string view points into `bytes` and lasts as long as they do, so
// that a reader copies only what it keeps. A handler that returns false stops the walk, which
// then fails ("stopped by the handler"). Tokens already delivered stand.
bool parseBinaryEvents(std::string_view bytes, JSONEvents& events, std::string* error = nullptr);

}  // namespace MarlLogger::json
