#include "host/codec/RecordingMetadata.h"

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <iterator>
#include <regex>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr char32_t kInvalid = 0xffffffff;

// The character at `*offset`, which moves behind it. kInvalid where the text is not UTF-8.
char32_t nextCharacter(std::string_view text, size_t* offset) {
    const auto lead = static_cast<uint8_t>(text[(*offset)++]);
    if (lead < 0x80) return lead;
    const size_t following = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
    if (lead < 0xc2 || lead > 0xf4 || text.size() - *offset < following) return kInvalid;
    char32_t character = lead & (0x3f >> following);
    for (size_t i = 0; i < following; ++i) {
        const auto byte = static_cast<uint8_t>(text[(*offset)++]);
        if ((byte & 0xc0) != 0x80) return kInvalid;
        character = character << 6 | (byte & 0x3f);
    }
    constexpr char32_t kMinOf[] = {0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = character >= 0xd800 && character < 0xe000;
    if (character < kMinOf[following] || character > 0x10ffff || isSurrogate) return kInvalid;
    return character;
}

// Line breaks count as control characters.
bool isControl(char32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

struct Moment {
    int year = 0;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::optional<int> offsetMinutes;  // from UTC
};

std::optional<Moment> parseDate(const std::string& text) {
    static const std::regex kPattern(
        R"((\d{4})(?:[-:](\d\d)(?:[-:](\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d)(?:[.,]\d{1,9})?)?)"
        R"((Z|[+-]\d\d(?::?\d\d)?)?)?)?)?)");
    constexpr size_t kMaxDateBytes = 40;
    std::smatch parts;
    if (text.size() > kMaxDateBytes || !std::regex_match(text, parts, kPattern)) {
        return std::nullopt;
    }
    const auto number = [&parts](size_t index, int missing) {
        return parts[index].matched ? atoi(parts[index].str().c_str()) : missing;
    };
    Moment moment;
    moment.year = number(1, 0);
    moment.month = number(2, 1);
    moment.day = number(3, 1);
    moment.hour = number(4, 0);
    moment.minute = number(5, 0);
    moment.second = number(6, 0);
    if (const std::string zone = parts[7].str(); zone == "Z") {
        moment.offsetMinutes = 0;
    } else if (!zone.empty()) {
        const int hours = atoi(zone.substr(1, 2).c_str());
        const int minutes = zone.size() > 3 ? atoi(zone.substr(zone.size() - 2).c_str()) : 0;
        if (hours > 18 || minutes > 59) return std::nullopt;
        moment.offsetMinutes = (zone[0] == '-' ? -1 : 1) * (hours * 60 + minutes);
    }
    const bool isLeap = moment.year % 4 == 0 && (moment.year % 100 != 0 || moment.year % 400 == 0);
    const int days[] = {31, isLeap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    // A year of 0 is what some recorders write for an unknown date.
    if (moment.year < 1 || moment.month < 1 || moment.month > 12 || moment.day < 1 ||
        moment.day > days[moment.month - 1] || moment.hour > 23 || moment.minute > 59 ||
        moment.second > 60) {
        return std::nullopt;
    }
    return moment;
}

// Codes of ISO 639-2/B that differ from 639-2/T, which Matroska and MPEG-TS have.
constexpr std::pair<std::string_view, std::string_view> kBibliographicCodes[] = {
    {"alb", "sqi"}, {"arm", "hye"}, {"baq", "eus"}, {"bur", "mya"}, {"chi", "zho"},
    {"cze", "ces"}, {"dut", "nld"}, {"fre", "fra"}, {"geo", "kat"}, {"ger", "deu"},
    {"gre", "ell"}, {"ice", "isl"}, {"mac", "mkd"}, {"mao", "mri"}, {"may", "msa"},
    {"per", "fas"}, {"rum", "ron"}, {"slo", "slk"}, {"tib", "bod"}, {"wel", "cym"},
};

}  // namespace

const char* nameOf(MetadataField field) {
    switch (field) {
        case MetadataField::kCreationTime:
            return "creation_time";
        case MetadataField::kDate:
            return "date";
        case MetadataField::kTitle:
            return "title";
        case MetadataField::kMaker:
            return "maker";
        case MetadataField::kModel:
            return "model";
        case MetadataField::kSoftware:
            return "software";
        case MetadataField::kAndroidVersion:
            return "android_version";
        case MetadataField::kLocation:
            return "location";
    }
    return "";
}

RecordingMetadata selectMetadata(const RecordingMetadata& found, MetadataPolicy policy) {
    if (policy == MetadataPolicy::kNone) return {};
    RecordingMetadata selected = found;
    selected.unused.clear();
    if (policy != MetadataPolicy::kAll) selected.fields.erase(MetadataField::kLocation);
    return selected;
}

std::string cleanMetadata(std::string_view text, size_t maxBytes) {
    std::string clean;
    text = text.substr(0, text.find('\0'));
    for (size_t offset = 0; offset < text.size();) {
        const size_t start = offset;
        const char32_t character = nextCharacter(text, &offset);
        if (character == kInvalid) return "";
        if (isControl(character) || (clean.empty() && character == ' ')) continue;
        if (clean.size() + offset - start > maxBytes) break;
        clean.append(text.substr(start, offset - start));
    }
    while (!clean.empty() && clean.back() == ' ') clean.pop_back();
    return clean;
}

bool isDate(const std::string& text) { return parseDate(text).has_value(); }

std::optional<std::string> creationTimeOf(const std::string& date) {
    const std::optional<Moment> moment = parseDate(date);
    if (!moment || !moment->offsetMinutes) return std::nullopt;
    struct tm parts {};
    parts.tm_year = moment->year - 1900;
    parts.tm_mon = moment->month - 1;
    parts.tm_mday = moment->day;
    parts.tm_hour = moment->hour;
    parts.tm_min = moment->minute - *moment->offsetMinutes;
    parts.tm_sec = moment->second;
    const time_t seconds = timegm(&parts);
    // Readers take numbers below 1970 for seconds since then, and the 32 bits of a header end in
    // February 2040.
    constexpr int64_t kEnd = 2208988800;  // 2040-01-01
    if (seconds <= 0 || seconds >= kEnd || gmtime_r(&seconds, &parts) == nullptr) {
        return std::nullopt;
    }
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

bool isLocation(const std::string& text) {
    static const std::regex kPattern(
        R"(([+-]\d{1,2}(?:\.\d{1,12})?)([+-]\d{1,3}(?:\.\d{1,12})?)(?:[+-]\d{1,6}(?:\.\d{1,12})?)?)"
        R"((?:CRS[A-Za-z0-9_]{1,20})?/?)");
    constexpr size_t kMaxLocationBytes = 80;
    constexpr double kMaxLatitude = 90;
    constexpr double kMaxLongitude = 180;
    std::smatch parts;
    if (text.size() > kMaxLocationBytes || !std::regex_match(text, parts, kPattern)) return false;
    return std::abs(atof(parts[1].str().c_str())) <= kMaxLatitude &&
           std::abs(atof(parts[2].str().c_str())) <= kMaxLongitude;
}

std::string languageCode(std::string_view language) {
    constexpr size_t kCodeBytes = 3;
    // An MPEG-TS file names one language for each of two mono channels: "eng,fra".
    const bool isList = language.size() > kCodeBytes && language[kCodeBytes] == ',';
    if (language.size() != kCodeBytes && !isList) return "";
    std::string code(language.substr(0, kCodeBytes));
    const bool isCode =
        std::all_of(code.begin(), code.end(), [](char c) { return c >= 'a' && c <= 'z'; });
    if (!isCode || code == "und") return "";
    const auto* same = std::find_if(std::begin(kBibliographicCodes), std::end(kBibliographicCodes),
                                    [&code](const auto& pair) { return pair.first == code; });
    return same == std::end(kBibliographicCodes) ? code : std::string(same->second);
}

void SessionMetadata::set(const RecordingMetadata& found) {
    Mutex::Autolock lock(mLock);
    mSelected = selectMetadata(found, mPolicy);
}

void SessionMetadata::setLanguage(bool isVideo, const std::string& language) {
    if (mPolicy == MetadataPolicy::kNone) return;
    Mutex::Autolock lock(mLock);
    mLanguages[isVideo ? 1 : 0] = language;
}

RecordingMetadata SessionMetadata::selected() const {
    Mutex::Autolock lock(mLock);
    return mSelected;
}

std::string SessionMetadata::language(bool isVideo) const {
    Mutex::Autolock lock(mLock);
    return mLanguages[isVideo ? 1 : 0];
}

}  // namespace qmmediaeditor
}  // namespace android
