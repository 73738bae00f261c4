// An input file that a test describes: tracks, and samples in the order in which they are read.
//
// Samples of tracks that were not selected are delivered too. To be described before the session
// reads it.
#pragma once

#include <Platform.h>
#include <fakes/Journal.h>

#include <map>
#include <string>
#include <vector>

namespace android::qmmediaeditor {

class ScriptedExtractor : public ExtractorBackend {
public:
    struct Sample {
        size_t track;
        int64_t timeUs;
        std::vector<uint8_t> bytes;
    };

    explicit ScriptedExtractor(Journal* journal);

    void addTrack(const sp<AMessage>& format) { mTracks.push_back(format); }
    void addSample(const Sample& sample) { mSamples.push_back(sample); }
    const sp<AMessage>& fileFormat() const { return mFileFormat; }
    // Operation `operation` returns `status` whenever it is called.
    void fail(const std::string& operation, status_t status) { mResults[operation] = status; }

    status_t setDataSource(int fd, int64_t offset, int64_t length) override;
    size_t countTracks() override { return mTracks.size(); }
    status_t getTrackFormat(size_t index, sp<AMessage>* format) override;
    status_t getFileFormat(sp<AMessage>* format) override;
    status_t selectTrack(size_t index) override;
    status_t getSampleTrackIndex(size_t* trackIndex) override;
    status_t readSampleData(const sp<ABuffer>& buffer) override;
    status_t getSampleTime(int64_t* timeUs) override;
    status_t getSampleMeta(sp<MetaData>* meta) override;
    status_t advance() override;
    // To the last sample at or before `timeUs`.
    status_t seekTo(int64_t timeUs, SeekMode mode) override;

private:
    Journal* const mJournal;
    std::vector<sp<AMessage>> mTracks;
    sp<AMessage> mFileFormat = new AMessage;
    std::vector<Sample> mSamples;
    size_t mNext = 0;
    std::map<std::string, status_t> mResults;
};

}  // namespace android::qmmediaeditor
