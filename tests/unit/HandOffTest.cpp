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
    void expectFull() {
        EXPECT_TRUE(this->waitFor(Kind::kEncodedFull));
        EXPECT_TRUE(this->waitFor(Kind::kDecodedFull));
    }
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
        TDecodedSample input;
        while (taken < 11 && this->takeDecoded(&input) == OK) {
            EXPECT_EQ(taken++, input.mBuffer->base()[0]);
        }
    });
    EXPECT_TRUE(this->waitFor("waiting @ read()"));
    EXPECT_TRUE(this->waitForThread("waiting @ Decoded data read()"));
    this->fillBoth();
    EXPECT_EQ(10u, this->mSource->mEncodedSamples.size());
    EXPECT_EQ(10u, this->mSource->mDecodedSamples.size());
    Background encoderOutput([&] { EXPECT_EQ(OK, this->pushEncoded(10)); });
    Background decoder([&] { EXPECT_EQ(OK, this->pushDecoded(10)); });
    this->expectFull();
    EXPECT_TRUE(writer.finishes() && encoder.finishes());
    EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
    EXPECT_EQ(11, read);
    EXPECT_EQ(11, taken);
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, aQueueWhoseConsumerComesLaterIsHandedOverWhole) {
    this->restart();
    this->fillBoth();
    Background encoderOutput([&] { EXPECT_EQ(OK, this->pushEncoded(10)); });
    Background decoder([&] { EXPECT_EQ(OK, this->pushDecoded(10)); });
    this->expectFull();
    TDecodedSample input;
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(OK, this->takeDecoded(&input));
    }
    EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, aProducerThatIsWokenBeforeItsBatchIsGoneWaitsAgain) {
    this->restart();
    this->fillBoth();
    Background encoderOutput([&] {
        for (int i = 10; i < 12; ++i) EXPECT_EQ(OK, this->pushEncoded(i));
    });
    Background decoder([&] {
        for (int i = 10; i < 12; ++i) EXPECT_EQ(OK, this->pushDecoded(i));
    });
    this->expectFull();
    const auto sizes = [&] {
        Mutex::Autolock encoded(this->mSource->mEncodedLock);
        Mutex::Autolock decoded(this->mSource->mDecodedLock);
        this->mSource->mBufferReturnedCond.broadcast();
        this->mSource->mDecoderBufferReturnedCond.broadcast();
        return std::make_pair(this->mSource->mEncodedSamples.size(),
                              this->mSource->mDecodedSamples.size());
    };
    TDecodedSample input;
    for (size_t left = 11; left > 0; --left) {
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(std::make_pair(left, left), sizes());
            sched_yield();
        }
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(OK, this->takeDecoded(&input));
    }
    EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
    this->mSource->setCodecStopped();
}

TYPED_TEST(HandOffTest, everyWayToStopWakesEveryProducer) {
    for (const auto& stop : kStops) {
        this->restart();
        this->fillBoth();
        Background encoderOutput([&] { EXPECT_EQ(OK, this->pushEncoded(10)); });
        Background decoder([&] { EXPECT_EQ(OK, this->pushDecoded(10)); });
        this->expectFull();
        stop(*this->mSource);
        EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
    }
}

TYPED_TEST(HandOffTest, everyWayToStopWakesEveryConsumer) {
    for (const auto& stop : kStops) {
        this->restart();
        TDecodedSample input;
        Background writer([&] { EXPECT_EQ(-1011, this->readOne()); });
        status_t taken = OK;
        Background encoder([&] { taken = this->takeDecoded(&input); });
        EXPECT_TRUE(this->waitFor("waiting @ read()"));
        EXPECT_TRUE(this->waitForThread("waiting @ Decoded data read()"));
        stop(*this->mSource);
        EXPECT_TRUE(writer.finishes() && encoder.finishes());
        const bool toldToExit = this->mSource->mMediaEncoderThread->mExitRequested;
        EXPECT_EQ(toldToExit ? -1011 : -1018, taken);
    }
}

TYPED_TEST(HandOffTest, pushesBeforeTheStartWaitForItOrForAStop) {
    for (const bool started : {true, false}) {
        this->renew(TypeParam::attribute());
        this->mJournal.clear();
        const status_t expected = started ? 0 : -1011;
        Background encoderOutput([&] { EXPECT_EQ(expected, this->pushEncoded(0)); });
        Background decoder([&] { EXPECT_EQ(expected, this->pushDecoded(0)); });
        EXPECT_TRUE(this->waitFor(TypeParam::kPushedEarly));
        EXPECT_TRUE(this->waitFor("pushBuffer called before start"));
        started ? this->mSource->start() : this->mSource->stop();
        EXPECT_TRUE(encoderOutput.finishes() && decoder.finishes());
        EXPECT_EQ(started, this->mSource->getRunning());
        EXPECT_EQ(started ? 1u : 0u, this->mSource->mEncodedSamples.size());
        EXPECT_EQ(started ? 1u : 0u, this->mSource->mDecodedSamples.size());
    }
}

TYPED_TEST(HandOffTest, aStoppedSourceTakesNothingMoreAndDeliversWhatItHas) {
    TypeParam::makePool(*this->mSource);
    this->mSource->start();
    for (const int number : {1, 2}) EXPECT_EQ(OK, this->pushEncoded(number));
    this->mSource->setCodecStopped();
    EXPECT_EQ(-1011, this->pushEncoded(3));
    EXPECT_EQ(-1011, this->pushDecoded(3));
    EXPECT_TRUE(this->logged(ANDROID_LOG_VERBOSE, "enter push encoded buffer in EOS State"));
    EXPECT_TRUE(this->mSource->mDecodedSamples.empty());
    for (const int number : {1, 2}) {
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(number, this->mRead.bytes[0]);
        EXPECT_TRUE(this->mSource->getRunning());
    }
    EXPECT_EQ(-1011, this->readOne());
    EXPECT_FALSE(this->mSource->getRunning());
    EXPECT_TRUE(this->logged(ANDROID_LOG_DEBUG, "eos---"));
    // An ended source is not waited for.
    EXPECT_EQ(-1011, this->pushEncoded(4));
    EXPECT_EQ(-1011, this->pushDecoded(4));
    EXPECT_EQ(-1011, this->pushEnd(true));
    EXPECT_EQ(1u, this->mJournal.count(std::string(TypeParam::kTag) +
                                       ": enter push encoded buffer in EOS State"));
}

TYPED_TEST(HandOffTest, aReaderThatIsWokenWithNothingToReadWaitsAgain) {
    TypeParam::makePool(*this->mSource);
    this->mSource->start();
    Background writer([&] { EXPECT_EQ(OK, this->readOne()); });
    EXPECT_TRUE(this->waitFor("waiting @ read()"));
    for (int i = 0; i < 200; ++i) {
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
        TSourceBase& base = *this->mSource;
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
        stop(base);
        EXPECT_EQ(5u, sawFlag.size());
        for (const auto& saw : sawFlag) EXPECT_TRUE(saw.second);
        this->mCalls.forgetHooks();
    }
}

TYPED_TEST(HandOffTest, aStartIsToldUnderTheLockAfterItsFlagWasSet) {
    bool told = false;
    this->mCalls.onWakeUp(this->mSource->mStartCond, [&] {
        EXPECT_NE(OK, this->mSource->mEncodedLock.tryLock());
        told = this->mSource->mStarted;
    });
    this->mSource->start();
    EXPECT_TRUE(told);
    this->mCalls.forgetHooks();
}

TYPED_TEST(HandOffTest, aFailureIsRecordedBeforeAnyThreadIsWoken) {
    this->restart();
    int32_t seen = 0;
    this->mCalls.onWakeUp(this->mSource->mDecoderBufferReturnedCond,
                          [&] { seen = this->mSource->failure(); });
    this->mJournal.on(std::string(TypeParam::kTag) + ": setCodecStopped",
                      [&] { EXPECT_EQ(-1130, this->mSource->failure()); });
    this->mSource->mCore.reportFailure(-1130);
    EXPECT_EQ(-1130, seen);
    this->mCalls.forgetHooks();
}

TYPED_TEST(HandOffTest, onlyTheSessionsThreadPollsForAStopThatWakesNobody) {
    this->restart();
    this->mCalls.setInstant();
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

TYPED_TEST(HandOffTest, aPayloadIsCopiedFromItsOffset) {
    this->restart();
    TypeParam::makePool(*this->mSource);
    const size_t bytes = TypeParam::kSampleBytes;
    const auto payload = [&] {
        const sp<MediaCodecBuffer> buffer = this->bufferOf(bytes + 16, 1);
        memset(buffer->base() + 16, 2, bytes);
        buffer->setRange(16, bytes);
        return buffer;
    };
    TEncodedSample encoded;
    TDecodedSample decoded;
    encoded.mBuffer = decoded.mBuffer = payload();
    encoded.mSize = decoded.mSize = bytes;
    EXPECT_EQ(OK, this->mSource->pushEncodedBuffer(&encoded));
    EXPECT_EQ(OK, this->mSource->pushDecodedBuffer(decoded, false));
    EXPECT_EQ(OK, this->readOne());
    EXPECT_EQ(std::vector<uint8_t>(bytes, 2), this->mRead.bytes);
    const sp<MediaCodecBuffer> queued = this->mSource->mDecodedSamples.begin()->mBuffer;
    EXPECT_EQ(2, queued->data()[0]);
    EXPECT_EQ(2, queued->data()[bytes - 1]);
    encoded.mSize = decoded.mSize = bytes + 1;
    EXPECT_EQ(-22, this->mSource->pushEncodedBuffer(&encoded)) << "the capacity is more than that";
}

TYPED_TEST(HandOffTest, samplesWithoutTheirBytesAreRefused) {
    this->mSource->start();
    TEncodedSample encoded;
    TDecodedSample decoded;
    EXPECT_EQ(-22, this->mSource->pushEncodedBuffer(&encoded));
    EXPECT_EQ(-22, this->mSource->pushDecodedBuffer(decoded, false));
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "pushEncodedBuffer get an NULL buffer"));
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "pushDecodedBuffer get an NULL buffer"));
    encoded.mBuffer = decoded.mBuffer = this->bufferOf(8, 0);
    encoded.mSize = decoded.mSize = 9;
    EXPECT_EQ(-22, this->mSource->pushEncodedBuffer(&encoded));
    EXPECT_EQ(-22, this->mSource->pushDecodedBuffer(decoded, false));
    EXPECT_TRUE(this->mSource->mEncodedSamples.empty());
    EXPECT_TRUE(this->mSource->mDecodedSamples.empty());
}

TYPED_TEST(HandOffTest, eachSampleIsCopiedWholeWhateverItsSize) {
    TypeParam::makePool(*this->mSource);
    this->mSource->start();
    for (const size_t bytes : {size_t{1024}, size_t{1025}, size_t{50000}, size_t{3}}) {
        TEncodedSample sample;
        sample.mBuffer = this->bufferOf(bytes + 1, 5);
        sample.mSize = bytes;
        this->mSource->pushEncodedBuffer(&sample);
        memset(sample.mBuffer->base(), 6, bytes);
        EXPECT_EQ(OK, this->readOne());
        EXPECT_EQ(std::vector<uint8_t>(bytes, 5), this->mRead.bytes);
    }
}

TYPED_TEST(HandOffTest, withoutABufferForTheWriterAReadFails) {
    this->mSource->start();
    this->pushEncoded(0);
    EXPECT_EQ(-1011, this->readOne());
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "MediaBufferGroup is null"));
    TypeParam::makePool(*this->mSource);
    this->pushEncoded(1);
    this->mSource->mEncodedSamples.begin()->mSize = size_t{PTRDIFF_MAX} + 1;
    EXPECT_EQ(NO_MEMORY, this->readOne());
    EXPECT_TRUE(this->logged(ANDROID_LOG_ERROR, "Error was returned:[-12]"));
}

}  // namespace android::qmmediaeditor
