// A byte string with the platform's comparison helpers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace android {

class AString {
public:
    AString() = default;
    AString(const char* s) : mData(s == nullptr ? "" : s) {}
    AString(const char* s, size_t size) : mData(s, size) {}

    const char* c_str() const { return mData.c_str(); }
    size_t size() const { return mData.size(); }
    bool empty() const { return mData.empty(); }
    void setTo(const char* s) { mData = s; }
    void clear() { mData.clear(); }
    void append(const char* s) { mData += s; }
    void append(const AString& other) { mData += other.mData; }

    bool operator==(const AString& other) const { return mData == other.mData; }
    bool operator!=(const AString& other) const { return mData != other.mData; }
    bool operator<(const AString& other) const { return mData < other.mData; }

    bool startsWith(const char* prefix) const { return mData.rfind(prefix, 0) == 0; }

    // Both compare ASCII letters without regard to case.
    bool equalsIgnoreCase(const char* other) const;
    bool startsWithIgnoreCase(const char* prefix) const;

private:
    std::string mData;
};

}  // namespace android
