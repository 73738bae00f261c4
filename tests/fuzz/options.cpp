// The command line's words, a line each: they are taken, or refused with a usage error.
#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <variant>
#include <vector>

using namespace android::qmmediaeditor;

namespace {

bool inOrder(const std::vector<TrimPeriod>& periods) {
    int64_t endUs = 0;
    for (const TrimPeriod& period : periods) {
        if (period.mStartUs < endUs || period.mEndUs <= period.mStartUs) return false;
        endUs = period.mEndUs;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> words = {"qmtranscode", ""};
    for (size_t i = 0; i < size && words.size() < 64; ++i) {
        if (data[i] == '\n') {
            words.emplace_back();
        } else if (data[i] != 0) {
            words.back() += static_cast<char>(data[i]);
        }
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words) arguments.push_back(word.c_str());
    arguments.push_back(nullptr);

    const auto result = cli::parseOptions(static_cast<int>(words.size()), arguments.data());
    if (const auto* failure = std::get_if<cli::Failure>(&result)) {
        if (failure->status != cli::kExitUsage || failure->reason.empty()) abort();
    }
    const auto* options = std::get_if<cli::Options>(&result);
    if (options == nullptr) return 0;
    if (options->input.empty() || options->output.empty() || !inOrder(options->periods)) abort();
    return 0;
}
