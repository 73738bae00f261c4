// The order of packets in a file, and the ticks that their timestamps become.
#include <gtest/gtest.h>

#include <string>

#include "host/writer/PacketInterleaver.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace android::qmmediaeditor {
namespace {

PacketInterleaver::Held held(size_t track, int64_t timeUs, int bytes = 10) {
    PacketPtr packet(av_packet_alloc());
    EXPECT_EQ(0, av_new_packet(packet.get(), bytes));
    packet->dts = packet->pts = timeUs;
    return {track, std::move(packet), timeUs, timeUs + 100};
}

// "0:100 1:150": tracks and timestamps of all settled packets.
std::string popAll(PacketInterleaver* interleaver) {
    std::string text;
    while (const auto next = interleaver->pop()) {
        text += (text.empty() ? "" : " ") + std::to_string(next->track) + ":" +
                std::to_string(next->timeUs);
    }
    return text;
}

TEST(PacketInterleaverTest, packetsComeOutInTimestampOrderWhateverTheirArrival) {
    for (const bool audioFirst : {false, true}) {
        PacketInterleaver interleaver(2, 1 << 20);
        std::string order;
        for (const size_t track : {audioFirst ? size_t{1} : 0, audioFirst ? size_t{0} : 1}) {
            for (int64_t i = 0; i < 4; ++i) {
                interleaver.push(held(track, track == 0 ? i * 100 : i * 70 + 5));
            }
            order += popAll(&interleaver);
        }
        interleaver.end(0, 400);
        interleaver.end(1, 300);
        order += " " + popAll(&interleaver);
        EXPECT_EQ("0:0 1:5 1:75 0:100 1:145 0:200 1:215 0:300", order);
    }
}

TEST(PacketInterleaverTest, aPacketEndsWhereItsSuccessorBegins) {
    PacketInterleaver interleaver(1, 1 << 20);
    interleaver.push(held(0, 0));
    EXPECT_FALSE(interleaver.pop()) << "its end is not known yet";
    interleaver.push(held(0, 250));
    const auto first = interleaver.pop();
    ASSERT_TRUE(first);
    EXPECT_EQ(250, first->endUs);
    EXPECT_EQ(250, first->packet->duration);
    interleaver.end(0, 600);
    EXPECT_EQ(600, interleaver.pop()->endUs);
}

TEST(PacketInterleaverTest, noTrackWaitsWhenTheMemoryIsFull) {
    PacketInterleaver interleaver(2, 100);
    for (int64_t i = 0; i < 4; ++i) interleaver.push(held(0, i, 25));
    EXPECT_EQ("", popAll(&interleaver)) << "exactly full";
    interleaver.push(held(0, 4, 1));
    EXPECT_EQ("0:0", popAll(&interleaver)) << "only until there is room again";
    interleaver.push(held(1, 1, 50));
    EXPECT_EQ("0:1 0:2", popAll(&interleaver)) << "a packet without a successor stays";
}

TEST(PacketInterleaverTest, stoppedTracksEndTogether) {
    PacketInterleaver interleaver(2, 1 << 20);
    EXPECT_EQ(0, interleaver.commonEndUs());
    for (const int64_t timeUs : {0, 100, 200, 300}) interleaver.push(held(0, timeUs));
    for (const int64_t timeUs : {0, 90}) interleaver.push(held(1, timeUs));
    EXPECT_EQ(190, interleaver.commonEndUs());
    interleaver.cutAt(190);
    EXPECT_EQ(190, interleaver.last(0)->endUs);
    interleaver.end(0, 190);
    interleaver.end(1, 190);
    EXPECT_EQ(INT64_MAX, interleaver.commonEndUs());
    EXPECT_EQ("0:0 1:0 1:90 0:100", popAll(&interleaver));
}

// 1024 samples at 44.1 kHz are 23219.95 us.
TEST(TrackTimestampsTest, audioFramesOfFixedLengthKeepItThroughRounding) {
    TrackTimestamps timestamps(44100, 1024, 0);
    for (int64_t i = 0; i < 3000; ++i) {
        const int64_t timeUs = (i * 1024 * 1000000 + 22050) / 44100 + i % 3;
        const auto stamp = timestamps.stamp(timeUs);
        ASSERT_EQ(i * 1024, stamp.ticks);
        ASSERT_EQ(1024, stamp.durationTicks);
    }
    // A real gap of 10 ms is kept.
    const int64_t gapUs = 3000 * INT64_C(1024) * 1000000 / 44100 + 10000;
    EXPECT_EQ(3000 * 1024 + 441, timestamps.stamp(gapUs).ticks);
}

TEST(TrackTimestampsTest, ticksRiseAndLastAsLongAsTheDistanceBefore) {
    TrackTimestamps timestamps(90000, 0, 3000);
    EXPECT_EQ(3000, timestamps.stamp(-40000).durationTicks);
    EXPECT_EQ(-3600, timestamps.ticksAt(-40000));
    EXPECT_EQ(0, timestamps.stamp(0).ticks);
    EXPECT_EQ(1, timestamps.stamp(0).ticks);
    EXPECT_EQ(2, timestamps.stamp(-500000).ticks);
    const auto stamp = timestamps.stamp(33333);
    EXPECT_EQ(3000, stamp.ticks);
    EXPECT_EQ(2998, stamp.durationTicks);
}

}  // namespace
}  // namespace android::qmmediaeditor
