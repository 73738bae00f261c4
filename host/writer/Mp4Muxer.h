// Muxes an MP4 or 3GP file with libavformat. Private to the writer.
//
// Order of use: addTrack for each, begin, then samples in any order of the tracks, endTrack for
// each, then finish. After begin, any thread may call any operation. No track waits for another:
// samples are held in memory until their order in the file is known. The movie box is written last,
// so a track's codec-specific data may come as late as its first sample, and a track without
// samples is left out.
//
// When the session was stopped, the tracks end together: samples that begin where another track has
// nothing more are dropped.
#pragma once

#include <media/stagefright/MetaData.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>

#include <memory>
#include <vector>

#include "host/codec/CodecTable.h"
#include "host/codec/SessionTimeline.h"
#include "host/convert/FFmpegPointers.h"
#include "host/extractor/AvioFile.h"
#include "host/io/DescriptorFile.h"
#include "host/writer/PacketInterleaver.h"

struct AVDictionary;
struct AVStream;

namespace android {
namespace qmmediaeditor {

class Mp4Muxer {
public:
    // `session` may be null: then every track that ends is complete.
    Mp4Muxer(std::shared_ptr<DescriptorFile> output, std::shared_ptr<SessionTimeline> session);
    ~Mp4Muxer();

    // `format` is a track's: kKeyMIMEType, and of what is known the size, the rates, the channels.
    status_t addTrack(const MetaDataBase& format);
    // `fileType` is 1 for 3GP or 2 for MP4; `rotationDegrees` are clockwise and concern video.
    status_t begin(int32_t fileType, int32_t rotationDegrees, bool movieBoxFirst);

    // The codec-specific data of the track; ignored after its first sample.
    status_t setCodecConfig(size_t track, const uint8_t* data, size_t size);
    // `data` is an access unit as its encoder made it.
    status_t writeSample(size_t track, const uint8_t* data, size_t size, int64_t timeUs,
                         bool isSync);

    // The track has no further sample.
    status_t endTrack(size_t track);

    // Writes the movie box, and `boxes` behind everything else. The first error, or 0.
    status_t finish(const std::vector<uint8_t>& boxes);

private:
    struct Track {
        const CodecInfo* codec = nullptr;
        CodecParametersPtr parameters;
        AVStream* stream = nullptr;
        int frameRate = 0;
        std::unique_ptr<TrackTimestamps> timestamps;
        bool hasSamples = false;
        int64_t lastTimeUs = 0;
    };

    bool needs3gp() const REQUIRES(mLock);
    status_t addStream(Track* track, int32_t rotationDegrees, int videoTicks) REQUIRES(mLock);
    status_t addMetadata() REQUIRES(mLock);
    void startTimestamps(Track* track);
    HostObserver* observer() const { return mSession == nullptr ? nullptr : mSession->observer(); }
    bool hasAllSamples(const Track& track) const;
    void endAt(size_t index, int64_t endUs) REQUIRES(mLock);
    void cutStoppedTracks() REQUIRES(mLock);
    status_t writeSettled() REQUIRES(mLock);
    // Writes what libavformat leaves out of 3GP files.
    status_t completeMovieBox() REQUIRES(mLock);
    status_t completeMetadata() REQUIRES(mLock);
    status_t keep(int result) REQUIRES(mLock);

    // libavformat's callbacks, during the calls to it.
    static int openWritten(AVFormatContext* context, AVIOContext** io, const char* url, int flags,
                           AVDictionary** options);
    static int closeWritten(AVFormatContext* context, AVIOContext* io);

    const std::shared_ptr<DescriptorFile> mOutput;
    const std::unique_ptr<AvioFile> mIo;   // null when memory is short
    std::unique_ptr<AvioFile> mRereading;  // while libavformat moves the samples
    const std::shared_ptr<SessionTimeline> mSession;
    Mutex mLock;
    std::vector<Track> mTracks GUARDED_BY(mLock);
    OutputFormatPtr mContext GUARDED_BY(mLock);
    std::unique_ptr<PacketInterleaver> mInterleaver GUARDED_BY(mLock);
    // Written when the file is finished, into the place of a text that is as long.
    std::vector<uint8_t> mMetadataBoxes GUARDED_BY(mLock);
    bool mIs3gp GUARDED_BY(mLock) = false;
    bool mHasHeader GUARDED_BY(mLock) = false;
    status_t mError GUARDED_BY(mLock) = OK;
};

}  // namespace qmmediaeditor
}  // namespace android
