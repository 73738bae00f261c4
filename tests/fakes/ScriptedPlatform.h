// The platform of one test: installed while it lives, unless another one is made meanwhile. It
// hands out the fakes that the test has prepared, and notes the rest.
#pragma once

#include <Platform.h>
#include <fakes/Journal.h>
#include <fakes/ScriptedCodec.h>
#include <fakes/ScriptedExtractor.h>
#include <fakes/ScriptedWriter.h>

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace android::qmmediaeditor {

// Makes `framesOut` frames of whatever it is given, filled with 'c'; fails when that is negative.
class ScriptedAudioConverter : public AudioConverterBackend {
public:
    explicit ScriptedAudioConverter(Journal* journal) : mJournal(journal) {}

    int initResult = 1;
    int framesOut = 0;
    int outChannelCount = 0;
    size_t allocations = 0;  // that are not freed yet
    bool outOfMemory = false;

    int init(int inChannelCount, int inSampleRate, int inBitDepth, int outChannels,
             int outSampleRate, int outBitDepth) override;
    unsigned char* allocateBuff(unsigned char* base, int frames, float ratio) override;
    int process(unsigned char* in, unsigned char* out, int frames) override;
    void freeBuff(unsigned char* buffer) override;

private:
    size_t bytesOut() const {
        return static_cast<size_t>(std::max(framesOut, 0) * outChannelCount * 2);
    }

    Journal* const mJournal;
};

class ScriptedPlatform : public Platform {
public:
    ScriptedPlatform();
    ~ScriptedPlatform() override;

    Journal& journal() { return mJournal; }
    ScriptedExtractor& extractor() { return *mExtractor; }
    ScriptedWriter& writer() { return *mWriter; }
    // From here on the session alone holds the writer.
    void letGoOfWriter() { mWriter.clear(); }
    ScriptedAudioConverter& converter() { return *mConverter; }

    // The next codec of that kind: "decoder <mime>" or "encoder <mime>" in the journal. A kind that
    // was never prepared gets a codec without a script.
    sp<ScriptedCodec> decoder(const std::string& mime) { return prepare(mime, false); }
    sp<ScriptedCodec> encoder(const std::string& mime) { return prepare(mime, true); }
    // No codec of that kind can be had.
    void refuseCodec(const std::string& mime, bool encoder) { mRefused.insert({mime, encoder}); }

    // A dither type, or -1 for a device that does not dither.
    void setDitherType(int type) { mDitherType = type; }

    std::vector<ScaleRequest> scaleRequests() const;
    const std::vector<uint8_t>& uuidData() const { return mUuidData; }

    sp<MediaCodec> createCodec(const sp<ALooper>& looper, const AString& mime, bool encoder,
                               status_t* err) override;
    sp<ExtractorBackend> createExtractor() override { return mExtractor; }
    sp<MediaWriter> createWriter(int fd) override;
    sp<AudioConverterBackend> createAudioConverter() override { return mConverter; }
    // Fills the frame with the first byte of the source.
    void scale(const ScaleRequest& request) override;
    void setUuidData(const sp<MediaWriter>& writer, const unsigned char* data, int size) override;
    bool getUseDitherType(int* type) override;

private:
    typedef std::pair<std::string, bool> Kind;

    sp<ScriptedCodec> prepare(const std::string& mime, bool encoder);

    ScriptedPlatform* const mBefore;
    Journal mJournal;
    sp<ScriptedExtractor> mExtractor = new ScriptedExtractor(&mJournal);
    sp<ScriptedWriter> mWriter = new ScriptedWriter(&mJournal);
    sp<ScriptedAudioConverter> mConverter = new ScriptedAudioConverter(&mJournal);
    int mDitherType = -1;
    std::vector<uint8_t> mUuidData;
    // Codecs are prepared and asked for on one thread.
    std::map<Kind, std::deque<sp<ScriptedCodec>>> mCodecs;
    std::set<Kind> mRefused;
    mutable std::mutex mLock;
    std::vector<ScaleRequest> mScaleRequests;
};

}  // namespace android::qmmediaeditor
