// What goes out as JSON (RFC 8259).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace android::qmmediaeditor::cli {

// Members stay in the order in which they are set.
using Json = nlohmann::ordered_json;

// Over several lines, in ASCII: a name of a file may hold characters that steer a terminal. Bytes
// that are not UTF-8 are replaced.
inline std::string dumpJson(const Json& json) {
    constexpr bool kOnlyAscii = true;
    return json.dump(2, ' ', kOnlyAscii, Json::error_handler_t::replace) + '\n';
}

}  // namespace android::qmmediaeditor::cli
