#include <fakes/ScriptedExtractor.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

namespace android::qmmediaeditor {

ScriptedExtractor::ScriptedExtractor(Journal* journal) : mJournal(journal) {
    mFileFormat->setString("mime", MEDIA_MIMETYPE_CONTAINER_MPEG4);
}

status_t ScriptedExtractor::setDataSource(int, int64_t offset, int64_t length) {
    mJournal->addf("extractor setDataSource %lld %lld", static_cast<long long>(offset),
                   static_cast<long long>(length));
    return mResults["setDataSource"];
}

status_t ScriptedExtractor::getTrackFormat(size_t index, sp<AMessage>* format) {
    *format = mTracks[index];
    return mResults["getTrackFormat"];
}

status_t ScriptedExtractor::getFileFormat(sp<AMessage>* format) {
    *format = mFileFormat;
    return mResults["getFileFormat"];
}

status_t ScriptedExtractor::selectTrack(size_t index) {
    mJournal->addf("extractor selectTrack %zu", index);
    return mResults["selectTrack"];
}

status_t ScriptedExtractor::getSampleTrackIndex(size_t* trackIndex) {
    if (mNext >= mSamples.size()) return ERROR_END_OF_STREAM;
    *trackIndex = mSamples[mNext].track;
    return mResults["getSampleTrackIndex"];
}

status_t ScriptedExtractor::readSampleData(const sp<ABuffer>& buffer) {
    const std::vector<uint8_t>& bytes = mSamples[mNext].bytes;
    if (bytes.size() > buffer->capacity()) return ERROR_BUFFER_TOO_SMALL;
    memcpy(buffer->base(), bytes.data(), bytes.size());
    buffer->setRange(0, bytes.size());
    return mResults["readSampleData"];
}

status_t ScriptedExtractor::getSampleTime(int64_t* timeUs) {
    *timeUs = mSamples[mNext].timeUs;
    return mResults["getSampleTime"];
}

status_t ScriptedExtractor::getSampleMeta(sp<MetaData>* meta) {
    *meta = new MetaData;
    return mResults["getSampleMeta"];
}

status_t ScriptedExtractor::advance() {
    mJournal->add("extractor advance");
    ++mNext;
    return OK;
}

status_t ScriptedExtractor::seekTo(int64_t timeUs, SeekMode mode) {
    mJournal->addf("extractor seekTo %lld mode %d", static_cast<long long>(timeUs), mode);
    mNext = 0;
    for (size_t i = 1; i < mSamples.size(); ++i) {
        const int64_t sampleUs = mSamples[i].timeUs;
        if (sampleUs <= timeUs && sampleUs > mSamples[mNext].timeUs) mNext = i;
    }
    return mResults["seekTo"];
}

}  // namespace android::qmmediaeditor
