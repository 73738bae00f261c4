#include <errno.h>
#include <fmt/format.h>
#include <host/io/IsoBoxes.h>
#include <qmtranscode/job/Comparison.h>
#include <qmtranscode/job/OutputVerifier.h>
#include <qmtranscode/report/Format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

namespace android::qmmediaeditor::cli {

namespace {

// The container of a file, by the boxes at its top level (ISO/IEC 14496-12).
struct Container {
    std::optional<FileFormat> format;  // nothing for another container than MP4 and 3GP
    bool isFastStart = false;
    // The file ends within a box, or without a movie box.
    bool isCutOff = false;
};

Container readContainer(int fd) {
    Container container;
    struct stat file {};
    if (fstat(fd, &file) != 0) return container;
    bool hasMovie = false;
    bool hasSamples = false;
    int64_t offset = 0;
    constexpr int kMaxBoxes = 64;
    for (int i = 0; i < kMaxBoxes; ++i) {
        uint8_t header[16] = {};
        const bool isBox = pread(fd, header, sizeof(header), offset) >= 8;
        const uint32_t type = get32(header + 4);
        if (i == 0) {
            if (!isBox || type != fourCc("ftyp")) break;
            const uint32_t brand = get32(header + 8);
            if (brand == fourCc("qt  ")) break;
            const bool is3gp = brand >> 16 == fourCc("3g\0\0") >> 16;
            container.format = is3gp ? FileFormat::k3gp : FileFormat::kMp4;
        }
        if (!isBox) {
            container.isCutOff = offset < file.st_size || !hasMovie;
            break;
        }
        if (type == fourCc("mdat")) hasSamples = true;
        if (type == fourCc("moov")) {
            hasMovie = true;
            container.isFastStart = !hasSamples;
        }
        const uint32_t size = get32(header);
        const int64_t bytes =
            size == 1 ? static_cast<int64_t>(get32(header + 8)) << 32 | get32(header + 12) : size;
        if (bytes < 8) break;
        container.isCutOff = bytes > file.st_size - offset;
        if (container.isCutOff) break;
        offset += bytes;
    }
    return container;
}

// Compares the values of a file with those that are asked for.
class Comparer {
public:
    explicit Comparer(const char* place) : mPlace(place) {}

    template <typename T>
    void expect(const char* what, const T& found, const T& wanted) {
        if (found == wanted) return;
        add("{} has {} {} instead of {}", mPlace, what, found, wanted);
    }

    template <typename... Values>
    void add(fmt::format_string<Values...> format, Values&&... values) {
        mDifferences.push_back(fmt::format(format, std::forward<Values>(values)...));
    }

    Differences take() { return std::move(mDifferences); }

private:
    const char* mPlace;
    Differences mDifferences;
};

int32_t numberOf(const sp<AMessage>& format, const char* key) {
    int32_t value = 0;
    format->findInt32(key, &value);
    return value;
}

const char* nameOf(VideoCodec codec) {
    for (const auto& [name, value] : videoCodecs()) {
        if (value == codec) return name.c_str();
    }
    return "";
}

const char* nameOf(AudioCodec codec) {
    for (const auto& [name, value] : audioCodecs()) {
        if (value == codec) return name.c_str();
    }
    return "";
}

const char* nameOf(std::optional<FileFormat> format) {
    if (!format) return "another one";
    return format == FileFormat::k3gp ? "3gp" : "mp4";
}

std::string sizeOf(int32_t width, int32_t height) { return fmt::format("{}x{}", width, height); }

// Codecs and sizes of `file` against the output format.
void compareTracks(const Options& options, const MediaFile& input, const MediaFile& file,
                   const sp<AMessage>& format, Comparer* comparer) {
    using std::string;
    if (file.video) {
        const VideoTrack& video = *file.video;
        comparer->expect<string>("the video codec", codecName(video.mime),
                                 nameOf(options.videoCodec.value_or(VideoCodec::kAvc)));
        comparer->expect("the frame size", sizeOf(video.width, video.height),
                         sizeOf(numberOf(format, "video-width"), numberOf(format, "video-height")));
        comparer->expect("the rotation", video.rotation, input.video->rotation);
        if (options.frameRate && video.frameRate > *options.frameRate) {
            comparer->expect("the frame rate", video.frameRate, *options.frameRate);
        }
    }
    if (file.audio) {
        const AudioTrack& audio = *file.audio;
        comparer->expect<string>("the audio codec", codecName(audio.mime),
                                 nameOf(options.audioCodec.value_or(AudioCodec::kAac)));
        comparer->expect("the sample rate", audio.sampleRate, numberOf(format, "audio-samplerate"));
        comparer->expect("a number of channels of", audio.channels,
                         numberOf(format, "audio-channels"));
    }
}

// Where the samples of a track that are in the periods end in the output, from its first one, in
// microseconds. Nothing if there are none.
struct Span {
    int64_t firstUs;
    int64_t lastUs;
};

Span spanOf(const TrackSamples& samples, const KeptPeriods& kept) {
    Span span{std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
    const auto add = [&span](int64_t timeUs) {
        span.firstUs = std::min(span.firstUs, timeUs);
        span.lastUs = std::max(span.lastUs, timeUs);
    };
    // Leading frames of the first one refer to frames that are not there, so they are not shown.
    const int64_t firstUs = samples.timesUs.empty() ? 0 : samples.timesUs.front();
    for (const int64_t timeUs : samples.timesUs) {
        if (timeUs < firstUs) continue;
        if (kept.actual.empty() && timeUs >= 0) add(timeUs);
        int64_t startUs = 0;
        for (const TrimPeriod& period : kept.actual) {
            if (timeUs >= period.mStartUs && timeUs < period.mEndUs) {
                add(startUs + timeUs - period.mStartUs);
            }
            startUs += period.mEndUs - period.mStartUs;
        }
    }
    return span;
}

// The length of the audio in the output. Where the input's audio begins late, the output's begins
// with it or with silence.
struct AudioLength {
    int64_t minUs = 0;
    int64_t maxUs = 0;
};

AudioLength audioLength(const TrackSamples& samples, const KeptPeriods& kept) {
    const std::vector<TrimPeriod> whole = {{0, samples.endUs}};
    AudioLength length;
    for (const TrimPeriod& period : kept.actual.empty() ? whole : kept.actual) {
        const int64_t endUs = std::min(period.mEndUs, samples.endUs);
        const int64_t startUs = std::max(period.mStartUs, samples.firstUs);
        length.minUs += std::max<int64_t>(endUs - startUs, 0);
        length.maxUs += std::max<int64_t>(endUs - period.mStartUs, 0);
    }
    return length;
}

OutputComparison compareLengths(const Options& options, const JobInput& input,
                                const KeptPeriods& kept, const OutputContents& output) {
    Comparer comparer("it");
    Comparer other("it");
    const MediaFile& media = input.media();
    std::vector<size_t> tracks;
    if (media.video) tracks.push_back(media.video->index);
    if (media.audio) tracks.push_back(media.audio->index);
    const auto samples = readSamples(input.fd(), tracks);
    if (!samples) {
        comparer.add("the input cannot be read to its end");
        return {{}, comparer.take()};
    }
    const Span wanted = media.video ? spanOf(samples->front(), kept) : Span{0, -1};
    if (media.video && !output.video && wanted.firstUs <= wanted.lastUs)
        other.add("it has no video");
    const AudioLength wantedAudio =
        media.audio ? audioLength(samples->back(), kept) : AudioLength();
    if (media.audio && !output.audio && wantedAudio.minUs > 0) other.add("it has no audio");
    if (media.video && output.video) {
        const Span found = spanOf(*output.video, {});
        // Of timestamps, of the second field of the last frame, which may be a sample of its own,
        // and of the last frame that a lower frame rate may leave out.
        constexpr int64_t kFieldUs = 20000;  // at 25 frames per second
        int64_t toleranceUs = 2000;
        if (media.video->isInterlaced) toleranceUs += kFieldUs;
        if (options.frameRate) toleranceUs += 1000000 / *options.frameRate;
        const int64_t lackingUs = wanted.lastUs - wanted.firstUs - (found.lastUs - found.firstUs);
        if (wanted.firstUs <= wanted.lastUs && lackingUs >= toleranceUs) {
            comparer.add("the video ends {:.3f} s early", secondsOf(lackingUs));
        } else if (lackingUs <= -toleranceUs) {
            other.add("the video ends {:.3f} s late", secondsOf(-lackingUs));
        }
    }
    if (media.audio && output.audio) {
        const int64_t foundUs = output.audio->endUs - std::max<int64_t>(output.audio->firstUs, 0);
        // Encoders and resamplers may lack this much at the end.
        constexpr int64_t kToleranceUs = 50000;
        if (wantedAudio.minUs - foundUs > kToleranceUs) {
            comparer.add("the audio ends {:.3f} s early", secondsOf(wantedAudio.minUs - foundUs));
        } else if (foundUs - wantedAudio.maxUs > 4 * kToleranceUs) {
            other.add("the audio ends {:.3f} s late", secondsOf(foundUs - wantedAudio.maxUs));
        }
    }
    return {other.take(), comparer.take()};
}

}  // namespace

OutputComparison compareOutput(const Options& options, const JobInput& input,
                               const KeptPeriods& kept, int fd) {
    const Container container = readContainer(fd);
    if (container.isCutOff) return {{}, {"it is cut off"}};
    const auto contents = readOutput(fd);
    if (!contents) return {{"it is no media file"}, {}};
    const auto format = describeOutput(options, input.media());
    if (const auto* failure = std::get_if<Failure>(&format)) return {{failure->reason}, {}};
    const MediaFile& media = input.media();
    Comparer comparer("it");
    const FileFormat wanted = outputFileFormat(options);
    if (container.format != wanted) {
        comparer.add("its container is {} instead of {}", nameOf(container.format), nameOf(wanted));
    }
    if (options.fastStart && !container.isFastStart) {
        comparer.add("its movie box is behind the samples");
    }
    const MediaFile& output = contents->media;
    for (const auto& [name, isWanted, isFound] :
         {std::tuple("video", media.video.has_value(), output.video.has_value()),
          std::tuple("audio", media.audio.has_value(), output.audio.has_value())}) {
        if (isFound && !isWanted) comparer.add("it has a track of {}", name);
    }
    const size_t used = (output.video ? 1 : 0) + (output.audio ? 1 : 0);
    if (output.tracks.size() > used) comparer.add("it has more tracks");
    if (output.video && !output.video->hasOutputFrames) {
        comparer.add("its frames are not 8 bit, 4:2:0 and of standard range");
    }
    // The platform leaves out the same tracks of both files.
    if (std::any_of(output.tracks.begin(), output.tracks.end(),
                    [](const AnyTrack& track) { return track.isLeftOut; })) {
        comparer.add("it has a track that is to be left out");
    }
    if (output.video.has_value() <= media.video.has_value()) {
        compareTracks(options, media, output, std::get<sp<AMessage>>(format), &comparer);
    }
    if (media.uuidData != output.uuidData) comparer.add("its uuid data differs from the input's");
    if (auto fault = metadataFault(media, options.metadataPolicy(), output))
        comparer.add("{}", *fault);
    OutputComparison result{comparer.take(), {}};
    return result.others.empty() ? compareLengths(options, input, kept, *contents) : result;
}

int copyFile(int from, int to) {
    loff_t fromOffset = 0;
    loff_t toOffset = 0;
    constexpr size_t kChunkBytes = size_t{1} << 26;
    ssize_t copied;
    while ((copied = copy_file_range(from, &fromOffset, to, &toOffset, kChunkBytes, 0)) > 0) {
    }
    // Between some file systems, and in old kernels, the kernel copies nothing.
    const bool isUnsupported =
        copied < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP);
    if (copied == 0 || !isUnsupported) return static_cast<int>(copied);
    std::vector<char> buffer(size_t{1} << 20);
    while (true) {
        const ssize_t size =
            TEMP_FAILURE_RETRY(pread(from, buffer.data(), buffer.size(), fromOffset));
        if (size <= 0) return static_cast<int>(size);
        for (ssize_t done = 0; done < size;) {
            const ssize_t written = TEMP_FAILURE_RETRY(pwrite(
                to, buffer.data() + done, static_cast<size_t>(size - done), fromOffset + done));
            if (written < 0) return -1;
            done += written;
        }
        fromOffset += size;
    }
}

Differences whyNeeded(const Options& options, const JobInput& input, const KeptPeriods& kept) {
    const MediaFile& media = input.media();
    Comparer comparer("it");
    if (!kept.actual.empty()) comparer.add("only periods of it are kept");
    for (const auto& [isGiven, option] : {std::pair(options.volumeDb.has_value(), "--volume"),
                                          std::pair(options.loudness.has_value(), "--loudness"),
                                          std::pair(options.quality.has_value(), "--quality")}) {
        if (isGiven) comparer.add("{} is given", option);
    }
    const Container container = readContainer(input.fd());
    const FileFormat wanted = outputFileFormat(options);
    if (container.format != wanted) {
        comparer.add("its container is {} instead of {}", nameOf(container.format), nameOf(wanted));
    }
    if (options.fastStart && !container.isFastStart) {
        comparer.add("its movie box is behind the samples");
    }
    const size_t used = (media.video ? 1 : 0) + (media.audio ? 1 : 0);
    if (media.tracks.size() > used) comparer.add("it has more tracks than the output");
    const auto format = describeOutput(options, media);
    if (const auto* failure = std::get_if<Failure>(&format)) return {failure->reason};
    compareTracks(options, media, media, std::get<sp<AMessage>>(format), &comparer);
    if (media.video) {
        const VideoTrack& video = *media.video;
        if (video.isInterlaced && options.deinterlace.value_or(true)) {
            comparer.add("its frames are interlaced");
        }
        if (!video.hasOutputFrames) {
            comparer.add(
                "its frames are not 8 bit, 4:2:0, of standard range and with square samples");
        }
        if (options.videoBitrate && video.bitrate > *options.videoBitrate) {
            comparer.expect("a video bit rate of", video.bitrate, *options.videoBitrate);
        }
    }
    if (media.audio && options.audioBitrate && media.audio->bitrate > *options.audioBitrate) {
        comparer.expect("an audio bit rate of", media.audio->bitrate, *options.audioBitrate);
    }
    const MetadataPolicy policy = options.metadataPolicy();
    if (selectMetadata(media.metadata, policy).fields != media.metadata.fields) {
        comparer.add("it has metadata that the output must not have");
    } else if (policy != MetadataPolicy::kAll && !media.metadata.unused.empty()) {
        comparer.add("it has metadata that is not kept");
    }
    Differences differences = comparer.take();
    if (!differences.empty()) return differences;
    if (!readOutput(input.fd())) return {"it cannot be read to its end"};
    return {};
}

}  // namespace android::qmmediaeditor::cli
