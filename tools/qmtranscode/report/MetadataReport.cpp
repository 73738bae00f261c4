#include <qmtranscode/report/MetadataReport.h>

namespace android::qmmediaeditor::cli {

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kNotAskedFor = "kept only with --keep-location";
constexpr const char* kNoneAskedFor = "--no-metadata was given";

Entries languagesOf(const MediaFile& media) {
    Entries languages;
    if (media.video && !media.video->language.empty()) {
        languages.emplace_back("video_language", media.video->language);
    }
    if (media.audio && !media.audio->language.empty()) {
        languages.emplace_back("audio_language", media.audio->language);
    }
    return languages;
}

void append(const Entries& more, Entries* entries) {
    entries->insert(entries->end(), more.begin(), more.end());
}

Entries fieldsOf(const RecordingMetadata& metadata) {
    Entries entries;
    for (const auto& [field, value] : metadata.fields) entries.emplace_back(nameOf(field), value);
    return entries;
}

const char* textOf(UnusedMetadata::Reason reason) {
    switch (reason) {
        case UnusedMetadata::Reason::kUnknown:
            return "not among the entries that are kept";
        case UnusedMetadata::Reason::kMalformed:
            return "not a valid value";
        case UnusedMetadata::Reason::kLocation:
            return "its XMP has a GPS position, kept only with --keep-location";
    }
    return "";
}

Entries droppedOf(const MediaFile& input, MetadataPolicy policy) {
    Entries entries;
    const auto selected = selectMetadata(input.metadata, policy).fields;
    const bool isNone = policy == MetadataPolicy::kNone;
    for (const auto& [field, value] : input.metadata.fields) {
        if (selected.count(field) != 0) continue;
        entries.emplace_back(nameOf(field), isNone ? kNoneAskedFor : kNotAskedFor);
    }
    for (const auto& [name, language] : isNone ? languagesOf(input) : Entries()) {
        entries.emplace_back(name, kNoneAskedFor);
    }
    for (const auto& [name, reason] : input.metadata.unused) {
        entries.emplace_back(name, textOf(reason));
    }
    return entries;
}

}  // namespace

MetadataReport describeMetadata(const MediaFile& input, MetadataPolicy policy) {
    MetadataReport report = {fieldsOf(selectMetadata(input.metadata, policy)),
                             droppedOf(input, policy)};
    if (policy != MetadataPolicy::kNone) append(languagesOf(input), &report.kept);
    return report;
}

MetadataReport describeMetadata(const MediaFile& input, MetadataPolicy policy,
                                const MediaFile& output) {
    MetadataReport report = {fieldsOf(output.metadata), droppedOf(input, policy)};
    append(languagesOf(output), &report.kept);
    return report;
}

Json toJson(const MetadataReport& report) {
    Json kept = Json::object();
    for (const auto& [name, value] : report.kept) kept[name] = value;
    Json dropped = Json::array();
    for (const auto& [name, reason] : report.dropped) {
        dropped.push_back({{"name", name}, {"why", reason}});
    }
    return {{"kept", std::move(kept)}, {"dropped", std::move(dropped)}};
}

}  // namespace android::qmmediaeditor::cli
