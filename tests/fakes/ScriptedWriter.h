// A writer that keeps what it is given. Like the real one it pulls from each source on a thread of
// its own until the source ends.
#pragma once

#include <fakes/Journal.h>
#include <media/stagefright/MediaWriter.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace android::qmmediaeditor {

class ScriptedWriter : public MediaWriter {
public:
    struct Sample {
        std::vector<uint8_t> bytes;
        int64_t timeUs = -1;
        int64_t decodingTimeUs = -1;
        int32_t sync = 0;
        int32_t config = 0;
    };

    explicit ScriptedWriter(Journal* journal) : mJournal(journal) {}

    void setStartResult(status_t status) { mStartResult = status; }
    void setStopResult(status_t status) { mStopResult = status; }
    // How often reachedEOS() says no before it waits for the end of every track and says yes.
    void setEndDelay(int calls) { mEndDelay = calls; }

    // Sends an event to the listener, on the calling thread.
    void fire(int msg, int ext1, int ext2) { mListener->notify(msg, ext1, ext2); }

    // Of track `i`, in the order of addSource.
    std::vector<Sample> samples(size_t i) const;
    // The argument of start(); null before.
    const sp<MetaData>& fileMeta() const { return mFileMeta; }

    // One sample of `source`, and what read() returned.
    static status_t readOne(const sp<MediaSource>& source, Sample* sample);

    status_t addSource(const sp<MediaSource>& source) override;
    status_t start(MetaData* params) override;
    // Waits for the end of the tracks, so that the caller does not have to ask again.
    bool reachedEOS() override;
    status_t stop() override;
    status_t pause() override { return OK; }
    void setListener(const sp<IMediaRecorderClient>& listener) override;

protected:
    ~ScriptedWriter() override;

private:
    struct Track {
        sp<MediaSource> source;
        std::thread thread;
        std::vector<Sample> samples;
        bool ended = false;
    };

    void pull(size_t i);

    Journal* const mJournal;
    status_t mStartResult = OK;
    status_t mStopResult = OK;
    int mEndDelay = 0;
    sp<MetaData> mFileMeta;
    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<Track> mTracks;
};

}  // namespace android::qmmediaeditor
