#include <ctype.h>
#include <qmtranscode/monitor/LogEvent.h>
#include <stdlib.h>
#include <string.h>

namespace android::qmmediaeditor::cli {

namespace {

constexpr char kSession[] = "Transcode";
constexpr char kEntry[] = "TranscodeComponent";
constexpr char kPictures[] = "TVideoSource";
constexpr char kPictureEncoder[] = "VideoEncoderThread";
constexpr char kSound[] = "TAudioSource";
constexpr char kSoundEncoder[] = "AudioEncoderThread";

constexpr char kDrains[] = "takes decoded frames";
constexpr char kTakesPictures[] = "takes encoded pictures";
constexpr char kTakesSound[] = "takes encoded sound";
constexpr char kConverts[] = "converts pictures for the encoder";
constexpr char kConvertsSound[] = "converts sound for the encoder";
constexpr char kWritesPictures[] = "writes pictures";
constexpr char kWritesSound[] = "writes sound";
constexpr char kForWriter[] = "for the writer to start";

// Messages of one tag stand together; the first that fits counts.
const Phrase kPhrases[] = {
    {kEntry, "call process", nullptr, Act::kBegins, "opens input and output", Queue::kNone,
     Effect::kNone, nullptr, Stage::kNone, "session"},
    {kEntry, "call cancel", nullptr, Act::kEvent, "stop asked for"},

    {kSession, "Decoded frame size : 0,", nullptr, Act::kNothing, nullptr},
    {kSession, "Decoded frame size : ", "[Video]", Act::kWorks, "hands a picture over",
     Queue::kDecodedPictures, Effect::kPushed, nullptr, Stage::kPicturesDecoded},
    {kSession, "Decoded frame size : ", "[Audio]", Act::kWorks, "hands sound over"},
    {kSession, "decoder output -EAGAIN", nullptr, Act::kPolls, "for decoded frames"},
    {kSession, "Start loop", nullptr, Act::kWorks, kDrains},
    {kSession, "inputThreadEntry start", nullptr, Act::kBegins, "reads and feeds the decoders",
     Queue::kNone, Effect::kNone, nullptr, Stage::kNone, "input reader"},
    {kSession, "inputThreadEntry end", nullptr, Act::kEnds, nullptr},
    {kSession, "Do transcode seekTo Prev : ", nullptr, Act::kEvent, "seek"},
    {kSession, "mNeedtoSeek : ", nullptr, Act::kEvent, "cut, back in the input"},
    {kSession, "Trim time was overed", nullptr, Act::kEvent, "last period read"},
    {kSession, "saw input eos", nullptr, Act::kWorks, "tells the decoders the end"},
    {kSession, "setVideoEncoderInfo[1]", nullptr, Act::kEvent, "picture format"},
    {kSession, "setAudioEncoderInfo[1]", nullptr, Act::kEvent, "sound format"},
    {kSession, "[Video] reached EOS", nullptr, Act::kEvent, "pictures end"},
    {kSession, "[Audio] reached EOS", nullptr, Act::kEvent, "sound ends"},
    {kSession, "doTranscode Start", nullptr, Act::kWorks, "starts decoders and writer"},
    {kSession, "wait writer EOS", nullptr, Act::kWaits, "for the writer to take the rest"},
    {kSession, "call writer stop", nullptr, Act::kWorks, "closes the file"},
    {kSession, "doTranscode End", nullptr, Act::kWorks, "cleans up"},
    {kSession, "Decontructor ~Transcode end", nullptr, Act::kEnds, nullptr},

    {kPictures, "wait@mDecoderBufferReturnedCond [DecodedSample:", nullptr, Act::kWaits,
     "for the picture encoder to take a batch", Queue::kDecodedPictures, Effect::kFull, kDrains},
    {kPictures, "drop ", nullptr, Act::kEvent, "picture dropped", Queue::kDecodedPictures,
     Effect::kDropped},
    {kPictures, "waiting @ read()", nullptr, Act::kWaits, "for encoded pictures",
     Queue::kEncodedPictures, Effect::kEmpty, kWritesPictures, Stage::kPicturesWritten,
     "picture writer"},
    {kPictures, "wait @ buffer returned condition in pushEncodedBuffer [EncodedSample:", nullptr,
     Act::kWaits, "for the writer to take a batch", Queue::kEncodedPictures, Effect::kFull,
     kTakesPictures, Stage::kPicturesEncoded},
    {kPictures, "wait @ Buffer Start", nullptr, Act::kWaits, kForWriter},
    {kPictures, "pushBuffer called before start", nullptr, Act::kWaits, kForWriter},
    {kPictures, "Decoder is stopped. so Buffer returned Cond ", nullptr, Act::kWorks,
     kWritesPictures, Queue::kNone, Effect::kNone, nullptr, Stage::kPicturesWritten,
     "picture writer"},
    {kPictures, "eos---", nullptr, Act::kWorks, "ends the track"},
    {kPictures, "reCreate", nullptr, Act::kWorks, "makes the picture encoder"},

    {kPictureEncoder, "waiting @ Decoded data read()", nullptr, Act::kWaits, "for decoded pictures",
     Queue::kDecodedPictures, Effect::kEmpty, kConverts, Stage::kPicturesTaken},
    {kPictureEncoder, "inputThreadEntry start", nullptr, Act::kBegins, kConverts, Queue::kNone,
     Effect::kNone, nullptr, Stage::kNone, "picture encoder, input"},
    {kPictureEncoder, "inputThreadEntry end", nullptr, Act::kEnds, nullptr},
    {kPictureEncoder, "Not OK dequeueInputBuffer", nullptr, Act::kPolls,
     "for room in the picture encoder"},
    {kPictureEncoder, "Call threadLoop start", nullptr, Act::kBegins, kTakesPictures, Queue::kNone,
     Effect::kNone, nullptr, Stage::kNone, "picture encoder, output"},
    {kPictureEncoder, "Call threadLoop End", nullptr, Act::kEnds, nullptr},
    {kPictureEncoder, "Error[-11]", nullptr, Act::kPolls, "for the picture encoder"},

    {kSound, "In Sample info : size[", nullptr, Act::kNothing, nullptr, Queue::kDecodedSound,
     Effect::kPushed, nullptr, Stage::kSoundDecoded, nullptr, 2},
    {kSound, "Call pushDecodedBuffer end", nullptr, Act::kWorks, kDrains},
    {kSound, "Enter pushEncodedBuffer", nullptr, Act::kNothing, nullptr, Queue::kEncodedSound,
     Effect::kPushed},
    {kSound, "End pushEncodedBuffer", nullptr, Act::kPolls, "for the sound encoder"},
    {kSound, "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer2 [", nullptr, Act::kWaits,
     "for the sound encoder to take a batch", Queue::kDecodedSound, Effect::kFull, kDrains},
    {kSound, "waiting @ mDecoderBufferReturnedCond in pushDecodedBuffer3 [", nullptr, Act::kWaits,
     "for the sound encoder to take a batch", Queue::kDecodedSound, Effect::kFull, kDrains},
    {kSound, "waiting @ mBufferReturnedCond in pushEncodedBuffer [", nullptr, Act::kWaits,
     "for the writer to take a batch", Queue::kEncodedSound, Effect::kFull, kTakesSound},
    {kSound, "waiting @ read()", nullptr, Act::kWaits, "for encoded sound", Queue::kEncodedSound,
     Effect::kEmpty, kWritesSound, Stage::kSoundWritten, "sound writer"},
    {kSound, "waiting @ pushEncodedBuffer called before start", nullptr, Act::kWaits, kForWriter},
    {kSound, "pushBuffer called before start", nullptr, Act::kWaits, kForWriter},
    {kSound, "Decoder is stopped. so Buffer returned Cond ", nullptr, Act::kWorks, kWritesSound,
     Queue::kNone, Effect::kNone, nullptr, Stage::kSoundWritten, "sound writer"},
    {kSound, "eos---", nullptr, Act::kWorks, "ends the track"},

    {kSoundEncoder, "filling input buffer ", nullptr, Act::kWorks, kConvertsSound},
    {kSoundEncoder, "Check sample timeUs --> : ", nullptr, Act::kNothing, nullptr, Queue::kNone,
     Effect::kNone, nullptr, Stage::kSoundTaken, nullptr, 1},
    {kSoundEncoder, "draining output buffer ", nullptr, Act::kWorks, "hands encoded sound over",
     Queue::kNone, Effect::kNone, nullptr, Stage::kSoundEncoded, nullptr, 2},
    {kSoundEncoder, "waiting @ Decoded data read()", nullptr, Act::kWaits, "for decoded sound",
     Queue::kDecodedSound, Effect::kEmpty, kConvertsSound},
    {kSoundEncoder, "inputThreadEntry start", nullptr, Act::kBegins, kConvertsSound, Queue::kNone,
     Effect::kNone, nullptr, Stage::kNone, "sound encoder, input"},
    {kSoundEncoder, "inputThreadEntry end", nullptr, Act::kEnds, nullptr},
    {kSoundEncoder, "Call threadLoop start", nullptr, Act::kBegins, kTakesSound, Queue::kNone,
     Effect::kNone, nullptr, Stage::kNone, "sound encoder, output"},
    {kSoundEncoder, "Call threadLoop End", nullptr, Act::kEnds, nullptr},
};

bool beginsWith(const char* text, const char* start) {
    return strncmp(text, start, strlen(start)) == 0;
}

// The next number in the text, which moves behind it.
int64_t takeNumber(const char** text) {
    const char* at = *text;
    while (*at != '\0' && isdigit(static_cast<unsigned char>(*at)) == 0) ++at;
    if (*at == '\0') return 0;
    const bool negative = at > *text && at[-1] == '-';
    char* end = nullptr;
    const int64_t number = strtoll(at, &end, 10);
    *text = end;
    return negative ? -number : number;
}

}  // namespace

const char* nameOf(Queue queue) {
    constexpr const char* kNames[kQueueCount] = {"", "decoded pictures", "encoded pictures",
                                                 "decoded sound", "encoded sound"};
    return kNames[static_cast<size_t>(queue)];
}

const char* nameOf(Stage stage) {
    constexpr const char* kNames[kStageCount] = {
        "",
        "pictures decoded",
        "pictures taken by the encoder",
        "pictures encoded",
        "pictures written",
        "sound decoded",
        "sound taken by the encoder",
        "sound encoded",
        "sound written",
    };
    return kNames[static_cast<size_t>(stage)];
}

bool understand(const char* tag, const char* message, Saying* saying) {
    const char* group = nullptr;
    bool inGroup = false;
    for (const Phrase& phrase : kPhrases) {
        if (phrase.tag != group) {
            group = phrase.tag;
            inGroup = strcmp(tag, group) == 0;
        }
        if (!inGroup || !beginsWith(message, phrase.text)) continue;
        const char* rest = message + strlen(phrase.text);
        if (phrase.also != nullptr && strstr(rest, phrase.also) == nullptr) continue;
        saying->phrase = &phrase;
        saying->first = takeNumber(&rest);
        saying->second = takeNumber(&rest);
        return true;
    }
    return false;
}

}  // namespace android::qmmediaeditor::cli
