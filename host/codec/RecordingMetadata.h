// Metadata of a recording: what the extractor finds in the input, and the writer puts into the
// output. No media library.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/Host.h"

namespace android {
namespace qmmediaeditor {

// In the order in which they are listed.
enum class MetadataField {
    kCreationTime,  // "2013-11-29T12:19:32Z", in UTC, from 1970 to 2039
    kDate,          // the date as the recorder wrote it: a year at least, and its local time
    kTitle,
    kMaker,
    kModel,
    kSoftware,
    kAndroidVersion,
    kLocation,  // ISO 6709: "+48.8789+002.3376+048.928/"
};

// "creation_time", "android_version".
const char* nameOf(MetadataField field);

// An entry that no output has, and why.
struct UnusedMetadata {
    enum class Reason {
        kUnknown,    // it is none of the fields
        kMalformed,  // not a date, not a place, or not UTF-8
        kLocation,   // a uuid box that was not read, because its XMP has a location
    };
    std::string name;
    Reason reason;
};

// In microseconds of the extractor's timestamps.
struct Chapter {
    int64_t startUs;
    int64_t endUs;
    std::string title;  // as cleanMetadata() returns it
};

struct RecordingMetadata {
    // Each value is the result of cleanMetadata() and not empty.
    std::map<MetadataField, std::string> fields;
    // Maker and model are written under Android's names as well.
    bool isAndroid = false;
    // At most kMaxUnusedMetadata.
    std::vector<UnusedMetadata> unused;
    // In time order, without overlap; at most kMaxChapters. No output has them.
    std::vector<Chapter> chapters;
};

// The part of the metadata that an output gets.
RecordingMetadata selectMetadata(const RecordingMetadata& found, MetadataPolicy policy);

// Values are limited, because inputs are untrusted.
constexpr size_t kMaxMetadataBytes = 1024;
constexpr size_t kMaxUnusedMetadata = 32;
constexpr size_t kMaxChapters = 10000;

// The text up to a NUL, without control characters and outer spaces, cut at a character so that it
// has at most `maxBytes`. Empty when it is not UTF-8.
std::string cleanMetadata(std::string_view text, size_t maxBytes = kMaxMetadataBytes);

// Whether the text is a date: "2013", "2013-11", "2013-11-29" or "2013:11:29". A time such as
// "13:19", "13:19:09" or "13:19:09.5" may follow, and then "Z" or an offset from UTC such as
// "+0100".
bool isDate(const std::string& text);
// The moment that a date with time and offset stands for, as a creation time. Nothing for other
// dates, and for moments that a file cannot hold.
std::optional<std::string> creationTimeOf(const std::string& date);

// Whether the text is a place: latitude, longitude and perhaps altitude in decimal degrees and
// metres, each with its sign (ISO 6709, Annex H).
bool isLocation(const std::string& text);

// The code of ISO 639-2/T, which MP4 files have, for that code or the one of 639-2/B. Empty for
// other texts and for an undetermined language.
std::string languageCode(std::string_view language);

// Puts the metadata into the message of a file's format.
struct MetadataMessage : public RefBase {
    static constexpr const char* kKey = "recording-metadata";
    RecordingMetadata content;
};

// Passes metadata from the extractor of a session to its writer. Any thread may call any operation.
class SessionMetadata {
public:
    explicit SessionMetadata(MetadataPolicy policy) : mPolicy(policy) {}

    // For the extractor.
    void set(const RecordingMetadata& found);
    void setLanguage(bool isVideo, const std::string& language);

    // For the writer: what the output gets. A language is empty when it is not known.
    RecordingMetadata selected() const;
    std::string language(bool isVideo) const;

private:
    const MetadataPolicy mPolicy;
    mutable Mutex mLock;
    RecordingMetadata mSelected GUARDED_BY(mLock);
    std::string mLanguages[2] GUARDED_BY(mLock);  // audio, video
};

}  // namespace qmmediaeditor
}  // namespace android
