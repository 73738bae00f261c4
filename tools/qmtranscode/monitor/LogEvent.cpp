#include <qmtranscode/monitor/LogEvent.h>

#include <charconv>

namespace android::qmmediaeditor::cli {

namespace {

constexpr char kSession[] = "Transcode";
constexpr char kEntry[] = "TranscodeComponent";
constexpr char kVideoSource[] = "TVideoSource";
constexpr char kVideoEncoder[] = "VideoEncoderThread";
constexpr char kAudioSource[] = "TAudioSource";
constexpr char kAudioEncoder[] = "AudioEncoderThread";

constexpr char kDrains[] = "takes decoded frames";
constexpr char kTakesEncodedVideo[] = "takes encoded video";
constexpr char kTakesEncodedAudio[] = "takes encoded audio";
constexpr char kFeedsVideoEncoder[] = "feeds the video encoder";
constexpr char kFeedsAudioEncoder[] = "feeds the audio encoder";
constexpr char kWritesVideo[] = "writes video";
constexpr char kWritesAudio[] = "writes audio";
constexpr char kForWriter[] = "for the writer to start";

// Grouped by tag; the first pattern that fits counts.
constexpr LogPattern kPatterns[] = {
    {kEntry, "call process", nullptr, Activity::kStarts, "opens input and output", Queue::kNone,
     QueueChange::kNone, nullptr, Stage::kNone, "session"},
    {kEntry, "call cancel", nullptr, Activity::kEvent, "stop requested"},

    {kSession, "Decoded frame size : 0,", nullptr, Activity::kUnchanged, nullptr},
    {kSession, "Decoded frame size : ", "[Video]", Activity::kWorks, "queues a frame",
     Queue::kDecodedVideo, QueueChange::kPushed, nullptr, Stage::kVideoDecoded},
    {kSession, "Decoded frame size : ", "[Audio]", Activity::kWorks, "queues audio"},
    {kSession, "decoder output -EAGAIN", nullptr, Activity::kPolls, "for decoded frames"},
    {kSession, "Start loop", nullptr, Activity::kWorks, kDrains},
    {kSession, "inputThreadEntry start", nullptr, Activity::kStarts, "reads and feeds the decoders",
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kNone, "input reader"},
    {kSession, "inputThreadEntry end", nullptr, Activity::kEnds, nullptr},
    {kSession, "Do transcode seekTo Prev : ", nullptr, Activity::kEvent, "seek"},
    {kSession, "mNeedtoSeek : ", nullptr, Activity::kEvent, "seek backwards"},
    {kSession, "Trim time was overed", nullptr, Activity::kEvent, "last period read"},
    {kSession, "saw input eos", nullptr, Activity::kWorks, "signals end of stream to the decoders"},
    {kSession, "setVideoEncoderInfo[1]", nullptr, Activity::kEvent, "video format"},
    {kSession, "setAudioEncoderInfo[1]", nullptr, Activity::kEvent, "audio format"},
    {kSession, "[Video] reached EOS", nullptr, Activity::kEvent, "end of video"},
    {kSession, "[Audio] reached EOS", nullptr, Activity::kEvent, "end of audio"},
    {kSession, "doTranscode Start", nullptr, Activity::kWorks, "starts decoders and writer"},
    {kSession, "wait writer EOS", nullptr, Activity::kWaits,
     "for the writer to take the last samples"},
    {kSession, "call writer stop", nullptr, Activity::kWorks, "closes the file"},
    {kSession, "doTranscode End", nullptr, Activity::kWorks, "cleans up"},
    {kSession, "Decontructor ~Transcode end", nullptr, Activity::kEnds, nullptr},

    {kVideoSource, "wait@mDecoderBufferReturnedCond [DecodedSample:", nullptr, Activity::kWaits,
     "for the video encoder to take a batch", Queue::kDecodedVideo, QueueChange::kFull, kDrains},
    {kVideoSource, "drop ", nullptr, Activity::kEvent, "frame dropped", Queue::kDecodedVideo,
     QueueChange::kDropped},
    {kVideoSource, "waiting @ read()", nullptr, Activity::kWaits, "for encoded video",
     Queue::kEncodedVideo, QueueChange::kEmpty, kWritesVideo, Stage::kVideoWritten, "video writer"},
    {kVideoSource, "wait @ buffer returned condition in pushEncodedBuffer [EncodedSample:", nullptr,
     Activity::kWaits, "for the writer to take a batch", Queue::kEncodedVideo, QueueChange::kFull,
     kTakesEncodedVideo, Stage::kVideoEncoded},
    {kVideoSource, "wait @ Buffer Start", nullptr, Activity::kWaits, kForWriter},
    {kVideoSource, "pushBuffer called before start", nullptr, Activity::kWaits, kForWriter},
    {kVideoSource, "Decoder is stopped. so Buffer returned Cond ", nullptr, Activity::kWorks,
     kWritesVideo, Queue::kNone, QueueChange::kNone, nullptr, Stage::kVideoWritten, "video writer"},
    {kVideoSource, "eos---", nullptr, Activity::kWorks, "ends the track"},
    {kVideoSource, "reCreate", nullptr, Activity::kWorks, "creates the video encoder"},

    {kVideoEncoder, "waiting @ Decoded data read()", nullptr, Activity::kWaits,
     "for decoded frames", Queue::kDecodedVideo, QueueChange::kEmpty, kFeedsVideoEncoder,
     Stage::kVideoTaken},
    {kVideoEncoder, "inputThreadEntry start", nullptr, Activity::kStarts, kFeedsVideoEncoder,
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kNone, "video encoder input"},
    {kVideoEncoder, "inputThreadEntry end", nullptr, Activity::kEnds, nullptr},
    {kVideoEncoder, "Not OK dequeueInputBuffer", nullptr, Activity::kPolls,
     "for an input buffer of the video encoder"},
    {kVideoEncoder, "Call threadLoop start", nullptr, Activity::kStarts, kTakesEncodedVideo,
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kNone, "video encoder output"},
    {kVideoEncoder, "Call threadLoop End", nullptr, Activity::kEnds, nullptr},
    {kVideoEncoder, "Error[-11]", nullptr, Activity::kPolls, "for the video encoder"},

    {kAudioSource, "In Sample info : size[", nullptr, Activity::kUnchanged, nullptr,
     Queue::kDecodedAudio, QueueChange::kPushed, nullptr, Stage::kAudioDecoded, nullptr, 2},
    {kAudioSource, "Call pushDecodedBuffer end", nullptr, Activity::kWorks, kDrains},
    {kAudioSource, "Enter pushEncodedBuffer", nullptr, Activity::kUnchanged, nullptr,
     Queue::kEncodedAudio, QueueChange::kPushed},
    {kAudioSource, "End pushEncodedBuffer", nullptr, Activity::kPolls, "for the audio encoder"},
    {kAudioSource, "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer2 [", nullptr,
     Activity::kWaits, "for the audio encoder to take a batch", Queue::kDecodedAudio,
     QueueChange::kFull, kDrains},
    {kAudioSource, "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer3 [", nullptr,
     Activity::kWaits, "for the audio encoder to take a batch", Queue::kDecodedAudio,
     QueueChange::kFull, kDrains},
    {kAudioSource, "waiting @ mBufferReturnedCond in pushEncodedBuffer [", nullptr,
     Activity::kWaits, "for the writer to take a batch", Queue::kEncodedAudio, QueueChange::kFull,
     kTakesEncodedAudio},
    {kAudioSource, "waiting @ read()", nullptr, Activity::kWaits, "for encoded audio",
     Queue::kEncodedAudio, QueueChange::kEmpty, kWritesAudio, Stage::kAudioWritten, "audio writer"},
    {kAudioSource, "waiting @ pushEncodedBuffer called before start", nullptr, Activity::kWaits,
     kForWriter},
    {kAudioSource, "pushBuffer called before start", nullptr, Activity::kWaits, kForWriter},
    {kAudioSource, "Decoder is stopped. so Buffer returned Cond ", nullptr, Activity::kWorks,
     kWritesAudio, Queue::kNone, QueueChange::kNone, nullptr, Stage::kAudioWritten, "audio writer"},
    {kAudioSource, "eos---", nullptr, Activity::kWorks, "ends the track"},

    {kAudioEncoder, "filling input buffer ", nullptr, Activity::kWorks, kFeedsAudioEncoder},
    {kAudioEncoder, "Check sample timeUs --> : ", nullptr, Activity::kUnchanged, nullptr,
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kAudioTaken, nullptr, 1},
    {kAudioEncoder, "draining output buffer ", nullptr, Activity::kWorks, "queues encoded audio",
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kAudioEncoded, nullptr, 2},
    {kAudioEncoder, "waiting @ Decoded data read()", nullptr, Activity::kWaits, "for decoded audio",
     Queue::kDecodedAudio, QueueChange::kEmpty, kFeedsAudioEncoder},
    {kAudioEncoder, "inputThreadEntry start", nullptr, Activity::kStarts, kFeedsAudioEncoder,
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kNone, "audio encoder input"},
    {kAudioEncoder, "inputThreadEntry end", nullptr, Activity::kEnds, nullptr},
    {kAudioEncoder, "Call threadLoop start", nullptr, Activity::kStarts, kTakesEncodedAudio,
     Queue::kNone, QueueChange::kNone, nullptr, Stage::kNone, "audio encoder output"},
    {kAudioEncoder, "Call threadLoop End", nullptr, Activity::kEnds, nullptr},
};

// The next integer in the text, which is then cut off behind it.
int64_t takeInteger(std::string_view* text) {
    const size_t digit = text->find_first_of("0123456789");
    if (digit == std::string_view::npos) return 0;
    const bool isNegative = digit > 0 && (*text)[digit - 1] == '-';
    const char* const begin = text->data() + digit - (isNegative ? 1 : 0);
    int64_t number = 0;
    const auto [end, error] = std::from_chars(begin, text->data() + text->size(), number);
    text->remove_prefix(static_cast<size_t>(end - text->data()));
    return error == std::errc() ? number : 0;
}

}  // namespace

const char* nameOf(Queue queue) {
    constexpr const char* kNames[kQueueCount] = {"", "decoded video", "encoded video",
                                                 "decoded audio", "encoded audio"};
    return kNames[static_cast<size_t>(queue)];
}

const char* nameOf(Stage stage) {
    constexpr const char* kNames[kStageCount] = {
        "",
        "video decoded",
        "video taken by the encoder",
        "video encoded",
        "video written",
        "audio decoded",
        "audio taken by the encoder",
        "audio encoded",
        "audio written",
    };
    return kNames[static_cast<size_t>(stage)];
}

std::optional<LogEvent> parseLogMessage(std::string_view tag, std::string_view message) {
    const char* group = nullptr;
    bool isGroupOfTag = false;
    for (const LogPattern& pattern : kPatterns) {
        if (pattern.tag != group) {
            group = pattern.tag;
            isGroupOfTag = tag == group;
        }
        const std::string_view prefix = pattern.prefix;
        if (!isGroupOfTag || message.substr(0, prefix.size()) != prefix) continue;
        std::string_view rest = message.substr(prefix.size());
        if (pattern.contains != nullptr && rest.find(pattern.contains) == std::string_view::npos) {
            continue;
        }
        const int64_t first = takeInteger(&rest);
        return LogEvent{&pattern, first, takeInteger(&rest)};
    }
    return std::nullopt;
}

}  // namespace android::qmmediaeditor::cli
