#include <media/stagefright/MetaData.h>

#include <map>
#include <string>
#include <variant>
#include <vector>

namespace android {

namespace {

struct Blob {
    uint32_t type;
    std::vector<uint8_t> bytes;
};

using Value = std::variant<int32_t, int64_t, float, std::string, Blob>;

}  // namespace

struct MetaDataBase::Values {
    std::map<uint32_t, Value> byKey;

    bool set(uint32_t key, Value value) {
        return !byKey.insert_or_assign(key, std::move(value)).second;
    }
    template <typename T>
    const T* find(uint32_t key) const {
        auto entry = byKey.find(key);
        return entry == byKey.end() ? nullptr : std::get_if<T>(&entry->second);
    }
    template <typename T>
    bool copy(uint32_t key, T* value) const {
        const T* found = find<T>(key);
        if (found != nullptr) *value = *found;
        return found != nullptr;
    }
};

MetaDataBase::MetaDataBase() : mValues(std::make_unique<Values>()) {}

MetaDataBase::MetaDataBase(const MetaDataBase& from)
    : mValues(std::make_unique<Values>(*from.mValues)) {}

MetaDataBase& MetaDataBase::operator=(const MetaDataBase& from) {
    *mValues = *from.mValues;
    return *this;
}

MetaDataBase::~MetaDataBase() = default;

void MetaDataBase::clear() { mValues->byKey.clear(); }

bool MetaDataBase::setInt32(uint32_t key, int32_t value) { return mValues->set(key, value); }
bool MetaDataBase::setInt64(uint32_t key, int64_t value) { return mValues->set(key, value); }
bool MetaDataBase::setFloat(uint32_t key, float value) { return mValues->set(key, value); }
bool MetaDataBase::setCString(uint32_t key, const char* value) {
    return mValues->set(key, std::string(value));
}
bool MetaDataBase::setData(uint32_t key, uint32_t type, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    return mValues->set(key, Blob{type, std::vector<uint8_t>(bytes, bytes + size)});
}

bool MetaDataBase::findInt32(uint32_t key, int32_t* value) const {
    return mValues->copy(key, value);
}
bool MetaDataBase::findInt64(uint32_t key, int64_t* value) const {
    return mValues->copy(key, value);
}
bool MetaDataBase::findFloat(uint32_t key, float* value) const { return mValues->copy(key, value); }
bool MetaDataBase::findCString(uint32_t key, const char** value) const {
    const auto* found = mValues->find<std::string>(key);
    if (found != nullptr) *value = found->c_str();
    return found != nullptr;
}
bool MetaDataBase::findData(uint32_t key, uint32_t* type, const void** data, size_t* size) const {
    const auto* found = mValues->find<Blob>(key);
    if (found == nullptr) return false;
    *type = found->type;
    *data = found->bytes.data();
    *size = found->bytes.size();
    return true;
}

}  // namespace android
