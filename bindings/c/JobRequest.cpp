#include "bindings/c/JobRequest.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "bindings/c/ThreadState.h"

namespace android::qmmediaeditor::api {

namespace {

using cli::Failure;
using Json = nlohmann::json;

Failure refused(const std::string& subject, const std::string& reason,
                const std::string& code = "invalid-request") {
    return {cli::kExitUsage, subject, reason, code};
}

// Thrown within this file only.
struct Refusal {
    Failure failure;
};

// For a message.
std::string shown(const Json& value) {
    constexpr size_t kMaxBytes = 60;
    const std::string text = value.dump();
    return text.size() <= kMaxBytes ? text : text.substr(0, kMaxBytes) + "…";
}

// Whether objects and lists are nested deeper than in any request. The parser works by recursion,
// so that deep nesting would exhaust the stack.
bool isTooDeep(const std::string& json) {
    constexpr int kMaxDepth = 8;
    int depth = 0;
    bool isText = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (c == '"') {
            isText = !isText;
        } else if (isText) {
            if (c == '\\') ++i;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

bool isFlag(const std::string& option) {
    for (const cli::OptionText& each : cli::optionTexts()) {
        if (each.name == option) return each.value.empty();
    }
    return true;
}

std::string numberText(const Json& number) {
    if (number.is_number_integer()) return number.dump();
    std::string text = fmt::format("{:.6f}", number.get<double>());
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

// A string, or a number in the notation of the command.
std::string scalarText(const std::string& key, const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number()) return numberText(value);
    throw Refusal{
        refused(key, "expected text, a number, true, false or null; not " + shown(value))};
}

// One value for each time that the option is given.
std::vector<std::string> periodTexts(const std::string& key, const Json& periods) {
    std::vector<std::string> texts;
    for (const Json& period : periods) {
        if (period.is_string()) {
            texts.push_back(period.get<std::string>());
            continue;
        }
        const bool isPair = period.is_array() && period.size() == 2 && period[0].is_number() &&
                            (period[1].is_number() || period[1].is_null());
        if (!isPair) {
            throw Refusal{
                refused(key, "expected a list of periods, such as [[0, 2.5], [10, null]]; not " +
                                 shown(period))};
        }
        const std::string end = period[1].is_null() ? "" : numberText(period[1]);
        texts.push_back(numberText(period[0]) + '-' + end);
    }
    return texts;
}

std::string sizeText(const std::string& key, const Json& size) {
    const bool isPair =
        size.size() == 2 && size[0].is_number_integer() && size[1].is_number_integer();
    if (!isPair) {
        throw Refusal{
            refused(key, "expected [width, height], such as [1280, 720]; not " + shown(size))};
    }
    return size[0].dump() + 'x' + size[1].dump();
}

void addOption(const std::string& key, const Json& value, std::vector<std::string>* arguments) {
    const std::string option = "--" + key;
    if (value == true) {
        if (!isFlag(option) && key != "plan") throw Refusal{refused(key, "expected a value")};
        arguments->push_back(option);
    } else if ((key == "trim" || key == "cut") && value.is_array()) {
        for (const std::string& text : periodTexts(key, value)) {
            arguments->push_back(option + '=' + text);
        }
    } else if ((key == "fit" || key == "size") && value.is_array()) {
        arguments->push_back(option + '=' + sizeText(key, value));
    } else {
        arguments->push_back(option + '=' + scalarText(key, value));
    }
}

std::string takePath(const char* key, Json* request) {
    const auto found = request->find(key);
    if (found == request->end() || !found->is_string() || found->get<std::string>().empty()) {
        throw Refusal{refused(key, "expected the path of a file")};
    }
    std::string path = found->get<std::string>();
    request->erase(found);
    return path;
}

// A name that begins with a dash is no option.
std::string asArgument(const std::string& path) { return path[0] == '-' ? "./" + path : path; }

void refuseUnsupported(const Json& request, bool isolates) {
    for (const char* const key : {"progress", "log", "log-format", "help", "version"}) {
        if (request.contains(key)) {
            throw Refusal{refused(key, "not available here; leave it out")};
        }
    }
    // Nothing could stop the wait for a pipe.
    if (request.contains("list") && request["list"].is_string()) {
        const auto path = request["list"].get<std::string>();
        struct stat file {};
        if (stat(path.c_str(), &file) == 0 && !S_ISREG(file.st_mode)) {
            throw Refusal{refused(path, "not a regular file")};
        }
    }
    // These options need several processes, or the log of the process.
    for (const char* const key :
         {"contact-sheet", "jobs", "join", "plan", "poster", "split", "trace"}) {
        if (!isolates && request.contains(key)) {
            throw Refusal{refused(key, "works together with \"isolate\": true only")};
        }
    }
}

// false and null leave an option out.
void eraseOmitted(Json* request) {
    for (auto each = request->begin(); each != request->end();) {
        const bool isOmitted = each->is_null() || *each == false;
        each = isOmitted ? request->erase(each) : std::next(each);
    }
}

JobRequest parse(const std::string& text) {
    if (isTooDeep(text)) throw Refusal{refused("the request", "lists are nested too deeply")};
    Json request = Json::parse(text, nullptr, false);
    if (request.is_discarded()) throw Refusal{refused("the request", "this is not JSON in UTF-8")};
    if (!request.is_object()) {
        throw Refusal{refused("the request", "expected an object with \"input\" and \"output\"")};
    }
    if (text.find("\\u0000") != std::string::npos) {
        throw Refusal{refused("the request", "text must not contain the character U+0000")};
    }
    eraseOmitted(&request);
    JobRequest job;
    if (request.contains("isolate")) {
        if (!request["isolate"].is_boolean()) {
            throw Refusal{refused("isolate", "expected true or false")};
        }
        job.isolates = true;
        request.erase("isolate");
    }
    if (request.contains("program")) {
        job.program = takePath("program", &request);
        job.isolates = true;
    }
    // A receipt is an object in any case.
    request.erase("json");
    refuseUnsupported(request, job.isolates);
    const std::string input = takePath("input", &request);
    const bool isSplit = request.contains("split");
    const std::string output = isSplit ? "" : takePath("output", &request);
    for (const auto& [key, value] : request.items()) {
        // A key with "=" would bring a value of its own.
        if (key.empty() || key[0] == '-' || key.find_first_of("= ") != std::string::npos) {
            throw Refusal{refused(key, "unknown option; see qmtranscode --help", "unknown-option")};
        }
        addOption(key, value, &job.arguments);
    }
    job.arguments.push_back(asArgument(input));
    if (!isSplit) job.arguments.push_back(asArgument(output));
    return job;
}

}  // namespace

cli::Result<JobRequest> parseRequest(const std::string& json) {
    const CLocale locale;
    JobRequest job;
    try {
        job = parse(json);
    } catch (const Refusal& refusal) {
        return refusal.failure;
    }
    std::vector<const char*> words = {"qmtranscode", "--json"};
    for (const std::string& argument : job.arguments) words.push_back(argument.c_str());
    auto parsed = cli::parseOptions(static_cast<int>(words.size()), words.data());
    if (const auto* failure = std::get_if<Failure>(&parsed)) return *failure;
    auto* const options = std::get_if<cli::Options>(&parsed);
    if (options == nullptr) return refused("the request", "not a request for a job");
    job.options = std::move(*options);
    if (job.isolates) {
        auto request = nlohmann::ordered_json::parse(job.options.request);
        request["isolate"] = true;
        if (!job.program.empty()) request["program"] = job.program;
        job.options.request = request.dump();
    }
    return job;
}

}  // namespace android::qmmediaeditor::api
