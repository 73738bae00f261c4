// Which tracks are decoded, and with what.
#include <editorutils/MediaEditorDefs.h>

#include "SessionTest.h"

namespace android::qmmediaeditor {

// The selection among the tracks of a platform of its own.
struct Selection {
    explicit Selection(TranscodeProperty* request) : session(request, nullptr) {
        session.createExtractor(session.mFileAttribute);
    }
    sp<AMessage> addTrack(const char* mime, int64_t durationUs = 1000000) {
        sp<AMessage> format = new AMessage;
        format->setString("mime", mime);
        format->setInt64("durationUs", durationUs);
        platform.extractor().addTrack(format);
        return format;
    }
    int run() { return session.createTrack(); }
    // The value of that key in the format of the first track's decoder; -1 when there is none.
    int32_t told(const char* name) {
        int32_t value = -1;
        decoder->configuredFormat()->findInt32(name, &value);
        return value;
    }

    ScriptedPlatform platform;
    Transcode session;
    sp<ScriptedCodec> decoder;
};

class TrackSelectionTest : public SessionTest {};

TEST_F(TrackSelectionTest, theFirstUsableTrackOfEachKindIsChosen) {
    const struct {
        std::vector<const char*> mimes;
        int32_t audio;
        int32_t video;
    } table[] = {
        {{"text/3gpp"}, -1, -1},
        {{"video/avc", "video/hevc", "audio/mpeg", "audio/3gpp"}, 2, 0},
        {{"AUDIO/mpeg", "ViDeO/avc"}, 0, 1},
        {{MEDIAEDITOR_MIMETYPE_AUDIO_NOTSUPPORTED, "audio/mpeg"}, 1, -1},
        {{"VIDEO/X-NOTSUPPORTED", "text/3gpp", "video/avc"}, -1, 2},
        {{"audio", "videos/avc"}, -1, -1},
    };
    for (const auto& row : table) {
        Selection selection(&mRequest);
        for (const char* mime : row.mimes) selection.addTrack(mime);
        EXPECT_EQ(0, selection.run());
        const Transcode& s = selection.session;
        const char* what = row.mimes.front();
        EXPECT_EQ(row.audio, s.mAudioAttribute.mAudioTrackIndex) << what;
        EXPECT_EQ(row.video, s.mVideoTrackIndex) << what;
        EXPECT_EQ(row.audio >= 0, s.mFileAttribute.mHasAudio != 0) << what;
        EXPECT_EQ(row.video >= 0, s.mFileAttribute.mHasVideo != 0) << what;
        Lines selected;
        for (int32_t i = 0; i < s.mTrackCount; ++i) {
            EXPECT_EQ(i == row.audio || i == row.video, s.mpTrack[i].mSelected) << what;
            EXPECT_EQ(s.mpTrack[i].mSelected, s.mpTrack[i].mCodecStatus != nullptr) << what;
            if (!s.mpTrack[i].mSelected) continue;
            EXPECT_EQ(i == row.audio, s.mpTrack[i].mCodecStatus->mIsAudio) << what;
            selected.push_back("extractor selectTrack " + std::to_string(i));
        }
        EXPECT_EQ(selected, selection.platform.journal().linesOf("extractor selectTrack")) << what;
    }
}

TEST_F(TrackSelectionTest, theDurationIsTheLongestOfTheSelectedTracks) {
    for (const int64_t audioUs : {5000000, 2000000}) {
        Selection selection(&mRequest);
        selection.addTrack(kAac, audioUs);
        selection.addTrack(kAvc, 3000000);
        selection.addTrack("audio/mpeg", 9000000);
        EXPECT_EQ(0, selection.run());
        EXPECT_EQ(std::max<int64_t>(audioUs, 3000000),
                  selection.session.mFileAttribute.mDurationUs);
    }
}

TEST_F(TrackSelectionTest, decodersAreToldWhatTheTrackNeeds) {
    for (const int32_t delay : {-3, 0, 1, 1024}) {
        Selection selection(&mRequest);
        selection.addTrack(kAac)->setInt32("encoder-delay", delay);
        selection.decoder = selection.platform.decoder(kAac);
        EXPECT_EQ(0, selection.run());
        EXPECT_EQ(std::min(delay, 0), selection.told("encoder-delay"));
    }
    for (const int type : {-1, 3}) {
        Selection selection(&mRequest);
        selection.platform.setDitherType(type);
        selection.addTrack(kAvc)->setInt32("android._is-hdr", 1);
        selection.decoder = selection.platform.decoder(kAvc);
        EXPECT_EQ(0, selection.run());
        EXPECT_EQ(type, selection.told("dither-type"));
        EXPECT_EQ(19, selection.told("color-format"));
    }
    EXPECT_EQ(2u, mJournal.count("Transcode: isHDR - I420"));
}

TEST_F(TrackSelectionTest, codecDataIsKeptOfExactlyOneSpellingOfAvc) {
    for (const char* mime : {"video/avc", "video/AVC"}) {
        Selection selection(&mRequest);
        const sp<AMessage> track = selection.addTrack(mime);
        track->setBuffer("csd-0", bufferOf({1, 2}));
        track->setBuffer("csd-1", bufferOf({3}));
        EXPECT_EQ(0, selection.run());
        const bool kept = mime == std::string("video/avc");
        EXPECT_EQ(kept, selection.session.mVideoAttribute.mAvcCsd0 != nullptr);
        EXPECT_EQ(kept, selection.session.mVideoAttribute.mAvcCsd1 != nullptr);
    }
}

TEST_F(TrackSelectionTest, failuresAreReported) {
    for (const char* operation : {"selectTrack", "getTrackFormat"}) {
        Selection selection(&mRequest);
        selection.addTrack(kAvc);
        selection.platform.extractor().fail(operation, -5);
        EXPECT_EQ(-1010, selection.run()) << operation;
    }
    Selection selection(&mRequest);
    selection.addTrack(kAvc);
    selection.platform.decoder(kAvc)->fail("configure", -77);
    EXPECT_EQ(-77, selection.run());
    EXPECT_TRUE(logged(ANDROID_LOG_ERROR, "unable to configure decoder"));
}

}  // namespace android::qmmediaeditor
