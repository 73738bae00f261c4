// Keeps one period of a media file: trim INPUT OUTPUT START END, in seconds. Enter stops it.
#include <fcntl.h>
#include <poll.h>
#include <qmtranscode/Host.h>
#include <qmtranscode/TranscodeComponent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <future>

using namespace android;
using namespace android::qmmediaeditor;

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: trim INPUT OUTPUT START END\n");
        return 2;
    }
    const int input = open(argv[1], O_RDONLY | O_CLOEXEC);
    if (input < 0) {
        perror(argv[1]);
        return 3;
    }
    const int output = open(argv[2], O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (output < 0) {
        perror(argv[2]);
        return 2;
    }

    const TrimPeriod period{static_cast<int64_t>(atof(argv[3]) * 1e6),
                            static_cast<int64_t>(atof(argv[4]) * 1e6)};
    TranscodeProperty property;
    property.mInputFd = input;
    property.mOutputFd = output;  // closed by the session
    property.mProgressCallback = [](int32_t percent) { fprintf(stderr, "\r%d %%", percent); };
    property.mTrimEnabled = true;
    property.mPeriodCount = 1;
    property.mPeriods = &period;

    const sp<TranscodeComponent> component = new TranscodeComponent();
    HostOptions options;
    options.cutTimesUs = {period.mStartUs, period.mEndUs};  // cuts the audio to the sample
    component->create(&property, createHostPlatform(options));
    auto result = std::async(std::launch::async, [&] { return component->process(); });
    pollfd keys{STDIN_FILENO, POLLIN, 0};
    while (result.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        if (poll(&keys, 1, 0) > 0 && getchar() == '\n') component->cancel();
    }
    const int32_t code = result.get();
    component->destory();
    close(input);
    fprintf(stderr, "\nended with %d\n", code);
    return code == OK ? 0 : 1;
}
