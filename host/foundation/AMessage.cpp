#include <inttypes.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>

#include <cstdio>
#include <map>
#include <string>
#include <variant>

namespace android {

namespace {

struct Rect {
    int32_t left, top, right, bottom;
};

using Value = std::variant<int32_t, int64_t, float, AString, Rect, sp<RefBase>, sp<ABuffer>>;

std::string describe(int32_t value) { return "int32 " + std::to_string(value); }
std::string describe(int64_t value) { return "int64 " + std::to_string(value); }
std::string describe(float value) {
    char text[32];
    snprintf(text, sizeof(text), "float %g", static_cast<double>(value));
    return text;
}
std::string describe(const AString& value) {
    return "string \"" + std::string(value.c_str(), value.size()) + "\"";
}
std::string describe(const Rect& r) {
    return "rect (" + std::to_string(r.left) + ", " + std::to_string(r.top) + ", " +
           std::to_string(r.right) + ", " + std::to_string(r.bottom) + ")";
}
std::string describe(const sp<RefBase>& value) { return value == nullptr ? "null" : "object"; }
std::string describe(const sp<ABuffer>& value) {
    return value == nullptr ? "null" : "buffer of " + std::to_string(value->size()) + " bytes";
}

}  // namespace

struct AMessage::Entries {
    std::map<std::string, Value> values;

    template <typename T>
    const T* find(const char* name) const {
        auto entry = values.find(name);
        return entry == values.end() ? nullptr : std::get_if<T>(&entry->second);
    }
    template <typename T>
    bool copy(const char* name, T* value) const {
        const T* found = find<T>(name);
        if (found != nullptr) *value = *found;
        return found != nullptr;
    }
};

AMessage::AMessage(uint32_t what) : mWhat(what), mEntries(std::make_unique<Entries>()) {}

AMessage::~AMessage() = default;

void AMessage::setInt32(const char* name, int32_t value) { mEntries->values[name] = value; }
void AMessage::setInt64(const char* name, int64_t value) { mEntries->values[name] = value; }
void AMessage::setFloat(const char* name, float value) { mEntries->values[name] = value; }
void AMessage::setString(const char* name, const char* s) { mEntries->values[name] = AString(s); }
void AMessage::setString(const char* name, const AString& s) { mEntries->values[name] = s; }
void AMessage::setRect(const char* name, int32_t left, int32_t top, int32_t right, int32_t bottom) {
    mEntries->values[name] = Rect{left, top, right, bottom};
}
void AMessage::setObject(const char* name, const sp<RefBase>& object) {
    mEntries->values[name] = object;
}
void AMessage::setBuffer(const char* name, const sp<ABuffer>& buffer) {
    mEntries->values[name] = buffer;
}

bool AMessage::findInt32(const char* name, int32_t* value) const {
    return mEntries->copy(name, value);
}
bool AMessage::findInt64(const char* name, int64_t* value) const {
    return mEntries->copy(name, value);
}
bool AMessage::findFloat(const char* name, float* value) const {
    return mEntries->copy(name, value);
}
bool AMessage::findString(const char* name, AString* value) const {
    return mEntries->copy(name, value);
}
bool AMessage::findRect(const char* name, int32_t* left, int32_t* top, int32_t* right,
                        int32_t* bottom) const {
    const Rect* rect = mEntries->find<Rect>(name);
    if (rect == nullptr) return false;
    *left = rect->left;
    *top = rect->top;
    *right = rect->right;
    *bottom = rect->bottom;
    return true;
}
bool AMessage::findObject(const char* name, sp<RefBase>* object) const {
    return mEntries->copy(name, object);
}
bool AMessage::findBuffer(const char* name, sp<ABuffer>* buffer) const {
    return mEntries->copy(name, buffer);
}
bool AMessage::contains(const char* name) const { return mEntries->values.count(name) != 0; }

sp<AMessage> AMessage::dup() const {
    sp<AMessage> copy = new AMessage(mWhat);
    copy->mEntries->values = mEntries->values;
    return copy;
}

AString AMessage::debugString(int32_t indent) const {
    const std::string margin(indent > 0 ? static_cast<size_t>(indent) : 0, ' ');
    std::string text = "{\n";
    for (const auto& [name, value] : mEntries->values) {
        text += margin + "  " + name + " = " +
                std::visit([](const auto& v) { return describe(v); }, value) + "\n";
    }
    text += margin + "}";
    return AString(text.data(), text.size());
}

}  // namespace android
