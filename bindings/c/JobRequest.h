// A request in JSON, turned into what the command is given.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>

#include <string>
#include <vector>

namespace android::qmmediaeditor::api {

struct JobRequest {
    cli::Options options;
    // Of the command, without its name: the options, the input and the output.
    std::vector<std::string> arguments;
    bool isolates = false;
    std::string program;  // to isolate in; empty for the installed one
};

// Checked as far as possible without the input.
cli::Result<JobRequest> parseRequest(const std::string& json);

}  // namespace android::qmmediaeditor::api
