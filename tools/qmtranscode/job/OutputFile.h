// The output: it gets its name only when it is kept. Any failure before that leaves nothing behind
// and an older file as it was.
#pragma once

#include <qmtranscode/cli/Failure.h>
#include <qmtranscode/job/InputFile.h>
#include <qmtranscode/job/PendingFile.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

// Calls in this order: check, create, keep.
class OutputFile {
public:
    OutputFile() = default;

    // Checks whether a file can be written there; writes nothing.
    std::optional<Failure> check(const std::string& path, bool overwrite, const InputFile& input);

    std::optional<Failure> create() { return mFile.create(mOverwrite); }

    // A new descriptor for the session, the caller's; -1 with errno on error.
    int duplicate() const { return mFile.duplicate(); }
    // For reading back; -1 before `create`.
    int fd() const { return mFile.fd(); }

    // Writes the file to disk and gives it its name.
    std::optional<Failure> keep() { return mFile.commit(); }

    const std::string& path() const { return mFile.path(); }
    const PendingFile& file() const { return mFile; }

    // Whether an older file stood under the name at `check`.
    bool replaces() const { return mFile.older() != nullptr; }

    // Removes what has a hidden name, for a process that ends at once: async-signal-safe, on any
    // thread.
    static void removeNow() { PendingFile::removeNow(); }

private:
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    PendingFile mFile;
    bool mOverwrite = false;
};

}  // namespace android::qmmediaeditor::cli
