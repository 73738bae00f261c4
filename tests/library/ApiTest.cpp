// The C API and the C++ facade, and what happens when a host makes a mistake with them.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <qmtranscode/Transcoder.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

namespace qmtranscode {
namespace {

using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

const std::string kClip = QM_CLIPS_DIR "/steps.mp4";
const std::string kLongClip = QM_CLIPS_DIR "/long.mp4";

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

size_t openDescriptors() {
    size_t count = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
        static_cast<void>(each);
        ++count;
    }
    return count;
}

class ApiTest : public testing::Test {
protected:
    ApiTest() {
        char name[] = "/tmp/qm-api-XXXXXX";
        mDirectory = mkdtemp(name);
    }
    ~ApiTest() override { std::filesystem::remove_all(mDirectory); }

    std::string path(const std::string& name) const { return mDirectory + '/' + name; }
    std::string requestText(const std::string& options = "\"trim\": [[0, 1]]",
                            const std::string& input = kClip) const {
        return "{\"input\": \"" + input + "\", \"output\": \"" + path("out.mp4") + "\", " +
               options + '}';
    }
    qmt_job job(const std::string& text) const {
        qmt_job handle = 0;
        EXPECT_EQ(QMT_OK, qmt_job_new(text.c_str(), &handle)) << qmt_error_text();
        return handle;
    }
    static std::string receiptOf(qmt_job handle) {
        const char* receipt = nullptr;
        EXPECT_EQ(QMT_OK, qmt_job_receipt(handle, &receipt));
        return receipt == nullptr ? "" : receipt;
    }
    // The reason for which a request is refused.
    static std::string refusal(const std::string& text) {
        qmt_job handle = 1;
        EXPECT_EQ(QMT_USAGE, qmt_job_new(text.c_str(), &handle)) << text;
        EXPECT_EQ(0u, handle);
        return qmt_error_text();
    }
    Request request() const {
        Request result;
        result.input = kClip;
        result.output = path("out.mp4");
        result.keep = {{0s, 1s}};
        return result;
    }

    std::string mDirectory;
};

TEST_F(ApiTest, aJob_writesTheFileAndItsReceipt) {
    const qmt_job handle = job(requestText("\"trim\": [[0, 1.5], [3, null]], \"fit\": [160, 160]"));
    const char* early = nullptr;
    EXPECT_EQ(QMT_NOT_RUN, qmt_job_receipt(handle, &early));
    struct Seen {
        int last = -1;
        bool rises = true;
    } seen;
    const auto onProgress = [](void* context, int32_t percent) {
        auto* const each = static_cast<Seen*>(context);
        each->rises = each->rises && percent > each->last;
        each->last = percent;
    };
    EXPECT_EQ(QMT_OK, qmt_job_run(handle, onProgress, &seen)) << qmt_error_text();
    EXPECT_TRUE(seen.rises);
    EXPECT_EQ(100, seen.last);
    const std::string receipt = receiptOf(handle);
    EXPECT_THAT(receipt, HasSubstr("\"status\": \"complete\""));
    EXPECT_THAT(receipt, HasSubstr("\"width\": 160"));
    EXPECT_THAT(receipt, HasSubstr("\"frames\": 255"));
    EXPECT_EQ(QMT_OK, qmt_job_free(handle));
    EXPECT_TRUE(std::filesystem::exists(path("out.mp4")));
}

TEST_F(ApiTest, anIsolatedJob_writesTheSameFile) {
    for (const char* const isolate : {"false", "true"}) {
        const qmt_job handle = job("{\"input\": \"" + kClip + "\", \"output\": \"" + path(isolate) +
                                   "\", \"trim\": [\"0-1\"], \"isolate\": " + isolate + '}');
        int last = 0;
        EXPECT_EQ(QMT_OK,
                  qmt_job_run(
                      handle,
                      [](void* context, int32_t percent) { *static_cast<int*>(context) = percent; },
                      &last))
            << qmt_error_text();
        EXPECT_EQ(100, last);
        EXPECT_THAT(receiptOf(handle), HasSubstr("\"status\": \"complete\""));
        EXPECT_EQ(QMT_OK, qmt_job_free(handle));
    }
    EXPECT_TRUE(contentsOf(path("true")) == contentsOf(path("false")));
}

TEST_F(ApiTest, anIsolatedJob_needsNoStatusOfItsProgram) {
    const auto before = signal(SIGCHLD, SIG_IGN);
    Request isolated = request();
    isolated.isolate = true;
    EXPECT_TRUE(Transcoder(isolated).run());
    signal(SIGCHLD, before);
}

TEST_F(ApiTest, jobsAtOnce_writeWhatTheyWriteOneAfterTheOther) {
    const std::string options[] = {
        "\"trim\": [[0, 1]], \"preset\": \"ultrafast\", \"fit\": [160, 160]",
        "\"trim\": [[2.5, 4.25]], \"preset\": \"faster\", \"quality\": 30, \"faststart\": true"};
    const auto write = [&](size_t i, const std::string& name) {
        const qmt_job handle = job("{\"input\": \"" + kClip + "\", \"output\": \"" + path(name) +
                                   "\", " + options[i] + '}');
        EXPECT_EQ(QMT_OK, qmt_job_run(handle, nullptr, nullptr)) << qmt_error_text();
        EXPECT_EQ(QMT_OK, qmt_job_free(handle));
    };
    write(0, "a");
    write(1, "b");
    std::thread other([&] { write(0, "c"); });
    write(1, "d");
    other.join();
    EXPECT_TRUE(contentsOf(path("a")) == contentsOf(path("c")));
    EXPECT_TRUE(contentsOf(path("b")) == contentsOf(path("d")));
}

TEST_F(ApiTest, requestsThatAreWrong_areRefusedWithWhatWouldWork) {
    EXPECT_EQ("the request: this is not JSON in UTF-8", refusal("{"));
    EXPECT_THAT(refusal("[]"), HasSubstr("expected an object"));
    EXPECT_THAT(refusal("{\"output\": \"o\"}"), HasSubstr("input: expected the path"));
    EXPECT_THAT(refusal(requestText("\"fitt\": \"1x1\"")), HasSubstr("unknown option"));
    EXPECT_THAT(refusal(requestText("\"fit=2x2\": true")), HasSubstr("unknown option"));
    EXPECT_THAT(refusal(requestText("\"fit\": [1, 2, 3]")), HasSubstr("[width, height]"));
    EXPECT_THAT(refusal(requestText("\"trim\": [[2, 3], [0, 1]]")), HasSubstr("--trim 0-1"));
    EXPECT_THAT(refusal(requestText("\"trim\": [[0, 2], [1, 3]]")), HasSubstr("--trim 1-3"));
    EXPECT_THAT(refusal(requestText("\"trim\": [[3, 2]]")), HasSubstr("--trim"));
    EXPECT_THAT(refusal(requestText("\"trim\": [[3]]")), HasSubstr("list of periods"));
    EXPECT_THAT(refusal(requestText("\"plan\": true")), HasSubstr("isolate"));
    EXPECT_THAT(refusal(requestText("\"trim\": " + std::string(90000, '['))), HasSubstr("nested"));
    EXPECT_THAT(refusal(requestText("\"fit\": true")), HasSubstr("expected a value"));
    EXPECT_THAT(refusal(requestText("\"fps\": \"a\\nb\"")), Not(HasSubstr("\n")));
    EXPECT_THAT(refusal(requestText("\"" + std::string(1000000, 'x') + "\": 1")),
                HasSubstr("unknown option"));
    ASSERT_EQ(0, mkfifo(path("list").c_str(), 0600));
    EXPECT_THAT(refusal(requestText("\"list\": \"" + path("list") + '"')),
                HasSubstr("not a regular file"));
    EXPECT_STREQ("invalid-request", qmt_error_code());
}

TEST_F(ApiTest, falseAndNull_leaveAnOptionOut) {
    const qmt_job handle =
        job(requestText("\"trim\": [[0, 0.2]], \"split\": null, \"isolate\": null, "
                        "\"program\": null, \"progress\": false, \"fit\": false"));
    EXPECT_EQ(QMT_OK, qmt_job_run(handle, nullptr, nullptr)) << qmt_error_text();
    qmt_job_free(handle);
}

TEST_F(ApiTest, aJobInTheProgressFunctionOfAnother_isAJobLikeAny) {
    Request inner = request();
    inner.output = path("inner.mp4");
    std::atomic<bool> isDone{false};
    // Without video in this period: a warning after the inner job.
    Request outer = request();
    outer.input = QM_CLIPS_DIR "/late-video.mkv";
    outer.keep = {{0s, 400ms}};
    const Result result = Transcoder(outer).run([&](int) {
        if (isDone.exchange(true)) return;
        EXPECT_TRUE(Transcoder(inner).run());
    });
    EXPECT_TRUE(result) << result.text;
    EXPECT_TRUE(isDone);
    EXPECT_THAT(result.receipt, Not(HasSubstr("\"warnings\": []")));
}

TEST_F(ApiTest, aFileSizeLimit_isAnErrorOfTheJob) {
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{20000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const Result result = Transcoder(request()).run();
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(QMT_FAILED, result.status);
    EXPECT_EQ("EFBIG", result.code);
    EXPECT_FALSE(std::filesystem::exists(path("out.mp4")));
}

TEST_F(ApiTest, theRequestOfAnIsolatedReceipt_isARequest) {
    Request isolated = request();
    isolated.isolate = true;
    isolated.overwrite = true;
    const Result result = Transcoder(isolated).run();
    ASSERT_TRUE(result) << result.text;
    const size_t begin = result.receipt.find("\"request\": ") + strlen("\"request\": ");
    const size_t end = result.receipt.find('}', begin) + 1;
    const std::string again = result.receipt.substr(begin, end - begin);
    EXPECT_THAT(again, HasSubstr("isolate"));
    const qmt_job handle = job(again);
    EXPECT_EQ(QMT_OK, qmt_job_run(handle, nullptr, nullptr)) << qmt_error_text();
    qmt_job_free(handle);
}

TEST_F(ApiTest, nullPointersAndHandlesThatAreNone_areErrors) {
    EXPECT_EQ(QMT_INVALID_ARGUMENT, qmt_job_new("{}", nullptr));
    qmt_job handle = 1;
    EXPECT_EQ(QMT_INVALID_ARGUMENT, qmt_job_new(nullptr, &handle));
    EXPECT_EQ(0u, handle);
    const qmt_job freed = job(requestText());
    EXPECT_EQ(QMT_INVALID_ARGUMENT, qmt_job_receipt(freed, nullptr));
    EXPECT_EQ(QMT_OK, qmt_job_free(freed));
    for (const qmt_job none : {freed, qmt_job{0}, qmt_job{12345}, ~qmt_job{0}}) {
        const char* receipt = "";
        EXPECT_EQ(QMT_INVALID_HANDLE, qmt_job_run(none, nullptr, nullptr));
        EXPECT_EQ(QMT_INVALID_HANDLE, qmt_job_cancel(none));
        EXPECT_EQ(QMT_INVALID_HANDLE, qmt_job_receipt(none, &receipt));
        EXPECT_EQ(nullptr, receipt);
        EXPECT_EQ(QMT_INVALID_HANDLE, qmt_job_free(none));
        EXPECT_STREQ("invalid-handle", qmt_error_code());
    }
    EXPECT_STREQ(QM_EXPECTED_VERSION, qmt_version());
}

// The statuses of what a callback may not do.
struct InCallback {
    qmt_job job;
    std::atomic<int> freed{0};
    std::atomic<int> ran{0};
    std::atomic<int> received{0};
};

TEST_F(ApiTest, freeAndRunInTheCallback_areRefusedAndTheJobGoesOn) {
    InCallback seen{job(requestText())};
    const auto misuse = [](void* context, int32_t percent) {
        if (percent == 100) return;
        auto* const each = static_cast<InCallback*>(context);
        const char* receipt = nullptr;
        each->freed = qmt_job_free(each->job);
        each->ran = qmt_job_run(each->job, nullptr, nullptr);
        each->received = qmt_job_receipt(each->job, &receipt);
    };
    EXPECT_EQ(QMT_OK, qmt_job_run(seen.job, misuse, &seen));
    EXPECT_EQ(QMT_BUSY, seen.freed);
    EXPECT_EQ(QMT_BUSY, seen.ran) << "as on a second thread";
    EXPECT_EQ(QMT_NOT_RUN, seen.received);
    EXPECT_EQ(QMT_USED, qmt_job_run(seen.job, nullptr, nullptr));
    EXPECT_EQ(QMT_OK, qmt_job_cancel(seen.job));
    EXPECT_EQ(QMT_OK, qmt_job_free(seen.job));
}

TEST_F(ApiTest, cancel_stopsBeforeAndDuringTheRun) {
    for (const bool isolates : {false, true}) {
        const std::string isolate = isolates ? ", \"isolate\": true" : "";
        const qmt_job early = job(requestText("\"trim\": [[0, 1]]" + isolate));
        qmt_job_cancel(early);
        EXPECT_EQ(QMT_STOPPED, qmt_job_run(early, nullptr, nullptr));
        EXPECT_THAT(receiptOf(early), HasSubstr("\"nothing written\""));
        qmt_job_free(early);
        EXPECT_FALSE(std::filesystem::exists(path("out.mp4")));

        qmt_job running = job(requestText("\"partial\": \"discard\"" + isolate, kLongClip));
        EXPECT_EQ(QMT_STOPPED, qmt_job_run(
                                   running,
                                   [](void* context, int32_t percent) {
                                       if (percent >= 3) {
                                           qmt_job_cancel(*static_cast<qmt_job*>(context));
                                       }
                                   },
                                   &running))
            << qmt_error_text();
        EXPECT_STREQ("stopped", qmt_error_code());
        qmt_job_free(running);
        EXPECT_FALSE(std::filesystem::exists(path("out.mp4")));
    }
}

// At moments from its start on.
TEST_F(ApiTest, anIsolatedJobThatIsCancelledEarly_isStopped) {
    for (int i = 0; i < 25; ++i) {
        Request isolated = request();
        isolated.isolate = true;
        isolated.input = kLongClip;
        isolated.keep.clear();
        isolated.keepPartial = false;
        Transcoder transcoder(isolated);
        std::thread other([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(300 * i));
            transcoder.cancel();
        });
        const Result result = transcoder.run();
        other.join();
        EXPECT_EQ(QMT_STOPPED, result.status) << i << ": " << result.text;
    }
}

TEST_F(ApiTest, aStoppedJob_keepsTheShorterFile) {
    qmt_job running = job(requestText("\"fps\": 30", kLongClip));
    EXPECT_EQ(QMT_STOPPED, qmt_job_run(
                               running,
                               [](void* context, int32_t percent) {
                                   if (percent >= 3)
                                       qmt_job_cancel(*static_cast<qmt_job*>(context));
                               },
                               &running));
    EXPECT_THAT(receiptOf(running), HasSubstr("\"status\": \"stopped\""));
    EXPECT_TRUE(std::filesystem::exists(path("out.mp4")));
    qmt_job_free(running);
}

TEST_F(ApiTest, filesThatCannotBeUsed_areErrorsOfTheJob) {
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0600));
    std::ofstream(path("text")) << "no media";
    const auto failure = [this](const std::string& input, const std::string& output) {
        Request bad = request();
        bad.input = input;
        bad.output = output;
        Transcoder transcoder(bad);
        return transcoder.run();
    };
    EXPECT_EQ("input-not-a-file", failure(path("fifo"), path("out.mp4")).code);
    EXPECT_EQ("not-media", failure(path("text"), path("out.mp4")).code);
    EXPECT_EQ("ENOENT", failure(path("none"), path("out.mp4")).code);
    EXPECT_EQ(QMT_UNUSABLE, failure(path("none"), path("out.mp4")).status);
    EXPECT_EQ("ENOTDIR", failure(kClip, path("text/out.mp4")).code);
    EXPECT_EQ("ENOENT", failure(kClip, path("none/out.mp4")).code);
    const Result exists = failure(kClip, path("text"));
    EXPECT_EQ(QMT_USAGE, exists.status);
    EXPECT_EQ("output-exists", exists.code);
    EXPECT_THAT(exists.receipt, HasSubstr("\"output-exists\""));
    EXPECT_FALSE(exists.isRetryable());
    EXPECT_EQ("no media", contentsOf(path("text")));
    EXPECT_EQ("same-file", failure(path("text"), path("text")).code);
}

TEST_F(ApiTest, aProgramThatCrashesOrIsMissing_isAnErrorOfTheJob) {
    std::ofstream(path("crash")) << "#!/bin/sh\nkill -SEGV $$\n";
    chmod(path("crash").c_str(), 0700);
    const size_t before = openDescriptors();
    for (const auto& [program, code] :
         {std::pair(path("crash"), "program-crashed"), std::pair(path("none"), "ENOENT"),
          std::pair(std::string("/bin/true"), "program-crashed")}) {
        const qmt_job handle = job(requestText("\"program\": \"" + program + '"'));
        EXPECT_EQ(QMT_FAILED, qmt_job_run(handle, nullptr, nullptr));
        EXPECT_STREQ(code, qmt_error_code()) << qmt_error_text();
        EXPECT_THAT(receiptOf(handle), HasSubstr("\"failed\""));
        qmt_job_free(handle);
    }
    EXPECT_EQ(before, openDescriptors());
}

typedef ApiTest ApiDeathTest;

TEST_F(ApiDeathTest, aProgressFunctionThatThrows_aborts) {
    const auto misuse = [](void*, int32_t) { throw std::out_of_range("of the host"); };
    for (const char* const options : {"\"trim\": [[0, 1]]", "\"isolate\": true"}) {
        const qmt_job handle = job(requestText(options));
        EXPECT_DEATH(qmt_job_run(handle, misuse, nullptr),
                     "the progress function of qmt_job_run threw an exception");
        qmt_job_free(handle);
    }
}

// QM_RUNS says how many; the first ones fill caches.
TEST_F(ApiTest, manyJobs_leaveMemoryAndDescriptorsAsTheyWere) {
    const char* const runs = getenv("QM_RUNS");
    const int count = runs == nullptr ? 60 : atoi(runs);
    constexpr int kWarmUp = 20;
    constexpr size_t kToleranceBytes = 1 << 20;
    Request each = request();
    each.overwrite = true;
    each.keep = {{0s, 200ms}};
    each.preset = "ultrafast";
    size_t descriptors = 0;
    size_t heapBytes = 0;
    for (int i = 0; i < kWarmUp + count; ++i) {
        if (i == kWarmUp) {
            descriptors = openDescriptors();
            heapBytes = mallinfo2().uordblks;
        }
        each.fit = i % 2 == 0 ? Size{160, 160} : Size{96, 96};
        Transcoder transcoder(each);
        if (i % 5 == 0) transcoder.cancel();
        ASSERT_EQ(i % 5 == 0 ? QMT_STOPPED : QMT_OK, transcoder.run().status);
    }
    EXPECT_EQ(descriptors, openDescriptors());
    EXPECT_LT(mallinfo2().uordblks, heapBytes + kToleranceBytes);
}

TEST_F(ApiTest, theProcess_staysAsItWas) {
    const auto handlers = [] {
        std::vector<void (*)(int)> found;
        for (int signal = 1; signal < 32; ++signal) {
            struct sigaction action {};
            sigaction(signal, nullptr, &action);
            found.push_back(action.sa_handler);
        }
        return found;
    };
    const auto handlersBefore = handlers();
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const size_t descriptors = openDescriptors();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(QMT_OK, Transcoder(request()).run().status);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(handlersBefore, handlers());
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
    EXPECT_STREQ("C", setlocale(LC_ALL, nullptr));
    EXPECT_EQ(descriptors, openDescriptors());
}

TEST_F(ApiTest, theFacade_passesEveryMemberOn) {
    Request full = request();
    full.output = path("a \"name\" with \\ and \n.mp4");
    full.keep = {{500ms, 1s}, {2s}};
    full.fit = Size{160, 160};
    full.frameRate = 15;
    full.quality = 40;
    full.videoBitrate = 300000;
    full.audioBitrate = 48000;
    full.audioRate = 22050;
    full.audioChannels = 1;
    full.loudness = -20.5;
    full.preset = "ultrafast";
    full.threads = 2;
    full.fastStart = true;
    full.options = {{"volume", ""}};
    EXPECT_THROW(Transcoder{full}, Error) << "--volume without a value";
    full.options = {{"video-codec", "avc"}, {"no-metadata", ""}};
    Transcoder transcoder(full);
    const Result result = transcoder.run();
    EXPECT_TRUE(result) << result.text;
    EXPECT_THAT(result.receipt, HasSubstr("\"trim\":[\"0.500000-1.000000\",\"2.000000-\"]"));
    EXPECT_THAT(result.receipt, HasSubstr("\"loudness\":\"-20.5\""));
    EXPECT_THAT(result.receipt, HasSubstr("\"sample_rate\": 22050"));
    EXPECT_TRUE(std::filesystem::exists(full.output));
}

TEST_F(ApiTest, theFacade_throwsForWrongUse) {
    Request bad = request();
    bad.keep = {{2s, 3s}, {0s, 1s}};
    try {
        Transcoder transcoder(bad);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(QMT_USAGE, error.status());
        EXPECT_THAT(error.what(), HasSubstr("--trim"));
    }
    Transcoder transcoder(request());
    std::atomic<bool> nested{false};
    EXPECT_TRUE(transcoder.run([&](int) {
        try {
            transcoder.run();
        } catch (const Error& error) {
            nested = nested || error.status() == QMT_BUSY;
        }
    }));
    EXPECT_TRUE(nested);
    EXPECT_THROW(transcoder.run(), Error);
    Request again = request();
    again.overwrite = true;
    again.input = kLongClip;
    Transcoder throwing(again);
    EXPECT_THROW(throwing.run([](int) { throw std::out_of_range("of the host"); }),
                 std::out_of_range);
}

}  // namespace
}  // namespace qmtranscode
