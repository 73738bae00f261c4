#include <fakes/ScriptedWriter.h>

#include <algorithm>

namespace android::qmmediaeditor {

ScriptedWriter::~ScriptedWriter() {
    for (Track& track : mTracks) {
        if (track.thread.joinable()) {
            track.source->stop();
            track.thread.join();
        }
    }
    mJournal->add("writer destroyed");
}

status_t ScriptedWriter::addSource(const sp<MediaSource>& source) {
    const char* mime = "";
    source->getFormat()->findCString(kKeyMIMEType, &mime);
    mJournal->addf("writer addSource %s", mime);
    std::lock_guard<std::mutex> guard(mLock);
    mTracks.emplace_back();
    mTracks.back().source = source;
    return OK;
}

void ScriptedWriter::setListener(const sp<IMediaRecorderClient>& listener) {
    mJournal->add("writer setListener");
    MediaWriter::setListener(listener);
}

status_t ScriptedWriter::start(MetaData* params) {
    mJournal->add("writer start");
    mFileMeta = new MetaData(*params);
    if (mStartResult != OK) return mStartResult;
    for (size_t i = 0; i < mTracks.size(); ++i) {
        mTracks[i].source->start(params);
        mTracks[i].thread = std::thread([this, i] { pull(i); });
    }
    return OK;
}

void ScriptedWriter::pull(size_t i) {
    const sp<MediaSource> source = mTracks[i].source;
    Sample sample;
    while (readOne(source, &sample) == OK) {
        std::lock_guard<std::mutex> guard(mLock);
        mTracks[i].samples.push_back(sample);
        mChanged.notify_all();
    }
    std::lock_guard<std::mutex> guard(mLock);
    mTracks[i].ended = true;
    mChanged.notify_all();
}

status_t ScriptedWriter::readOne(const sp<MediaSource>& source, Sample* sample) {
    MediaBufferBase* buffer = nullptr;
    const status_t err = source->read(&buffer);
    if (err != OK) return err;
    *sample = Sample();
    const auto* data = static_cast<const uint8_t*>(buffer->data()) + buffer->range_offset();
    sample->bytes.assign(data, data + buffer->range_length());
    buffer->meta_data().findInt64(kKeyTime, &sample->timeUs);
    buffer->meta_data().findInt64(kKeyDecodingTime, &sample->decodingTimeUs);
    buffer->meta_data().findInt32(kKeyIsSyncFrame, &sample->sync);
    buffer->meta_data().findInt32(kKeyIsCodecConfig, &sample->config);
    buffer->release();
    return OK;
}

std::vector<ScriptedWriter::Sample> ScriptedWriter::samples(size_t i) const {
    std::lock_guard<std::mutex> guard(mLock);
    return mTracks[i].samples;
}

bool ScriptedWriter::reachedEOS() {
    mJournal->add("writer reachedEOS");
    std::unique_lock<std::mutex> guard(mLock);
    if (mEndDelay > 0) {
        --mEndDelay;
        return false;
    }
    const bool all = mChanged.wait_for(guard, kFailureBound, [&] {
        return std::all_of(mTracks.begin(), mTracks.end(),
                           [](const Track& track) { return track.ended; });
    });
    if (!all) mJournal->add("writer tracks have not ended");
    return true;
}

status_t ScriptedWriter::stop() {
    mJournal->add("writer stop");
    for (Track& track : mTracks) {
        track.source->stop();
        if (track.thread.joinable()) track.thread.join();
    }
    return mStopResult;
}

}  // namespace android::qmmediaeditor
