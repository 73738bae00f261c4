// The output: written under another name beside its place, and put there when it is to be kept.
// Whatever else happens, the other name goes and a file that was there before stays as it was.
#pragma once

#include <qmtranscode/Failure.h>
#include <qmtranscode/InputFile.h>

#include <optional>
#include <string>

namespace android::qmmediaeditor::cli {

class OutputFile {
public:
    OutputFile() = default;
    // Removes what was not kept.
    ~OutputFile();

    // Looks whether a file may be written there; writes nothing.
    std::optional<Failure> check(const std::string& path, bool overwrite, const InputFile& input);

    // Makes the temporary file. The descriptor is the caller's.
    std::optional<Failure> create(int* fd);

    // A new descriptor, for reading back what was written; the caller's. -1 when that fails.
    int openForReading() const;

    // Gives the file its name.
    std::optional<Failure> keep();

    const std::string& path() const { return mPath; }

    // Whether the file system has no room left for it.
    bool isFull() const;

    // For a process that ends here and now: may be called on any thread and in a signal handler.
    static void removeNow();

private:
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::string mPath;
    // Where the file really goes, when `mPath` is a symbolic link.
    std::string mTarget;
    // Empty when there is none.
    std::string mTemporary;
    bool mOverwrite = false;
    // Permissions of the file.
    mode_t mMode = 0;
};

}  // namespace android::qmmediaeditor::cli
