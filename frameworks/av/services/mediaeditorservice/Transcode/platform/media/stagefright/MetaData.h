// Values by four-character key: what travels with a file, a track or a single buffer.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <memory>

namespace android {

// Keys of the platform's media metadata that are used here.
enum {
    kKeyMIMEType = 'mime',          // C string
    kKeyWidth = 'widt',             // int32, pixels
    kKeyHeight = 'heig',            // int32, pixels
    kKeyStride = 'strd',            // int32, bytes of a luma row
    kKeySliceHeight = 'slht',       // int32, rows of the luma plane
    kKeyColorFormat = 'colf',       // int32
    kKeyFrameRate = 'frmR',         // int32, frames a second
    kKeyChannelCount = '#chn',      // int32
    kKeySampleRate = 'srte',        // int32, Hz
    kKeyBitRate = 'brte',           // int32, bits a second
    kKeyMaxInputSize = 'inpS',      // int32, bytes
    kKeyRotation = 'rotA',          // int32, degrees clockwise
    kKeyDuration = 'dura',          // int64, microseconds
    kKeyTime = 'time',              // int64, microseconds
    kKeyDecodingTime = 'decT',      // int64, microseconds
    kKeyIsSyncFrame = 'sync',       // int32 as bool
    kKeyIsCodecConfig = 'conf',     // int32 as bool
    kKeyFileType = 'ftyp',          // int32: 1 is 3GP, 2 is MP4
    kKeyRealTimeRecording = 'rtrc'  // int32 as bool
};

class MetaDataBase {
public:
    MetaDataBase();
    MetaDataBase(const MetaDataBase& from);
    MetaDataBase& operator=(const MetaDataBase& from);
    virtual ~MetaDataBase();

    void clear();
    // Each setter is true when it replaced an earlier value, and each finder when it found one of
    // its type.
    bool setInt32(uint32_t key, int32_t value);
    bool setInt64(uint32_t key, int64_t value);
    bool setFloat(uint32_t key, float value);
    bool setCString(uint32_t key, const char* value);
    bool setData(uint32_t key, uint32_t type, const void* data, size_t size);

    bool findInt32(uint32_t key, int32_t* value) const;
    bool findInt64(uint32_t key, int64_t* value) const;
    bool findFloat(uint32_t key, float* value) const;
    // The pointers stay valid until the value is replaced.
    bool findCString(uint32_t key, const char** value) const;
    bool findData(uint32_t key, uint32_t* type, const void** data, size_t* size) const;

private:
    struct Values;

    std::unique_ptr<Values> mValues;
};

class MetaData final : public MetaDataBase, public RefBase {
public:
    MetaData() = default;
    MetaData(const MetaData& from) : MetaDataBase(from), RefBase() {}
    explicit MetaData(const MetaDataBase& from) : MetaDataBase(from) {}

protected:
    ~MetaData() override = default;
};

}  // namespace android
