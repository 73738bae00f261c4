// The input: open for as long as the session reads it.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/MediaFile.h>
#include <qmtranscode/monitor/RunFacts.h>
#include <sys/stat.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

class InputFile {
public:
    InputFile() = default;
    ~InputFile();

    // Opens a plain file; what is in it is not looked at.
    std::optional<Failure> open(const std::string& path);
    // Finds out what can be decoded.
    std::optional<Failure> probe(const RunFacts& facts);
    // A failure when the file could not be read, has become shorter, exceeds a limit, or was
    // changed since `open`. A recording may grow.
    std::optional<Failure> checkReads(const RunFacts& facts) const;

    int fd() const { return mFd; }
    const std::string& path() const { return mPath; }
    const MediaFile& media() const { return mMedia; }
    // Whether `file`, which may be null, is the input.
    bool isSameFile(const struct stat* file) const;

private:
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    std::string mPath;
    int mFd = -1;
    struct stat mStatus {};  // at `open`
    MediaFile mMedia;
};

}  // namespace android::qmmediaeditor::cli
