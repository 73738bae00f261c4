// Reads the samples of a media file.
//
// Samples come in time order across the selected tracks, whatever the order in the file. Not
// locked: after the tracks are selected, one thread at a time.
#pragma once

#include <media/stagefright/MediaSource.h>
#include <media/stagefright/MetaData.h>
#include <media/stagefright/foundation/ABuffer.h>
#include <media/stagefright/foundation/AMessage.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {
namespace qmmediaeditor {

class ExtractorBackend;

class QmMediaExtractorWrapper : public RefBase {
public:
    typedef MediaTrack::ReadOptions::SeekMode SeekMode;

    QmMediaExtractorWrapper();

    // `offset` and `length` in bytes. Reads through a duplicate of `fd` and leaves its position
    // alone. An error when this is no container of video or audio.
    status_t setDataSource(int fd, int64_t offset, int64_t length);

    size_t countTracks();
    // At least "mime" and "durationUs" (int64, microseconds).
    status_t getTrackFormat(size_t index, sp<AMessage>* format);
    // The container's "mime", and "uuid-data" with the payload of its uuid boxes when it has any.
    status_t getFileFormat(sp<AMessage>* format);
    status_t selectTrack(size_t index);

    // The sample that comes next. Non-zero at the end of the input.
    status_t getSampleTrackIndex(size_t* trackIndex);
    // Fills `buffer` and sets its range; ERROR_BUFFER_TOO_SMALL when the sample does not fit.
    status_t readSampleData(const sp<ABuffer>& buffer);
    // In microseconds: no sample from this one on is shown before that time.
    status_t getSampleTime(int64_t* timeUs);
    // kKeyTime (int64, microseconds), the presentation timestamp; kKeyDuration (int64,
    // microseconds) and kKeyIsSyncFrame (int32) where they are known.
    status_t getSampleMeta(sp<MetaData>* meta);
    status_t advance();

    // All selected tracks go to the sync sample that `mode` names.
    status_t seekTo(int64_t timeUs, SeekMode mode);

protected:
    ~QmMediaExtractorWrapper() override;

private:
    const sp<ExtractorBackend> mBackend;
};

}  // namespace qmmediaeditor
}  // namespace android
