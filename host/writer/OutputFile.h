// The file that a writer makes, as libavformat sees it. Private to the writer.
//
// Works on a duplicate of the caller's descriptor with a position of its own. One thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <memory>

#include "host/convert/FFmpegPointers.h"
#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

class OutputFile {
public:
    // Null when `fd` cannot be duplicated, or cannot seek.
    static std::unique_ptr<OutputFile> open(int fd);
    ~OutputFile();

    AVIOContext& io() { return *mIo; }
    // The caller's descriptor can be read as well, or opened again for it.
    bool isReadable();
    // What has been written so far, to be read from the beginning. Null when it cannot be read.
    AVIOContext* openForReading();
    std::shared_ptr<const InputFile> written();

    // Writes what is still in memory, cuts off what the file held before and closes the duplicate.
    // The first error since open, or 0.
    status_t finish();

private:
    struct Cursor;

    OutputFile();

    const std::unique_ptr<Cursor> mWriting;
    const std::unique_ptr<Cursor> mReading;
    IoContextPtr mIo;
};

}  // namespace qmmediaeditor
}  // namespace android
