#include "host/writer/MetadataBoxes.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace android {
namespace qmmediaeditor {

namespace {

using Bytes = std::vector<uint8_t>;

// "und", packed as ISO 14496-12 says (8.4.2.3).
constexpr uint32_t kUndetermined = 0x55c4;
constexpr uint32_t kUtf8 = 1;

// `count` bytes, big-endian.
void put(uint64_t value, int count, Bytes* out) {
    for (int shift = (count - 1) * 8; shift >= 0; shift -= 8) {
        out->push_back(static_cast<uint8_t>(value >> shift));
    }
}

void put(std::string_view text, Bytes* out) { out->insert(out->end(), text.begin(), text.end()); }

void put(const Bytes& bytes, Bytes* out) { out->insert(out->end(), bytes.begin(), bytes.end()); }

constexpr size_t kBoxHeaderBytes = 8;

Bytes box(std::string_view type, const Bytes& content) {
    Bytes result;
    put(kBoxHeaderBytes + content.size(), 4, &result);
    put(type, &result);
    put(content, &result);
    return result;
}

Bytes fullBox(std::string_view type, const Bytes& content) {
    Bytes payload(4, 0);
    put(content, &payload);
    return box(type, payload);
}

// QuickTime's text of user data: length, language, text.
Bytes quickTimeText(std::string_view type, const std::string& text) {
    Bytes content;
    put(text.size(), 2, &content);
    put(kUndetermined, 2, &content);
    put(text, &content);
    return box(type, content);
}

// 3GPP TS 26.244, 8.2.
Bytes text3gp(std::string_view type, const std::string& text) {
    Bytes content;
    put(kUndetermined, 2, &content);
    put(text, &content);
    content.push_back(0);
    return fullBox(type, content);
}

Bytes handler(std::string_view type, std::string_view manufacturer) {
    Bytes content(4, 0);
    put(type, &content);
    put(manufacturer, &content);
    content.resize(4 + 4 + 12 + 1, 0);
    return fullBox("hdlr", content);
}

// An entry of a list of items.
Bytes item(std::string_view type, const std::string& text) {
    Bytes content;
    put(kUtf8, 4, &content);
    put(0, 4, &content);
    put(text, &content);
    return box(type, box("data", content));
}

using Keys = std::vector<std::pair<std::string, std::string>>;

Bytes keysBox(const Keys& entries) {
    Bytes keys;
    Bytes items;
    put(entries.size(), 4, &keys);
    for (size_t i = 0; i < entries.size(); ++i) {
        Bytes name;
        put(entries[i].first, &name);
        put(box("mdta", name), &keys);
        // Numbers that begin with 1 take the place of types.
        const char number[] = {0, 0, 0, static_cast<char>(i + 1)};
        put(item(std::string_view(number, sizeof(number)), entries[i].second), &items);
    }
    Bytes content = handler("mdta", "");
    put(fullBox("keys", keys), &content);
    put(box("ilst", items), &content);
    // QuickTime's form, which has no version: programs look for keys in no other.
    return box("meta", content);
}

}  // namespace

std::vector<uint8_t> makeMetadataBoxes(const RecordingMetadata& metadata, bool is3gp,
                                       const std::string& encoder) {
    const auto& fields = metadata.fields;
    const auto valueOf = [&fields](MetadataField field) {
        const auto found = fields.find(field);
        return found == fields.end() ? std::string() : found->second;
    };
    const auto putField = [&](MetadataField field, std::string_view type, const auto& make,
                              Bytes* out) {
        if (const std::string value = valueOf(field); !value.empty()) put(make(type, value), out);
    };

    Bytes userData;
    putField(MetadataField::kLocation, "\xa9xyz", quickTimeText, &userData);
    putField(MetadataField::kMaker, "\xa9mak", quickTimeText, &userData);
    putField(MetadataField::kModel, "\xa9mod", quickTimeText, &userData);
    if (is3gp) putField(MetadataField::kTitle, "titl", text3gp, &userData);
    Bytes items;
    putField(MetadataField::kTitle, "\xa9nam", item, &items);
    putField(MetadataField::kDate,
             "\xa9"
             "day",
             item, &items);
    put(item("\xa9too", encoder), &items);
    Bytes list = handler("mdir", "appl");
    put(box("ilst", items), &list);
    put(fullBox("meta", list), &userData);

    Keys keys;
    const auto putKey = [&](const char* name, MetadataField field) {
        if (const std::string value = valueOf(field); !value.empty())
            keys.emplace_back(name, value);
    };
    if (metadata.isAndroid) {
        putKey("com.android.version", MetadataField::kAndroidVersion);
        putKey("com.android.manufacturer", MetadataField::kMaker);
        putKey("com.android.model", MetadataField::kModel);
    } else {
        putKey("com.apple.quicktime.make", MetadataField::kMaker);
        putKey("com.apple.quicktime.model", MetadataField::kModel);
    }
    putKey("com.apple.quicktime.software", MetadataField::kSoftware);
    putKey("com.apple.quicktime.creationdate", MetadataField::kDate);
    putKey("com.apple.quicktime.location.ISO6709", MetadataField::kLocation);

    const bool hasFields = std::any_of(fields.begin(), fields.end(), [](const auto& each) {
        return each.first != MetadataField::kCreationTime;
    });
    if (!hasFields) return {};
    Bytes boxes = box("udta", userData);
    if (!keys.empty()) put(keysBox(keys), &boxes);
    return boxes;
}

}  // namespace qmmediaeditor
}  // namespace android
