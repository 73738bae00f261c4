#include "host/codec/TrackSource.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

TrackSource::TrackSource(CodecParametersPtr parameters, const sp<DecodeOrder>& order)
    : mParameters(std::move(parameters)), mOrder(order) {}

TrackSource::~TrackSource() = default;

sp<TrackSource> TrackSource::find(const sp<AMessage>& format) {
    sp<RefBase> object;
    if (format == nullptr || !format->findObject(kKey, &object)) return nullptr;
    return dynamic_cast<TrackSource*>(object.get());
}

void TrackSource::announce(int64_t timeUs, PacketPtr properties) {
    SampleNote note;
    note.timeUs = timeUs;
    note.timeLine = mOrder->timeLine();
    note.properties = std::move(properties);
    {
        Mutex::Autolock lock(mLock);
        if (!mKeepsNotes) mNotes.clear();
        mNotes.push_back(std::move(note));
    }
    mOrder->advancePosition(timeUs);
}

void TrackSource::advanceTo(int64_t timeUs) {
    Mutex::Autolock lock(mLock);
    mExtent.continuesAtUs = std::max(mExtent.continuesAtUs, timeUs);
}

void TrackSource::setEnd(int64_t endUs) {
    Mutex::Autolock lock(mLock);
    mExtent.endUs = endUs;
}

TrackSource::Extent TrackSource::extent() {
    Mutex::Autolock lock(mLock);
    return mExtent;
}

void TrackSource::keepNotes() {
    Mutex::Autolock lock(mLock);
    mKeepsNotes = true;
}

SampleNote TrackSource::take(int64_t timeUs) {
    SampleNote note;
    note.timeUs = timeUs;
    note.timeLine = mOrder->timeLine();
    Mutex::Autolock lock(mLock);
    const auto current = std::find_if(mNotes.begin(), mNotes.end(), [&](const SampleNote& each) {
        return each.timeLine.number == note.timeLine.number;
    });
    mNotes.erase(mNotes.begin(), current);
    const auto found = std::find_if(mNotes.begin(), mNotes.end(), [timeUs](const SampleNote& each) {
        return each.timeUs == timeUs;
    });
    if (found == mNotes.end()) return note;
    note.properties = std::move(found->properties);
    mNotes.erase(mNotes.begin(), found + 1);
    return note;
}

}  // namespace qmmediaeditor
}  // namespace android
