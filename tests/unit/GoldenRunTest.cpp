// The messages of one whole run, compared with those of a run that was looked at.
//
// QM_UPDATE_GOLDEN=1 in the environment writes the file anew.
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "SessionTest.h"

namespace android::qmmediaeditor {

class GoldenRunTest : public SessionTest {
protected:
    // Values that differ from run to run have no place in the text.
    static std::string stable(const std::string& text) {
        static const std::regex elapsed("(Loop exit|FD\\[)( ?)-?[0-9]+");
        return std::regex_replace(text, elapsed, "$1$2#");
    }
    // The messages by tag, those of each thread together: only their order within a thread is
    // certain.
    std::string text() const {
        std::map<std::pair<std::string, std::thread::id>, std::string> byThread;
        for (const LogCapture::Line& line : mLog.lines()) {
            byThread[{line.tag, line.thread}] +=
                std::string(1, "  VDIWEF"[line.priority]) + " " + stable(line.text) + "\n";
        }
        std::vector<std::string> parts;
        for (const auto& [key, messages] : byThread) {
            parts.push_back("== " + key.first + "\n" + messages);
        }
        std::sort(parts.begin(), parts.end());
        std::string all;
        for (const std::string& part : parts) all += part;
        return all;
    }
};

TEST_F(GoldenRunTest, everyMessageOfAWholeRunIsAsItWas) {
    prepareEchoes();
    addSamples(3, 3);
    setPeriods({{0, 10000000}});
    // Each queue is filled before its consumer begins, so that nobody's waiting is left to chance.
    mAudioEncoder->holdInput(true);
    mVideoEncoder->holdInput(true);
    mAudioDecoder->setBlocking(true);
    mVideoDecoder->setBlocking(true);
    mJournal.on("Transcode: wait writer EOS", [this] {
        EXPECT_TRUE(mLog.waitFor("TAudioSource", "waiting @ read()"));
        EXPECT_TRUE(mLog.waitFor("TVideoSource", "waiting @ read()"));
        for (const auto* encoder : {&mAudioEncoder, &mVideoEncoder}) {
            // No output until the encoder has all of its input.
            (*encoder)->holdOutput(true);
            (*encoder)->holdInput(false);
            EXPECT_TRUE((*encoder)->waitForQueued(4));
            (*encoder)->holdOutput(false);
        }
    });
    EXPECT_EQ(0, run());
    awaitEncoders();
    mPlatform.letGoOfWriter();
    mSession.reset();

    const std::string path = QM_GOLDEN_DIR "/whole_run.txt";
    if (getenv("QM_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text();
    std::stringstream golden;
    golden << std::ifstream(path).rdbuf();
    EXPECT_EQ(golden.str(), text());
}

}  // namespace android::qmmediaeditor
