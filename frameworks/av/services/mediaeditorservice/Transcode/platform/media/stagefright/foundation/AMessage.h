// A set of named, typed values: the form in which formats travel.
//
// A message is not locked: a thread that hands one over stops writing to it.
#pragma once

#include <media/stagefright/foundation/AString.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <memory>

namespace android {

class ABuffer;

class AMessage : public RefBase {
public:
    // `what` is a four-character code for the kind of the message.
    explicit AMessage(uint32_t what = 0);

    void setWhat(uint32_t what) { mWhat = what; }
    uint32_t what() const { return mWhat; }

    // Each setter replaces an entry of the same name, whatever its type was.
    void setInt32(const char* name, int32_t value);
    void setInt64(const char* name, int64_t value);
    void setFloat(const char* name, float value);
    void setString(const char* name, const char* s);
    void setString(const char* name, const AString& s);
    void setRect(const char* name, int32_t left, int32_t top, int32_t right, int32_t bottom);
    void setObject(const char* name, const sp<RefBase>& object);
    void setBuffer(const char* name, const sp<ABuffer>& buffer);

    // Each finder is false, and leaves its outputs as they are, when there is no entry of that name
    // and that very type.
    bool findInt32(const char* name, int32_t* value) const;
    bool findInt64(const char* name, int64_t* value) const;
    bool findFloat(const char* name, float* value) const;
    bool findString(const char* name, AString* value) const;
    bool findRect(const char* name, int32_t* left, int32_t* top, int32_t* right,
                  int32_t* bottom) const;
    bool findObject(const char* name, sp<RefBase>* object) const;
    bool findBuffer(const char* name, sp<ABuffer>* buffer) const;
    bool contains(const char* name) const;

    // A copy; buffers and objects are shared with it.
    sp<AMessage> dup() const;

    // One line per entry, for the log.
    AString debugString(int32_t indent = 0) const;

protected:
    ~AMessage() override;

private:
    struct Entries;

    uint32_t mWhat;
    std::unique_ptr<Entries> mEntries;
};

}  // namespace android
