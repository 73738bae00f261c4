// What goes out as JSON (RFC 8259).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace android::qmmediaeditor::cli {

// Members stay in the order in which they are set.
using Json = nlohmann::ordered_json;

// Over several lines. Names of files are bytes on Linux: what is no UTF-8 in them is replaced.
inline std::string dumpJson(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace android::qmmediaeditor::cli
