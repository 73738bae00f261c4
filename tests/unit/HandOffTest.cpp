// The batch hand-off between threads, in both directions and in both sources.
#include <sched.h>

#include <map>
#include <utility>

#include "SourceKinds.h"

namespace android::qmmediaeditor {

template <class Kind>
class HandOffTest : public SourceTest<Kind> {
protected:
    // Ten samples in each queue: not yet a batch.
    void fillBoth() {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(OK, this->pushEncoded(i));
            EXPECT_EQ(OK, this->pushDecoded(i));
        }
    }
    // Pushes sample `first` into each queue, and then one more in the place of each that is taken,
    // up to `last`.
    struct Producers {
        Producers(HandOffTest* test, int first, int last)
            : encoderOutput([=] {
                  for (int i = first; i <= last; ++i) EXPECT_EQ(OK, test->pushEncoded(i));
              }),
              decoder([=] {
                  for (int i = first; i <= last; ++i) EXPECT_EQ(OK, test->pushDecoded(i));
              }) {
            EXPECT_TRUE(test->waitFor(Kind::kEncodedFull));
            EXPECT_TRUE(test->waitFor(Kind::kDecodedFull));
        }
        bool finish() { return encoderOutput.finishes() && decoder.finishes(); }

        Background encoderOutput;
        Background decoder;
    };
    void expectConsumersWait() {
        EXPECT_TRUE(this->waitFor("waiting @ read()"));
        EXPECT_TRUE(this->waitForThread("waiting @ Decoded data read()"));
    }
    size_t encodedCount() { return this->mSource->mEncodedSamples.size(); }
    size_t decodedCount() { return this->mSource->mDecodedSamples.size(); }
};

// Every way to end a source.
const std::function<void(TSourceBase&)> kStops[] = {
    [](TSourceBase& source) { source.setCodecStopped(); },
    [](TSourceBase& source) { source.stop(); },
    [](TSourceBase& source) {
        TDecodedSample marker;
        marker.mFlags = 4;
        source.pushDecodedBuffer(marker, true);
    },
};

TYPED_TEST_SUITE(HandOffTest, BothKinds);

TYPED_TEST(HandOffTest, consumersSleepUntilTheEleventhSampleAndProducersUntilAllAreTaken) {
    this->restart();
    int read = 0;
    int taken = 0;
    Background writer([&] {
        while (read < 11 && this->readOne() == OK) EXPECT_EQ(read++, this->mRead.bytes[0]);
    });
    Background encoder([&] {
        while (taken < 11 && this->takeDecoded() == OK) {
            EXPECT_EQ(taken++, this->mInput.mBuffer->base()[0]);
        }
    });
    this->expectConsumersWait();
    this->fillBoth();
    EXPECT_EQ(10u, this->encodedCount());
    EXPECT_EQ(10u, this->decodedCount());
    typename TestFixture::Producers producers(this, 10, 10);
    EXPECT_TRUE(writer.finishes() && encoder.finishes() && producers.finish());
    EXPECT_EQ(11, read);
    EXPECT_EQ(11, taken);
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, aProducerThatIsWokenBeforeItsBatchIsGoneWaitsAgain) {
    this->restart();
    this->fillBoth();
    typename TestFixture::Producers producers(this, 10, 11);
    const auto sizes = [&] {
        Mutex::Autolock encoded(this->mSource->mEncodedLock);
        Mutex::Autolock decoded(this->mSource->mDecodedLock);
        this->mSource->mBufferReturnedCond.broadcast();
        this->mSource->mDecoderBufferReturnedCond.broadcast();
        return std::make_pair(this->encodedCount(), this->decodedCount());
    };
    for (size_t left = 11; left > 0; --left) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(std::make_pair(left, left), sizes());
            sched_yield();
        }
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(OK, this->takeDecoded());
    }
    EXPECT_TRUE(producers.finish());
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, everyWayToStopWakesEveryProducerAndEveryConsumer) {
    for (const auto& stop : kStops) {
        this->restart();
        this->fillBoth();
        typename TestFixture::Producers producers(this, 10, 10);
        stop(*this->mSource);
        EXPECT_TRUE(producers.finish());

        this->restart();
        status_t taken = OK;
        Background writer([&] { EXPECT_EQ(-1011, this->readOne()); });
        Background encoder([&] { taken = this->takeDecoded(); });
        this->expectConsumersWait();
        stop(*this->mSource);
        EXPECT_TRUE(writer.finishes() && encoder.finishes());
        const bool toldToExit = this->mSource->mMediaEncoderThread->mExitRequested;
        EXPECT_EQ(toldToExit ? -1011 : -1018, taken);
    }
}

TYPED_TEST(HandOffTest, pushesBeforeTheStartWaitForItOrForAStop) {
    for (const bool started : {true, false}) {
        this->renew();
        const status_t expected = started ? 0 : -1011;
        Background encoderOutput([&] { EXPECT_EQ(expected, this->pushEncoded(0)); });
        Background decoder([&] { EXPECT_EQ(expected, this->pushDecoded(0)); });
        EXPECT_TRUE(this->waitFor(TypeParam::kPushedEarly));
        EXPECT_TRUE(this->waitFor("pushBuffer called before start"));
        started ? this->mSource->start() : this->mSource->stop();
        EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
        EXPECT_EQ(started, this->mSource->getRunning());
        EXPECT_EQ(started ? 1u : 0u, this->encodedCount());
        EXPECT_EQ(started ? 1u : 0u, this->decodedCount());
    }
}

TYPED_TEST(HandOffTest, aStoppedSourceTakesNothingMoreAndDeliversWhatItHas) {
    this->startWithPool();
    for (const int number : {1, 2}) EXPECT_EQ(OK, this->pushEncoded(number));
    this->mSource->setCodecStopped();
    EXPECT_EQ(-1011, this->pushEncoded(3));
    EXPECT_EQ(-1011, this->pushDecoded(3));
    EXPECT_EQ(0u, this->decodedCount());
    for (const int number : {1, 2}) {
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(number, this->mRead.bytes[0]);
        EXPECT_TRUE(this->mSource->getRunning());
    }
    EXPECT_EQ(-1011, this->readOne());
    EXPECT_FALSE(this->mSource->getRunning());
    // An ended source is not waited for, and its producers have nothing to say.
    EXPECT_EQ(-1011, this->pushEncoded(4));
    EXPECT_EQ(-1011, this->pushDecoded(4));
    EXPECT_EQ(-1011, this->pushEnd(true));
    EXPECT_EQ(1u, this->mJournal.count(std::string(TypeParam::kTag) +
                                       ": enter push encoded buffer in EOS State"));
}

TYPED_TEST(HandOffTest, aReaderThatIsWokenWithNothingToReadWaitsAgain) {
    this->startWithPool();
    Background writer([&] { EXPECT_EQ(OK, this->readOne()); });
    EXPECT_TRUE(this->waitFor("waiting @ read()"));
    for (int i = 0; i < 20; ++i) {
        Mutex::Autolock guard(this->mSource->mEncodedLock);
        this->mSource->mFrameAvailableCond.broadcast();
        sched_yield();
    }
    for (int i = 0; i < 10; ++i) this->pushEncoded(i);
    Background encoderOutput([&] { this->pushEncoded(10); });
    EXPECT_TRUE(writer.finishes());
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, everyWakeUpIsMadeUnderTheLockOfItsWaitersAfterTheFlagWasSet) {
    for (const auto& stop : kStops) {
        this->restart();
        auto& s = *this->mSource;
        const std::pair<const Condition&, Mutex&> waits[] = {
            {s.mStartCond, s.mEncodedLock},
            {s.mFrameAvailableCond, s.mEncodedLock},
            {s.mBufferReturnedCond, s.mEncodedLock},
            {s.mDecodedAvailableCond, s.mDecodedLock},
            {s.mDecoderBufferReturnedCond, s.mDecodedLock}};
        std::map<const Condition*, bool> sawFlag;
        for (const auto& wait : waits) {
            this->mCalls.onWakeUp(wait.first, [&] {
                const bool locked = wait.second.tryLock() != OK;
                EXPECT_TRUE(locked) << "a thread that is about to sleep would miss it";
                if (!locked) wait.second.unlock();
                sawFlag[&wait.first] = s.mCodecStopped;
            });
        }
        stop(s);
        EXPECT_EQ(5u, sawFlag.size());
        for (const auto& saw : sawFlag) EXPECT_TRUE(saw.second);
        this->mCalls.forgetHooks();
    }
}

TYPED_TEST(HandOffTest, aFailureIsRecordedBeforeAnyThreadIsWoken) {
    auto& s = *this->mSource;
    int32_t seen = 0;
    this->mCalls.onWakeUp(s.mDecoderBufferReturnedCond, [&] { seen = s.failure(); });
    s.mCore.reportFailure(-1130);
    EXPECT_EQ(-1130, seen);
    this->mCalls.forgetHooks();
}

TYPED_TEST(HandOffTest, onlyTheSessionsThreadPollsForAStopThatWakesNobody) {
    this->restart();
    int asked = 0;
    this->mSource->setStopTest([&] { return ++asked == 3; });
    this->fillBoth();
    EXPECT_EQ(OK, this->pushDecoded(10)) << "the stop test ends the wait";
    const auto polls = this->mCalls.timedWaitsNs(this->mSource->mDecoderBufferReturnedCond);
    ASSERT_EQ(2u, polls.size());
    EXPECT_GT(polls[0], 10 * 1000000) << "no busy loop";
    EXPECT_LE(polls[0], 50 * 1000000);
    Background encoderOutput([&] { EXPECT_EQ(OK, this->pushEncoded(10)); });
    EXPECT_TRUE(this->waitFor(TypeParam::kEncodedFull));
    this->mSource->setCodecStopped();
    EXPECT_TRUE(encoderOutput.finishes());
    EXPECT_TRUE(this->mCalls.timedWaitsNs(this->mSource->mBufferReturnedCond).empty());
}

TYPED_TEST(HandOffTest, eachPayloadIsCopiedWholeFromItsOffsetOrRefused) {
    this->startWithPool();
    TEncodedSample encoded;
    TDecodedSample decoded;
    const auto expectRefused = [&] {
        EXPECT_EQ(-22, this->mSource->pushEncodedBuffer(&encoded));
        decoded.mPresentationTimeUs += 40000;
        EXPECT_EQ(-22, this->mSource->pushDecodedBuffer(decoded, false));
    };
    expectRefused();
    // Around the size of the pool's buffer.
    for (const size_t bytes : {size_t{1024}, size_t{1025}, size_t{50000}, size_t{3}}) {
        encoded.mBuffer = decoded.mBuffer = this->bufferOf(bytes + 16, 1);
        memset(encoded.mBuffer->base() + 16, 2, bytes);
        encoded.mBuffer->setRange(16, bytes);
        encoded.mSize = decoded.mSize = bytes + 1;
        expectRefused();
        encoded.mSize = decoded.mSize = bytes;
        EXPECT_EQ(OK, this->mSource->pushEncodedBuffer(&encoded));
        decoded.mPresentationTimeUs += 40000;
        EXPECT_EQ(OK, this->mSource->pushDecodedBuffer(decoded, false));
        memset(encoded.mBuffer->base(), 3, bytes);
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(std::vector<uint8_t>(bytes, 2), this->mRead.bytes);
        const sp<MediaCodecBuffer> queued = (--this->mSource->mDecodedSamples.end())->mBuffer;
        EXPECT_EQ(2, queued->data()[0]);
        EXPECT_EQ(2, queued->data()[bytes - 1]);
    }
}

TYPED_TEST(HandOffTest, writerBuffersCarryTimesAndFlags) {
    this->startWithPool();
    for (const int flags : {0, 1, 2, 3}) {
        this->pushEncoded(3 * flags + 3, static_cast<uint32_t>(flags));
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(TypeParam::kIsAudio ? 1 : flags & 1, this->mRead.sync) << "every audio sample is";
        EXPECT_EQ(flags >> 1, this->mRead.config) << flags;
        EXPECT_EQ((3 * flags + 3) * 40000, this->mRead.timeUs);
        EXPECT_EQ(TypeParam::kIsAudio ? 0 : this->mRead.timeUs, this->mRead.decodingTimeUs);
    }
    this->pushEncoded(1);
    this->mSource->mEncodedSamples.begin()->mSize = size_t{PTRDIFF_MAX} + 1;
    EXPECT_EQ(NO_MEMORY, this->readOne()) << "without a buffer a read fails";
}

}  // namespace android::qmmediaeditor
