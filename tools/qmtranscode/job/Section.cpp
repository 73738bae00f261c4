#include <errno.h>
#include <fmt/format.h>
#include <qmtranscode/job/Section.h>
#include <qmtranscode/report/Format.h>
#include <sha2.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace android::qmmediaeditor::cli {

namespace {

constexpr double kSecondUs = 1e6;
constexpr uint8_t kBoxType[] = {'q', 'm', 'p', 't'};
constexpr size_t kHeaderBytes = 8;
constexpr uint8_t kFileTypeBox[] = {0,   0,   0, 20, 'f', 't', 'y', 'p', 'i', 's',
                                    'o', 'm', 0, 0,  2,   0,   'i', 's', 'o', 'm'};
constexpr size_t kMaxDescriptionBytes = 64 * 1024;

// The distance of two key frames of the output: the first frame that is at least a second behind
// the one before. 0 if that is not known because frames are dropped from a variable rate.
double keyFrameDistanceUs(const Options& options, const KeptPeriods& kept,
                          const VideoTrack& video) {
    const double rate = video.constantRate.numerator > 0 ? video.constantRate.value() : 0;
    double frameUs = rate > 0 ? kSecondUs / rate : 0;
    const int32_t maxRate = options.frameRate.value_or(0);
    if (maxRate > 0 && maxRate < video.frameRate) {
        // The first frame of each period determines which frames are dropped.
        if (rate <= 0 || kept.actual.size() > 1) return 0;
        const int64_t minUs = 1000000 / maxRate;
        frameUs *= std::ceil(static_cast<double>(minUs) / frameUs - 1e-3);
    }
    return frameUs > 0 ? frameUs * std::ceil(kSecondUs / frameUs - 1e-5) : kSecondUs;
}

// The periods that make [fromUs, untilUs) of the output.
KeptPeriods periodsBetween(const KeptPeriods& kept, int64_t fromUs, int64_t untilUs) {
    KeptPeriods result;
    int64_t outputUs = 0;
    for (size_t i = 0; i < kept.actual.size(); ++i) {
        const TrimPeriod& period = kept.actual[i];
        const int64_t lengthUs = period.mEndUs - period.mStartUs;
        const int64_t beginUs = std::max(fromUs - outputUs, int64_t{0});
        const int64_t endUs = std::min(untilUs - outputUs, lengthUs);
        outputUs += lengthUs;
        if (beginUs >= endUs) continue;
        TrimPeriod part = period;
        part.mStartUs = period.mStartUs + beginUs;
        part.mEndUs = period.mStartUs + endUs;
        result.actual.push_back(part);
        if (endUs == lengthUs) part.mEndUs = kept.asked[i].mEndUs;
        result.asked.push_back(part);
    }
    return result;
}

void put32(uint32_t value, uint8_t* data) {
    for (int i = 0; i < 4; ++i) data[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

uint64_t get(const uint8_t* data, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | data[i];
    return value;
}

int writeAt(int fd, const void* data, size_t size, int64_t offset) {
    const ssize_t written = pwrite(fd, data, size, offset);
    if (written < 0) return errno;
    return static_cast<size_t>(written) == size ? 0 : EIO;
}

std::string toJson(const PartDescription& d) {
    Json json = {{"section", d.section.index},
                 {"sections", d.section.count},
                 {"request", d.request},
                 {"input", d.input},
                 {"complete", d.isComplete},
                 {"video", d.isVideo},
                 {"audio", d.isAudio},
                 {"start_us", d.startUs},
                 {"end_us", d.endUs},
                 {"first_us", d.firstUs},
                 {"frames", d.frames},
                 {"file_type", d.fileType},
                 {"faststart", d.fastStart},
                 {"decoder", d.decoder},
                 {"encoder", d.encoder},
                 {"input_width", d.inputWidth},
                 {"input_height", d.inputHeight},
                 {"input_sample_rate", d.inputSampleRate},
                 {"input_channels", d.inputChannels},
                 {"quality", d.quality.value_or(0)},
                 {"rate", {d.frameRate.numerator, d.frameRate.denominator}},
                 {"damaged", d.damagedPackets},
                 {"interlaced", d.interlacedFrames},
                 {"deinterlaced", d.deinterlacedFrames},
                 {"threads", d.threads},
                 {"digest", d.digest}};
    return dumpJsonLine(json);
}

PartDescription fromJson(const Json& json) {
    PartDescription d;
    d.section = {json.at("section"), json.at("sections")};
    d.request = json.at("request");
    d.input = json.at("input");
    d.isComplete = json.at("complete");
    d.isVideo = json.at("video");
    d.isAudio = json.at("audio");
    d.startUs = json.at("start_us");
    d.endUs = json.at("end_us");
    d.firstUs = json.at("first_us");
    d.frames = json.at("frames");
    d.fileType = json.at("file_type");
    d.fastStart = json.at("faststart");
    d.decoder = json.at("decoder");
    d.encoder = json.at("encoder");
    d.inputWidth = json.at("input_width");
    d.inputHeight = json.at("input_height");
    d.inputSampleRate = json.at("input_sample_rate");
    d.inputChannels = json.at("input_channels");
    if (const int32_t quality = json.at("quality"); quality > 0) d.quality = quality;
    d.frameRate = {json.at("rate").at(0), json.at("rate").at(1)};
    d.damagedPackets = json.at("damaged");
    d.interlacedFrames = json.at("interlaced");
    d.deinterlacedFrames = json.at("deinterlaced");
    d.threads = json.at("threads");
    d.digest = json.at("digest");
    return d;
}

// SHA-256 of the first bytes of a file and of the description that follows, in hexadecimal digits;
// empty, with errno, on error.
std::string digestOf(int fd, int64_t bytes, PartDescription description) {
    description.digest.clear();
    const std::string text = toJson(description);
    SHA2_CTX context;
    SHA256Init(&context);
    std::vector<uint8_t> buffer(size_t{1} << 20);
    for (int64_t at = 0; at < bytes;) {
        const auto wanted = std::min(static_cast<int64_t>(buffer.size()), bytes - at);
        const ssize_t size =
            TEMP_FAILURE_RETRY(pread(fd, buffer.data(), static_cast<size_t>(wanted), at));
        if (size == 0) errno = EIO;
        if (size <= 0) return "";
        SHA256Update(&context, buffer.data(), static_cast<size_t>(size));
        at += size;
    }
    SHA256Update(&context, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    char digest[SHA256_DIGEST_STRING_LENGTH];
    SHA256End(&context, digest);
    return digest;
}

struct LastBox {
    std::string payload;
    int64_t offset = 0;
    int error = 0;  // errno, if the file could not be read
};

// The last box, if it has the type.
LastBox readLastBox(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return {"", 0, errno};
    uint8_t header[kHeaderBytes + 8];
    int64_t at = 0;
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(pread(fd, header, sizeof(header), at));
        if (got < 0) return {"", 0, errno};
        if (got < static_cast<ssize_t>(kHeaderBytes)) break;
        auto size = static_cast<int64_t>(get(header, 4));
        const bool isFound = memcmp(header + 4, kBoxType, sizeof(kBoxType)) == 0;
        if (size == 1) size = static_cast<int64_t>(get(header + kHeaderBytes, 8));
        if (size < static_cast<int64_t>(kHeaderBytes) || size > status.st_size - at) break;
        if (isFound && at + size == status.st_size) {
            const auto bytes = static_cast<size_t>(size) - kHeaderBytes;
            std::string text(std::min(bytes, kMaxDescriptionBytes), '\0');
            const ssize_t read =
                TEMP_FAILURE_RETRY(pread(fd, text.data(), text.size(), at + int64_t{kHeaderBytes}));
            if (read < 0) return {"", 0, errno};
            return read == static_cast<ssize_t>(bytes) ? LastBox{text, at, 0} : LastBox{};
        }
        at += size;
    }
    return {};
}

}  // namespace

Result<SectionPlan> planSection(const Options& options, const KeptPeriods& kept,
                                const MediaFile& input) {
    const Section& section = *options.section;
    SectionPlan plan;
    plan.endUs = 0;
    if (!input.video || section.index == 0) return plan;
    const double distanceUs = keyFrameDistanceUs(options, kept, *input.video);
    if (distanceUs == 0) {
        return Failure{kExitUnusable, options.input,
                       "with --fps, sections need a constant frame rate and a single period",
                       "sections-need-constant-rate"};
    }
    const auto lengthUs = static_cast<double>(outputLengthUs(kept, input));
    // Times of frames are rounded to microseconds.
    constexpr int64_t kRoundingUs = 1000;
    const auto keyFrameUs = [&](double number) {
        return std::max<int64_t>(std::llround(number * distanceUs) - kRoundingUs, 0);
    };
    const auto cut = [&](int32_t index) {
        return std::floor(lengthUs * index / section.count / distanceUs);
    };
    // As long as the rate control looks back for the max bit rate.
    constexpr double kLeadKeyFrames = 2;
    plan.startUs = keyFrameUs(cut(section.index - 1));
    plan.encodedFromUs = keyFrameUs(std::max(cut(section.index - 1) - kLeadKeyFrames, 0.0));
    plan.endUs = section.index == section.count ? kEndOfInputUs : keyFrameUs(cut(section.index));
    KeptPeriods whole = kept;
    if (whole.actual.empty()) {
        TrimPeriod period{};
        // Behind the end, where the length is known, so that progress has an end.
        constexpr int64_t kMarginUs = 1000000;
        period.mEndUs = input.durationUs() > 0 && !input.isDurationEstimated
                            ? input.durationUs() + kMarginUs
                            : kEndOfInputUs;
        whole.actual = whole.asked = {period};
    }
    plan.periods = periodsBetween(whole, plan.encodedFromUs, plan.endUs);
    return plan;
}

int writeDescription(int fd, const PartDescription& description) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return errno;
    int64_t at = status.st_size;
    if (at == 0) {
        if (const int error = writeAt(fd, kFileTypeBox, sizeof(kFileTypeBox), at)) return error;
        at += static_cast<int64_t>(sizeof(kFileTypeBox));
    }
    PartDescription complete = description;
    complete.digest = digestOf(fd, at, description);
    if (complete.digest.empty()) return errno;
    const std::string text = toJson(complete);
    std::string box(kHeaderBytes, '\0');
    put32(static_cast<uint32_t>(kHeaderBytes + text.size()), reinterpret_cast<uint8_t*>(&box[0]));
    memcpy(&box[4], kBoxType, sizeof(kBoxType));
    box += text;
    return writeAt(fd, box.data(), box.size(), at);
}

std::optional<PartDescription> readDescription(int fd) {
    const LastBox box = readLastBox(fd);
    PartDescription description;
    description.readError = box.error;
    if (box.error != 0) return description;
    const Json json = Json::parse(box.payload, nullptr, false);
    try {
        description = fromJson(json);
        const std::string digest = digestOf(fd, box.offset, description);
        if (digest.empty()) description.readError = errno;
        description.isIntact = digest == description.digest;
        return description;
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

std::string inputFingerprint(int fd) {
    constexpr int64_t kBytes = 64 * 1024;
    struct stat status {};
    if (fstat(fd, &status) != 0) return "";
    std::string bytes(2 * kBytes, '\0');
    const ssize_t first = pread(fd, &bytes[0], kBytes, 0);
    const ssize_t last =
        pread(fd, &bytes[kBytes], kBytes, std::max<int64_t>(status.st_size - kBytes, 0));
    if (first < 0 || last < 0) return "";
    return sha256(std::to_string(status.st_size) + bytes);
}

}  // namespace android::qmmediaeditor::cli
