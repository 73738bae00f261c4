#include <fakes/ScriptedExtractor.h>
#include <media/stagefright/MediaErrors.h>
#include <media/stagefright/foundation/MediaDefs.h>
#include <string.h>

namespace android::qmmediaeditor {

ScriptedExtractor::ScriptedExtractor(Journal* journal) : mJournal(journal) {
    mFileFormat->setString("mime", MEDIA_MIMETYPE_CONTAINER_MPEG4);
}

size_t ScriptedExtractor::addTrack(const sp<AMessage>& format) {
    mTracks.push_back(format);
    return mTracks.size() - 1;
}

status_t ScriptedExtractor::result(const char* operation) const {
    const auto failure = mFailures.find(operation);
    return failure == mFailures.end() ? static_cast<status_t>(OK) : failure->second;
}

status_t ScriptedExtractor::setDataSource(int, int64_t offset, int64_t length) {
    mJournal->addf("extractor setDataSource %lld %lld", static_cast<long long>(offset),
                   static_cast<long long>(length));
    return result("setDataSource");
}

status_t ScriptedExtractor::getTrackFormat(size_t index, sp<AMessage>* format) {
    *format = mTracks[index];
    return result("getTrackFormat");
}

status_t ScriptedExtractor::getFileFormat(sp<AMessage>* format) {
    *format = mFileFormat;
    return result("getFileFormat");
}

status_t ScriptedExtractor::selectTrack(size_t index) {
    mJournal->addf("extractor selectTrack %zu", index);
    return result("selectTrack");
}

status_t ScriptedExtractor::getSampleTrackIndex(size_t* trackIndex) {
    if (mNext >= mSamples.size()) return ERROR_END_OF_STREAM;
    *trackIndex = mSamples[mNext].track;
    return result("getSampleTrackIndex");
}

status_t ScriptedExtractor::readSampleData(const sp<ABuffer>& buffer) {
    const std::vector<uint8_t>& bytes = mSamples[mNext].bytes;
    if (bytes.size() > buffer->capacity()) return ERROR_BUFFER_TOO_SMALL;
    memcpy(buffer->base(), bytes.data(), bytes.size());
    buffer->setRange(0, bytes.size());
    return result("readSampleData");
}

status_t ScriptedExtractor::getSampleTime(int64_t* timeUs) {
    *timeUs = mSamples[mNext].timeUs;
    return result("getSampleTime");
}

status_t ScriptedExtractor::getSampleMeta(sp<MetaData>* meta) {
    *meta = new MetaData;
    (*meta)->setInt64(kKeyDuration, mSamples[mNext].durationUs);
    (*meta)->setInt32(kKeyIsSyncFrame, mSamples[mNext].sync);
    return result("getSampleMeta");
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
        const Sample& sample = mSamples[i];
        if (sample.sync && sample.timeUs <= timeUs && sample.timeUs > mSamples[mNext].timeUs) {
            mNext = i;
        }
    }
    return result("seekTo");
}

}  // namespace android::qmmediaeditor
