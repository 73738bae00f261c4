/**
 * @file Transcoder.h
 * @brief Transcodes media files into MPEG-4 files, from C++.
 *
 * @code
 * using namespace std::chrono_literals;
 * qmtranscode::Request request;
 * request.input = "in.mov";
 * request.output = "out.mp4";
 * request.keep = {{0s, 2500ms}};
 * request.fit = qmtranscode::Size{1280, 720};
 * qmtranscode::Transcoder transcoder(request);
 * const auto result = transcoder.run([](int percent) { printf("%d %%\n", percent); });
 * if (!result) fprintf(stderr, "%s\n", result.text.c_str());
 * @endcode
 *
 * Everything here is inline, on top of the C API of qmtranscode.h: link with libqmtranscode only.
 * What qmtranscode.h says of threads and of the process applies here as well, and its
 * qmt_configure_process() is for both.
 */
#pragma once

#include <qmtranscode/qmtranscode.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qmtranscode {

/** A part of the input, from `start` (included) to `end` (excluded); without `end`, up to its end.
 */
struct Period {
    std::chrono::microseconds start{0};
    std::optional<std::chrono::microseconds> end = std::nullopt;
};

/** A frame as it is displayed, in pixels. */
struct Size {
    int width = 0;
    int height = 0;
};

/**
 * What is to be done. A member without a value follows the input. The options of the command
 * qmtranscode(1) have the same meaning and the same limits.
 */
struct Request {
    /** Path of the input, a regular file; UTF-8. */
    std::string input;
    /** Path of the output, UTF-8; the file appears there when it is complete. Empty where `options`
     * has "split". */
    std::string output;
    /** Replace an existing output. */
    bool overwrite = false;

    /** The periods to keep; empty for all. In time order and without overlap; others are refused.
     */
    std::vector<Period> keep;
    /** The periods to remove, likewise; not together with `keep`. */
    std::vector<Period> cut;

    /** The box that the frames fit into; they keep their shape and are never enlarged. */
    std::optional<Size> fit;
    /** The exact size of the frames; even, and not together with `fit`. */
    std::optional<Size> size;
    /** At most this number of frames per second, 1 to 240. */
    std::optional<int> frameRate;
    /** Constant quality of AVC: 1 (best) to 51. */
    std::optional<int> quality;
    /** Average bits per second; where `quality` has a value, the max. */
    std::optional<std::int64_t> videoBitrate;
    /** "avc", "h263" or "mpeg4". */
    std::optional<std::string> videoCodec;
    /** Leave the video out. */
    bool noVideo = false;

    /** Bits per second. */
    std::optional<std::int64_t> audioBitrate;
    /** Sample rate in Hz, 7350 to 96000. */
    std::optional<int> audioRate;
    /** Number of channels, 1 to 8. */
    std::optional<int> audioChannels;
    /** "aac", "amr-nb" or "amr-wb". */
    std::optional<std::string> audioCodec;
    /** Number of the audio track, counted from 1. */
    std::optional<int> audioTrack;
    /** Integrated loudness by EBU R 128, in LUFS. */
    std::optional<double> loudness;
    /** Leave the audio out. */
    bool noAudio = false;

    /** Speed of the AVC encoder, "ultrafast" to "placebo". */
    std::optional<std::string> preset;
    /** Threads of each video codec, 1 to 64. */
    std::optional<int> threads;
    /** Write the index in front of the samples. */
    bool fastStart = false;
    /** After cancel(): false removes the shorter file. */
    bool keepPartial = true;

    /** Run in a program of its own, so that a crash there is an error of the job. */
    bool isolate = false;

    /**
     * Other options of the command: the name without dashes, and the value, which is empty for an
     * option without one. A name that is a member of Request, or comes twice, is an Error.
     */
    std::vector<std::pair<std::string, std::string>> options;
};

/** How a job has ended. */
struct Result {
    /** QMT_OK, QMT_FAILED, QMT_USAGE, QMT_UNUSABLE or QMT_STOPPED. */
    qmt_status status = QMT_FAILED;
    /** For programs, such as "output-exists" or "ENOSPC"; empty without an error. */
    std::string code;
    /** One line: what was wrong, and what would work. Empty without an error. */
    std::string text;
    /** The receipt, a JSON object; run.schema.json describes it. */
    std::string receipt;

    /** The output is whole, verified and on disk. */
    explicit operator bool() const { return status == QMT_OK; }
    /** Another try may succeed. */
    bool isRetryable() const { return receipt.find("\"retryable\": true") != std::string::npos; }
};

/** A request that cannot be carried out, whatever the input, or a wrong use of a Transcoder. */
class Error : public std::runtime_error {
public:
    Error(qmt_status status, std::string code, const std::string& text)
        : std::runtime_error(text), mStatus(status), mCode(std::move(code)) {}

    qmt_status status() const { return mStatus; }
    /** As Result::code. */
    const std::string& code() const { return mCode; }

private:
    qmt_status mStatus;
    std::string mCode;
};

namespace detail {

/** Writes a JSON object. */
class ObjectText {
public:
    void add(const char* key, const std::string& value) { addRaw(key, quoted(value)); }
    void add(const char* key, bool value) {
        if (value) addRaw(key, "true");
    }
    void add(const char* key, const Size& size) {
        addRaw(key, '[' + std::to_string(size.width) + ", " + std::to_string(size.height) + ']');
    }
    void add(const char* key, double value) {
        char text[64];
        std::snprintf(text, sizeof(text), "%.6f", value);
        // Some locales have a decimal comma.
        for (char& c : text) {
            if (c == ',') c = '.';
        }
        addRaw(key, text);
    }
    void add(const char* key, std::int64_t value) { addRaw(key, std::to_string(value)); }
    void add(const char* key, int value) { addRaw(key, std::to_string(value)); }
    template <typename T>
    void add(const char* key, const std::optional<T>& value) {
        if (value) add(key, *value);
    }
    void add(const char* key, const std::vector<Period>& periods) {
        if (periods.empty()) return;
        std::string text;
        for (const Period& period : periods) {
            text += (text.empty() ? "[" : ", ") +
                    quoted(seconds(period.start) + '-' + (period.end ? seconds(*period.end) : ""));
        }
        addRaw(key, text + ']');
    }
    std::string text() const { return mText + '}'; }

private:
    static std::string seconds(std::chrono::microseconds time) {
        char text[32];
        const auto count = static_cast<long long>(time.count());
        std::snprintf(text, sizeof(text), "%s%lld.%06lld", count < 0 ? "-" : "",
                      count < 0 ? -(count / 1000000) : count / 1000000,
                      count < 0 ? -(count % 1000000) : count % 1000000);
        return text;
    }
    static std::string quoted(const std::string& value) {
        std::string text = "\"";
        for (const char c : value) {
            if (static_cast<unsigned char>(c) < 0x20) {
                char code[8];
                std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(c));
                text += code;
            } else {
                if (c == '"' || c == '\\') text += '\\';
                text += c;
            }
        }
        return text + '"';
    }
    void addRaw(const char* key, const std::string& value) {
        if (std::find(mKeys.begin(), mKeys.end(), key) != mKeys.end()) {
            throw Error(QMT_USAGE, "invalid-request", std::string(key) + ": given twice");
        }
        mKeys.emplace_back(key);
        mText += (mText.size() > 1 ? ", " : "") + quoted(key) + ": " + value;
    }

    std::string mText = "{";
    std::vector<std::string> mKeys;
};

inline std::string toJson(const Request& request) {
    ObjectText object;
    object.add("input", request.input);
    if (!request.output.empty()) object.add("output", request.output);
    object.add("overwrite", request.overwrite);
    object.add("trim", request.keep);
    object.add("cut", request.cut);
    object.add("fit", request.fit);
    object.add("size", request.size);
    object.add("fps", request.frameRate);
    object.add("quality", request.quality);
    object.add("video-bitrate", request.videoBitrate);
    object.add("video-codec", request.videoCodec);
    object.add("no-video", request.noVideo);
    object.add("audio-bitrate", request.audioBitrate);
    object.add("audio-rate", request.audioRate);
    object.add("audio-channels", request.audioChannels);
    object.add("audio-codec", request.audioCodec);
    object.add("audio-track", request.audioTrack);
    object.add("loudness", request.loudness);
    object.add("no-audio", request.noAudio);
    object.add("preset", request.preset);
    object.add("threads", request.threads);
    object.add("faststart", request.fastStart);
    if (!request.keepPartial) object.add("partial", std::string("discard"));
    object.add("isolate", request.isolate);
    for (const auto& [name, value] : request.options) {
        if (value.empty()) {
            object.add(name.c_str(), true);
        } else {
            object.add(name.c_str(), value);
        }
    }
    return object.text();
}

}  // namespace detail

/**
 * One job. run() and the destructor belong to one thread; cancel() may be called from any, as long
 * as the object exists.
 */
class Transcoder {
public:
    /**
     * Told of the progress in percent, on threads of the library and on the one in run(); calls do
     * not overlap. 100 comes once, when the output is complete. It must not block for long. An
     * exception that it throws cancels the job and comes out of run(); at 100 the output is kept.
     */
    using OnProgress = std::function<void(int percent)>;

    /** Checks the request as far as possible without the input. Throws Error. */
    explicit Transcoder(const Request& request) {
        check(qmt_job_new(detail::toJson(request).c_str(), &mJob));
    }

    /** Frees the job. The caller ensures that run() has returned. */
    ~Transcoder() { qmt_job_free(mJob); }

    Transcoder(const Transcoder&) = delete;
    Transcoder& operator=(const Transcoder&) = delete;

    /**
     * Runs the job on the calling thread, and blocks until it has ended. `onProgress` may be empty.
     * Once: a second call, also one from another thread or from `onProgress`, throws Error.
     */
    Result run(OnProgress onProgress = nullptr) {
        Progress progress{mJob, std::move(onProgress), {}, nullptr};
        Result result;
        result.status =
            qmt_job_run(mJob, progress.onProgress ? Progress::call : nullptr, &progress);
        if (result.status < 0) check(result.status);
        if (result.status != QMT_OK) {
            result.code = qmt_error_code();
            result.text = qmt_error_text();
        }
        if (progress.thrown) std::rethrow_exception(progress.thrown);
        const char* receipt = nullptr;
        check(qmt_job_receipt(mJob, &receipt));
        result.receipt = receipt;
        return result;
    }

    /** Makes run() return soon, with QMT_STOPPED; before run(), makes it return at once. */
    void cancel() { qmt_job_cancel(mJob); }

private:
    struct Progress {
        qmt_job job;
        OnProgress onProgress;
        std::mutex lock;
        std::exception_ptr thrown;

        static void call(void* context, std::int32_t percent) {
            auto* const self = static_cast<Progress*>(context);
            const std::lock_guard<std::mutex> guard(self->lock);
            if (self->thrown) return;
            try {
                self->onProgress(percent);
            } catch (...) {
                self->thrown = std::current_exception();
                qmt_job_cancel(self->job);
            }
        }
    };

    static void check(qmt_status status) {
        if (status != QMT_OK) throw Error(status, qmt_error_code(), qmt_error_text());
    }

    qmt_job mJob = 0;
};

}  // namespace qmtranscode
