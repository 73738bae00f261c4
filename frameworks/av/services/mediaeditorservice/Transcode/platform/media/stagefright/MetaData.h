// Values by four-character key, which describe a file, a track or a single buffer.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <memory>

namespace android {

// The code of four characters, the first one in its highest byte.
constexpr uint32_t fourCharCode(const char (&text)[5]) {
    uint32_t code = 0;
    for (int i = 0; i < 4; ++i) code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

// Keys of the platform's media metadata that are used here.
enum : uint32_t {
    kKeyMIMEType = fourCharCode("mime"),          // C string
    kKeyWidth = fourCharCode("widt"),             // int32, pixels
    kKeyHeight = fourCharCode("heig"),            // int32, pixels
    kKeyStride = fourCharCode("strd"),            // int32, bytes of a luma row
    kKeySliceHeight = fourCharCode("slht"),       // int32, rows of the luma plane
    kKeyColorFormat = fourCharCode("colf"),       // int32
    kKeyFrameRate = fourCharCode("frmR"),         // int32, frames per second
    kKeyChannelCount = fourCharCode("#chn"),      // int32
    kKeySampleRate = fourCharCode("srte"),        // int32, Hz
    kKeyBitRate = fourCharCode("brte"),           // int32, bits per second
    kKeyMaxInputSize = fourCharCode("inpS"),      // int32, bytes
    kKeyRotation = fourCharCode("rotA"),          // int32, degrees clockwise
    kKeyDuration = fourCharCode("dura"),          // int64, microseconds
    kKeyTime = fourCharCode("time"),              // int64, microseconds
    kKeyDecodingTime = fourCharCode("decT"),      // int64, microseconds
    kKeyIsSyncFrame = fourCharCode("sync"),       // int32 as bool
    kKeyIsCodecConfig = fourCharCode("conf"),     // int32 as bool
    kKeyFileType = fourCharCode("ftyp"),          // int32: 1 is 3GP, 2 is MP4
    kKeyRealTimeRecording = fourCharCode("rtrc")  // int32 as bool
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
