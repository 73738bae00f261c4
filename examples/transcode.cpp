// Keeps the first two seconds of a media file: transcode INPUT OUTPUT. Ctrl-C stops it and keeps
// what has been written.
#include <pthread.h>
#include <qmtranscode/Transcoder.h>
#include <signal.h>
#include <stdio.h>

#include <thread>

using namespace std::chrono_literals;

// Ends with its block, also when run() throws.
struct Watcher {
    ~Watcher() {
        pthread_kill(thread.native_handle(), SIGUSR1);
        thread.join();
    }

    std::thread thread;
};

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: transcode INPUT OUTPUT\n");
        return 2;
    }
    qmtranscode::Request request;
    request.input = argv[1];
    request.output = argv[2];
    request.keep = {{0s, 2s}};
    try {
        qmtranscode::Transcoder transcoder(request);
        // The signal goes to this thread alone: all others block it.
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        sigaddset(&interrupt, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
        const Watcher watcher{std::thread([&] {
            int signal = 0;
            sigwait(&interrupt, &signal);
            transcoder.cancel();
        })};
        const auto result =
            transcoder.run([](int percent) { fprintf(stderr, "\r%d %%", percent); });
        printf("%s", result.receipt.c_str());
        if (!result) fprintf(stderr, "\n%s\n", result.text.c_str());
        return result.status;
    } catch (const qmtranscode::Error& error) {
        fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
