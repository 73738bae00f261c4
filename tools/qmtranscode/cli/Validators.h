// Checks of the values on the command line. A validator changes the text to what CLI11 converts to
// the option's type, or returns the reason to refuse it: the value, and what would work.
#pragma once

#include <fmt/format.h>
#include <qmtranscode/cli/OutputCodecs.h>
#include <stdint.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace android::qmmediaeditor::cli {

template <typename T>
std::vector<std::string> wordsOf(const Choices<T>& choices) {
    std::vector<std::string> words;
    for (const auto& [word, value] : choices) words.push_back(word);
    return words;
}

// "a, b or c".
std::string listText(const std::vector<std::string>& words);

// The error of a validator. CLI11 puts the option's name and a colon in front of it; the space
// tells who reads it that the refused value comes first.
std::string refusal(const std::string& value, const std::string& reason);

CLI::Validator check(std::function<std::string(std::string&)> validate);
CLI::Validator oneOf(const std::vector<std::string>& words);

// Replaces the word by its number, which CLI11 converts to the option's type.
template <typename T>
CLI::Validator oneOf(const Choices<T>& choices) {
    return check([choices](std::string& text) {
        for (const auto& [word, value] : choices) {
            if (text != word) continue;
            text = std::to_string(static_cast<int32_t>(value));
            return std::string();
        }
        return refusal(text, "expected " + listText(wordsOf(choices)));
    });
}

CLI::Validator integer(int32_t min, int32_t max);
CLI::Validator bitrate();
CLI::Validator bytes();
CLI::Validator boxSize();
// For values that boxSize() has accepted.
CLI::Validator frameSize();
// A number with the unit that may follow it.
CLI::Validator level(const char* unit, double min, double max);
CLI::Validator period();
CLI::Validator section();
CLI::Validator namePattern();
CLI::Validator logFilter();
CLI::Validator notEmpty();

}  // namespace android::qmmediaeditor::cli
