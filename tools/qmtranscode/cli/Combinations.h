// Checks of the options against each other. Each of them is valid by itself.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <stddef.h>

#include <CLI/CLI.hpp>
#include <map>
#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

class Combinations {
public:
    using ByName = std::map<std::string, const CLI::Option*>;

    // Both must outlive this object.
    Combinations(const ByName& byName, Options& options) : mByName(byName), mOptions(options) {}

    // Refuses the first combination that does not work. Completes the options with the periods of
    // --list and the container that OUTPUT's name asks for.
    std::optional<Failure> check();

private:
    std::optional<Failure> checkConflicts() const;
    std::optional<Failure> checkSections() const;
    std::optional<Failure> checkPeriods();
    std::optional<Failure> checkName();
    std::optional<Failure> checkSize() const;
    std::optional<Failure> checkAudio() const;
    std::optional<Failure> checkFormat() const;
    bool isGiven(const std::string& option) const { return mByName.at(option)->count() > 0; }
    // An option with the value that it was given.
    std::string given(const std::string& option, size_t index = 0) const {
        return option + ' ' + mByName.at(option)->results()[index];
    }

    const ByName& mByName;
    Options& mOptions;
};

}  // namespace android::qmmediaeditor::cli
