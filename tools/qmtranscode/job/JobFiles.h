// The files of one command. They are opened before the worker gives up the right to open any.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/cli/Options.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/job/PendingFile.h>
#include <sys/stat.h>

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace android::qmmediaeditor::cli {

class RunObserver;

// The input, open for as long as the session reads it.
class JobInput {
public:
    JobInput() = default;
    ~JobInput();

    // Opens a regular file; its content is not read.
    std::optional<Failure> open(const std::string& path);
    // In the worker: finds the tracks that can be decoded.
    std::optional<Failure> probe(const RunObserver& observer);
    // In the worker: a failure if the file could not be read, exceeds a limit, or was truncated or
    // modified since `open`. It may grow, as a recording does.
    std::optional<Failure> checkReads(const RunObserver& observer) const;

    int fd() const { return mFd; }
    const std::string& path() const { return mPath; }
    const MediaFile& media() const { return mMedia; }
    // Whether `file`, which may be null, is the input.
    bool isSameFile(const struct stat* file) const;

private:
    JobInput(const JobInput&) = delete;
    JobInput& operator=(const JobInput&) = delete;

    std::string mPath;
    int mFd = -1;
    struct stat mStatus {};  // at `open`
    MediaFile mMedia;
};

struct JobFiles {
    JobInput input;
    // The other parts of an output to be joined.
    std::deque<JobInput> otherParts;
    // The sections of --jobs, which never get names.
    std::deque<PendingFile> sections;
    // Both get their names at the end.
    PendingFile output;
    PendingFile trace;
    int receipt = -1;  // memory shared by both processes
    int images = -1;   // the same for --poster and --contact-sheet; -1 without
    // The older file under the output's name, for --if-missing; -1 if there is none with content.
    int existing = -1;

    JobFiles() = default;
    ~JobFiles();
    // Refuses places that cannot be written, and an output or a trace that is another file of the
    // command. Creates nothing for a plan.
    std::optional<Failure> open(const Options& options);

    // The file that a worker with these options writes.
    const PendingFile& outputOf(const Options& options) const;

    // The parts to be joined: the name for messages, and the descriptor.
    std::vector<std::pair<std::string, int>> parts() const;
    // Refuses places for the outputs of --split from this number to the last one. Creates nothing.
    static std::optional<Failure> checkParts(const Options& options, size_t first, size_t last);

private:
    JobFiles(const JobFiles&) = delete;
    JobFiles& operator=(const JobFiles&) = delete;

    std::optional<Failure> openParts(const Options& options);
    std::optional<Failure> openTrace(const Options& options);
};

}  // namespace android::qmmediaeditor::cli
