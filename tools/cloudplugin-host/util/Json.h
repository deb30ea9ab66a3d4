// The tool's machine-readable output (--json): nlohmann's JSON, with the
// members of an object kept in the order they were added, so the output
// reads the same way every time.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace qvhost {

using Json = nlohmann::ordered_json;

// Compact text, UTF-8 passed through, control characters escaped. Bytes that
// are not UTF-8 (a POSIX file name may hold any) become U+FFFD rather than
// making the document invalid.
inline std::string JsonText(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace qvhost
