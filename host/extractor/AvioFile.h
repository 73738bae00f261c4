// A DescriptorFile as libavformat reads and writes it: an AVIOContext with a position of its own.
//
// One thread at a time. Several may read one file.
#pragma once

#include <stdint.h>

#include <memory>

#include "host/convert/FFmpegPointers.h"
#include "host/io/DescriptorFile.h"

namespace android {
namespace qmmediaeditor {

class AvioFile {
public:
    // Null when memory is short.
    static std::unique_ptr<AvioFile> forReading(std::shared_ptr<const DescriptorFile> file,
                                                int bufferBytes);
    static std::unique_ptr<AvioFile> forWriting(const std::shared_ptr<DescriptorFile>& file,
                                                int bufferBytes);

    AVIOContext* context() const { return mContext.get(); }
    const DescriptorFile& file() const { return *mFile; }

private:
    AvioFile(std::shared_ptr<const DescriptorFile> file, DescriptorFile* writable);
    bool makeContext(int bufferBytes);

    // libavformat's callbacks; `self` is the AvioFile.
    static int read(void* self, uint8_t* data, int size);
    static int write(void* self, uint8_t* data, int size);
    static int64_t seek(void* self, int64_t offset, int whence);

    const std::shared_ptr<const DescriptorFile> mFile;
    DescriptorFile* const mWritable;  // the same file, or null when it is only read
    int64_t mPosition = 0;
    IoContextPtr mContext;
};

}  // namespace qmmediaeditor
}  // namespace android
