#include <qmtranscode/cli/Values.h>
#include <qmtranscode/report/Format.h>
#include <qmtranscode/report/PartObjects.h>

namespace android::qmmediaeditor::cli {

size_t knownParts(const Options& options) {
    if (options.cuts.empty()) return options.periods.size();
    size_t count = 0;
    int64_t fromUs = 0;
    for (const TrimPeriod& cut : options.cuts) {
        if (cut.mStartUs > fromUs) ++count;
        fromUs = cut.mEndUs;
    }
    return fromUs < kEndOfInputUs ? count + 1 : count;
}

std::string combineObjects(const Options& options, const std::vector<std::string>& objects) {
    Json parts = Json::array();
    for (const std::string& object : objects) {
        parts.push_back(Json::parse(object, nullptr, false));
    }
    const Json last = parts.back();
    Json whole = Json::object();
    for (const char* member : {"status", "exit", "error", "warnings", "version", "request"}) {
        whole[member] = last.is_object() && last.contains(member) ? last[member] : Json(nullptr);
    }
    whole["warnings"] = Json::array();
    whole["input"] = options.input;
    whole["output"] = *options.split;
    for (Json& part : parts) {
        if (!part.is_object()) continue;
        for (const Json& warning : part["warnings"]) whole["warnings"].push_back(warning);
        for (const char* member : {"version", "request", "warnings"}) part.erase(member);
    }
    whole["parts"] = parts;
    return dumpJson(whole);
}

}  // namespace android::qmmediaeditor::cli
