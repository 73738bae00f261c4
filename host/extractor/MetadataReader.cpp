#include "host/extractor/MetadataReader.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/intreadwrite.h>
}

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char kKeyPrefix[] = "com.";
constexpr char kAndroidPrefix[] = "com.android.";

// libavformat's names of each field, the most exact one first. Apple's and Android's are keys of
// 'moov/meta' and say which program of the recorder wrote them; the others come from user data and
// from other containers. Names are compared without regard to case, since Matroska has capitals.
const struct {
    MetadataField field;
    const char* names[4];
} kFields[] = {
    {MetadataField::kCreationTime, {"creation_time"}},
    {MetadataField::kDate,
     {"com.apple.quicktime.creationdate", "date_recorded", "date", "date_digitized"}},
    {MetadataField::kTitle, {"com.apple.quicktime.title", "title"}},
    {MetadataField::kMaker,
     {"com.apple.quicktime.make", "com.android.manufacturer", "make", "manufacturer"}},
    {MetadataField::kModel, {"com.apple.quicktime.model", "com.android.model", "model"}},
    {MetadataField::kSoftware, {"com.apple.quicktime.software", "software"}},
    {MetadataField::kAndroidVersion, {"com.android.version"}},
    {MetadataField::kLocation, {"com.apple.quicktime.location.ISO6709", "location"}},
};

// Entries that describe a recording and have no field. The others describe the file.
constexpr const char* kUnusedNames[] = {
    "album",       "album_artist", "artist", "author",   "comment",  "composer", "copyright",
    "description", "episode_id",   "genre",  "grouping", "keywords", "lyrics",   "network",
    "performer",   "publisher",    "show",   "synopsis", "track",
};

template <size_t kCount>
bool isOneOf(const char* name, const char* const (&names)[kCount]) {
    return std::any_of(std::begin(names), std::end(names), [name](const char* each) {
        return each != nullptr && av_strcasecmp(name, each) == 0;
    });
}

bool startsWith(const char* name, const char* prefix) {
    return av_strncasecmp(name, prefix, strlen(prefix)) == 0;
}

bool isField(const char* name) {
    return std::any_of(std::begin(kFields), std::end(kFields),
                       [name](const auto& each) { return isOneOf(name, each.names); });
}

bool isValid(MetadataField field, const std::string& value) {
    if (value.empty()) return false;
    if (field == MetadataField::kCreationTime) return creationTimeOf(value).has_value();
    if (field == MetadataField::kDate) return isDate(value);
    return field != MetadataField::kLocation || isLocation(value);
}

class Collector {
public:
    // An earlier value of the field takes precedence.
    void add(MetadataField field, std::string_view text) {
        if (text.empty()) return;
        const std::string value = cleanMetadata(text);
        if (!isValid(field, value)) {
            mMalformed.push_back(field);
            return;
        }
        mResult.fields.emplace(
            field, field == MetadataField::kCreationTime ? *creationTimeOf(value) : value);
    }
    void addUnused(const std::string& name, UnusedMetadata::Reason reason) {
        constexpr size_t kMaxNameBytes = 64;
        const std::string clean = cleanMetadata(name, kMaxNameBytes);
        std::vector<UnusedMetadata>& unused = mResult.unused;
        const bool isKnown = std::any_of(unused.begin(), unused.end(),
                                         [&clean](const auto& each) { return each.name == clean; });
        if (clean.empty() || isKnown || unused.size() >= kMaxUnusedMetadata) return;
        unused.push_back({clean, reason});
    }
    void setAndroid() { mResult.isAndroid = true; }

    RecordingMetadata finish() {
        for (const MetadataField field : mMalformed) {
            if (mResult.fields.count(field) != 0) continue;
            addUnused(nameOf(field), UnusedMetadata::Reason::kMalformed);
        }
        const auto date = mResult.fields.find(MetadataField::kDate);
        if (date != mResult.fields.end()) {
            if (const auto time = creationTimeOf(date->second)) {
                mResult.fields.emplace(MetadataField::kCreationTime, *time);
            }
        }
        return mResult;
    }

private:
    RecordingMetadata mResult;
    std::vector<MetadataField> mMalformed;
};

// Of the names that begin with `prefix`.
void addTags(const AVDictionary* tags, const char* prefix, Collector* collector) {
    for (const auto& [field, names] : kFields) {
        for (const char* name : names) {
            if (name == nullptr || !startsWith(name, prefix)) continue;
            const AVDictionaryEntry* tag = av_dict_get(tags, name, nullptr, 0);
            if (tag != nullptr) collector->add(field, tag->value);
        }
    }
}

void addUnusedTags(const AVDictionary* tags, Collector* collector) {
    const AVDictionaryEntry* tag = nullptr;
    while ((tag = av_dict_get(tags, "", tag, AV_DICT_IGNORE_SUFFIX)) != nullptr) {
        if (startsWith(tag->key, kAndroidPrefix)) collector->setAndroid();
        const bool isOtherKey = startsWith(tag->key, kKeyPrefix) && !isField(tag->key);
        if (isOtherKey || isOneOf(tag->key, kUnusedNames)) {
            collector->addUnused(tag->key, UnusedMetadata::Reason::kUnknown);
        }
    }
}

void appendUtf8(uint32_t character, std::string* text) {
    if (character < 0x80) {
        text->push_back(static_cast<char>(character));
        return;
    }
    const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr uint32_t kLeads[] = {0, 0xc0, 0xe0, 0xf0};
    text->push_back(static_cast<char>(kLeads[following] | character >> (6 * following)));
    for (int shift = 6 * (following - 1); shift >= 0; shift -= 6) {
        text->push_back(static_cast<char>(0x80 | (character >> shift & 0x3f)));
    }
}

// UTF-8, or UTF-16 behind a byte order mark (3GPP TS 26.244, 8.2).
std::string decodeText(const uint8_t* data, size_t size) {
    if (size < 2 || data[0] != 0xfe || data[1] != 0xff) {
        return std::string(reinterpret_cast<const char*>(data), size);
    }
    std::string text;
    for (size_t at = 2; at + 2 <= size; at += 2) {
        uint32_t character = AV_RB16(data + at);
        if (character >= 0xd800 && character < 0xdc00 && at + 4 <= size) {
            at += 2;
            const uint32_t low = AV_RB16(data + at);
            if (low < 0xdc00 || low > 0xdfff) return "";
            character = 0x10000 + ((character - 0xd800) << 10 | (low - 0xdc00));
        }
        appendUtf8(character, &text);
    }
    return text;
}

// Without the version, the flags and the language that a text of 3GPP begins with.
std::string text3gp(const UserDataBox& box) {
    constexpr size_t kTextOffset = 6;
    if (box.payload.size() < kTextOffset) return "";
    return decodeText(box.payload.data() + kTextOffset, box.payload.size() - kTextOffset);
}

// QuickTime's: a length and a language before the text.
std::string quickTimeText(const UserDataBox& box) {
    constexpr size_t kTextOffset = 4;
    const std::vector<uint8_t>& payload = box.payload;
    if (payload.size() < kTextOffset) return "";
    const size_t size = std::min<size_t>(AV_RB16(payload.data()), payload.size() - kTextOffset);
    return std::string(reinterpret_cast<const char*>(payload.data()) + kTextOffset, size);
}

// A number of 16.16 bits with its sign, at least `digits` before the point, and as many behind it
// as it takes to get the same bits again: at least `decimals`, and at most five. It does not depend
// on the locale.
std::string decimal(int32_t fixed, int digits, int decimals) {
    const int64_t size = llabs(int64_t{fixed});
    int64_t scale = 1;
    for (int i = 0; i < decimals; ++i) scale *= 10;
    const auto scaled = [&] { return (size * scale + (1 << 15)) >> 16; };
    // Recorders round, or drop what is behind the last bit.
    const auto isExact = [&] {
        const int64_t bits = scaled() * 65536;
        return bits / scale == size || (bits + scale / 2) / scale == size;
    };
    constexpr int kMaxDecimals = 5;
    for (; decimals < kMaxDecimals && !isExact(); ++decimals) scale *= 10;
    char text[48];
    snprintf(text, sizeof(text), "%c%0*lld.%0*lld", fixed < 0 ? '-' : '+', digits,
             static_cast<long long>(scaled() / scale), decimals,
             static_cast<long long>(scaled() % scale));
    return text;
}

// Of the part of the box 'loci' behind its name: the role, longitude, latitude and altitude, and
// the name of the celestial body. Empty when they do not fit, or the body is not the Earth.
std::string locationAt(const std::vector<uint8_t>& payload, size_t offset) {
    constexpr size_t kNumbersBytes = 12;
    constexpr int kLatitudeDigits = 2;
    constexpr int kLongitudeDigits = 3;
    constexpr int kDegreeDecimals = 4;
    constexpr int kMetreDecimals = 3;
    if (offset + 1 + kNumbersBytes > payload.size()) return "";
    const uint8_t* const numbers = payload.data() + offset + 1;
    const std::string rest(numbers + kNumbersBytes, payload.data() + payload.size());
    const std::string body = cleanMetadata(rest);
    if (!body.empty() && av_strcasecmp(body.c_str(), "earth") != 0) return "";
    const auto number = [numbers](int index) {
        return static_cast<int32_t>(AV_RB32(numbers + 4 * index));
    };
    std::string text = decimal(number(1), kLatitudeDigits, kDegreeDecimals) +
                       decimal(number(0), kLongitudeDigits, kDegreeDecimals);
    if (number(2) != 0) text += decimal(number(2), kLongitudeDigits, kMetreDecimals);
    return text + '/';
}

// 3GPP TS 26.244, 8.10: version, flags and language, then the name of the place.
std::string locationText(const UserDataBox& box) {
    constexpr size_t kNameOffset = 6;
    const std::vector<uint8_t>& payload = box.payload;
    if (payload.size() < kNameOffset + 2) return "";
    const bool isWide = payload[kNameOffset] == 0xfe && payload[kNameOffset + 1] == 0xff;
    // Some recorders end a name in UTF-16 with one byte.
    for (const size_t step : {size_t{2}, size_t{1}}) {
        if (step == 2 && !isWide) continue;
        size_t end = kNameOffset;
        while (end + step <= payload.size() &&
               (payload[end] != 0 || payload[end + step - 1] != 0)) {
            end += step;
        }
        if (std::string text = locationAt(payload, end + step); !text.empty()) return text;
    }
    return "";
}

// Boxes of 3GPP files that libavformat leaves out or rounds, and one that it does not tell from
// the name of the program that wrote the file.
void addUserData(const std::vector<UserDataBox>& boxes, Collector* collector) {
    const UserDataBox* location3gp = nullptr;
    for (const UserDataBox& box : boxes) {
        switch (box.type) {
            case MKBETAG(0xa9, 'x', 'y', 'z'):
                collector->add(MetadataField::kLocation, quickTimeText(box));
                break;
            case MKBETAG('l', 'o', 'c', 'i'):
                location3gp = &box;
                break;
            case MKBETAG('t', 'i', 't', 'l'):
                collector->add(MetadataField::kTitle, text3gp(box));
                break;
            case MKBETAG('d', 'a', 't', 'e'):
                collector->add(MetadataField::kDate,
                               decodeText(box.payload.data(), box.payload.size()));
                break;
            case MKBETAG(0xa9, 's', 'w', 'r'):
                collector->add(MetadataField::kSoftware, quickTimeText(box));
                break;
            case MKBETAG('a', 'u', 't', 'h'):
                if (!cleanMetadata(text3gp(box)).empty()) {
                    collector->addUnused("author", UnusedMetadata::Reason::kUnknown);
                }
                break;
            case MKBETAG('d', 's', 'c', 'p'):
                collector->addUnused("description", UnusedMetadata::Reason::kUnknown);
                break;
            default:
                break;
        }
    }
    if (location3gp == nullptr) return;
    const std::string text = locationText(*location3gp);
    constexpr char kNoLocation[] = "?";
    collector->add(MetadataField::kLocation, text.empty() ? kNoLocation : text);
}

}  // namespace

RecordingMetadata readMetadata(const DescriptorFile& file, Demuxer* demuxer,
                               const TopLevelBoxes& boxes) {
    const AVFormatContext& context = demuxer->context();
    Collector collector;
    addTags(context.metadata, kKeyPrefix, &collector);
    // Before the values that libavformat makes of the same boxes.
    if (boxes.movieBytes > 0) addUserData(readUserData(file, boxes.movieOffset), &collector);
    addTags(context.metadata, "", &collector);
    // Ogg has no tags of the file; elsewhere, those of a track describe the track.
    const bool hasTrackTags = av_match_name("ogg", context.iformat->name) != 0;
    for (unsigned i = 0; hasTrackTags && i < context.nb_streams; ++i) {
        addTags(context.streams[i]->metadata, "", &collector);
        addUnusedTags(context.streams[i]->metadata, &collector);
    }
    // Some recorders state the time in the tracks alone.
    for (unsigned i = 0; i < context.nb_streams; ++i) {
        const AVDictionaryEntry* time =
            av_dict_get(context.streams[i]->metadata, "creation_time", nullptr, 0);
        if (time != nullptr) collector.add(MetadataField::kCreationTime, time->value);
    }
    addUnusedTags(context.metadata, &collector);
    for (const std::string& type : boxes.locatedTypes) {
        collector.addUnused("uuid box " + type, UnusedMetadata::Reason::kLocation);
    }
    return collector.finish();
}

std::string readLanguage(const AVStream& stream) {
    const AVDictionaryEntry* language = av_dict_get(stream.metadata, "language", nullptr, 0);
    return language == nullptr ? "" : languageCode(language->value);
}

std::vector<Chapter> readChapters(const AVFormatContext& context, int64_t originUs) {
    constexpr AVRational kMicroseconds = {1, 1000000};
    std::vector<Chapter> chapters;
    const size_t count = std::min<size_t>(context.nb_chapters, kMaxChapters);
    for (size_t i = 0; i < count; ++i) {
        const AVChapter& found = *context.chapters[i];
        if (found.start == AV_NOPTS_VALUE || found.time_base.num <= 0 || found.time_base.den <= 0) {
            continue;
        }
        const auto timeUs = [&](int64_t time) {
            const int64_t us = av_rescale_q(time, found.time_base, kMicroseconds);
            return std::max<int64_t>(av_sat_sub64(us, originUs), 0);
        };
        const AVDictionaryEntry* title = av_dict_get(found.metadata, "title", nullptr, 0);
        chapters.push_back({timeUs(found.start),
                            found.end == AV_NOPTS_VALUE ? INT64_MAX : timeUs(found.end),
                            title == nullptr ? "" : cleanMetadata(title->value)});
    }
    std::stable_sort(chapters.begin(), chapters.end(),
                     [](const Chapter& a, const Chapter& b) { return a.startUs < b.startUs; });
    for (size_t i = 0; i + 1 < chapters.size(); ++i) {
        chapters[i].endUs = std::min(chapters[i].endUs, chapters[i + 1].startUs);
    }
    chapters.erase(std::remove_if(chapters.begin(), chapters.end(),
                                  [](const Chapter& each) { return each.endUs <= each.startUs; }),
                   chapters.end());
    return chapters;
}

}  // namespace qmmediaeditor
}  // namespace android
