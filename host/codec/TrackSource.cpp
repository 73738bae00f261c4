#include "host/codec/TrackSource.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace android {
namespace qmmediaeditor {

TrackSource::TrackSource(CodecParametersPtr parameters, const sp<OutputSequencer>& sequencer)
    : mParameters(std::move(parameters)), mSequencer(sequencer) {}

TrackSource::~TrackSource() = default;

sp<TrackSource> TrackSource::find(const sp<AMessage>& format) {
    sp<RefBase> object;
    if (format == nullptr || !format->findObject(kKey, &object)) return nullptr;
    return dynamic_cast<TrackSource*>(object.get());
}

void TrackSource::announce(int64_t timeUs, PacketPtr properties) {
    PacketInfo info;
    info.timeUs = timeUs;
    info.segment = mSequencer->segment();
    info.properties = std::move(properties);
    {
        Mutex::Autolock lock(mLock);
        if (!mKeepsInfos) mInfos.clear();
        mInfos.push_back(std::move(info));
    }
    mSequencer->advancePosition(timeUs);
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

void TrackSource::keepPacketInfo() {
    Mutex::Autolock lock(mLock);
    mKeepsInfos = true;
}

PacketInfo TrackSource::take(int64_t timeUs) {
    PacketInfo info;
    info.timeUs = timeUs;
    info.segment = mSequencer->segment();
    Mutex::Autolock lock(mLock);
    const auto current = std::find_if(mInfos.begin(), mInfos.end(), [&](const PacketInfo& each) {
        return each.segment.number == info.segment.number;
    });
    mInfos.erase(mInfos.begin(), current);
    const auto found = std::find_if(mInfos.begin(), mInfos.end(), [timeUs](const PacketInfo& each) {
        return each.timeUs == timeUs;
    });
    if (found == mInfos.end()) return info;
    info.properties = std::move(found->properties);
    mInfos.erase(mInfos.begin(), found + 1);
    return info;
}

}  // namespace qmmediaeditor
}  // namespace android
