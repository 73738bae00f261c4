/**
 * @file qmtranscode.h
 * @brief Transcodes media files into MPEG-4 files, from C.
 *
 * A job is made from a request, run once, and freed:
 *
 * @code
 * const char* request = "{\"input\": \"in.mov\", \"output\": \"out.mp4\", \"trim\": [[0, 2.5]]}";
 * qmt_job job;
 * if (qmt_job_new(request, &job) != QMT_OK) return 1;
 * if (qmt_job_run(job, NULL, NULL) != QMT_OK) fprintf(stderr, "%s\n", qmt_error_text());
 * qmt_job_free(job);
 * @endcode
 *
 * Requests and receipts are JSON in UTF-8. Of a key that is given twice, the last value counts.
 * Relative paths are resolved when the job runs. A request is an object with "input", "output" and
 * the options of the command qmtranscode(1) under their names without dashes in front: "trim",
 * "fit", "video-bitrate" and so on. Values are what the command takes, as text ("1280x720", "4M"),
 * or
 *
 * - a number: seconds, bits per second, Hz, frames per second;
 * - true for an option without a value; false and null leave an option out;
 * - [width, height] in pixels for "fit" and "size";
 * - a list of periods for "trim" and "cut": [start, end] in seconds, where an end of null is the
 * end of the input. They are in time order and do not overlap; others are refused.
 *
 * The "request" of a receipt is a request. These keys are not the command's:
 *
 * - "isolate": true runs the job in a program of its own, the installed command. Whatever a damaged
 *   file or a broken codec does there ends the job and not this process. It is started with
 *   posix_spawn(); the library never forks without exec. It goes on if this process dies, and is
 *   killed if it has not ended ten seconds after a cancel.
 * - "program": the path of that program; implies "isolate". By default it is the command that was
 *   installed with this library.
 *
 * "contact-sheet", "jobs", "join", "plan", "poster", "split" and "trace" need "isolate". "split"
 * takes the place of "output". "progress", "log" and "log-format" are not accepted.
 *
 * The receipt is the object that `qmtranscode --json` prints; run.schema.json describes it. Without
 * "isolate", its "cpu_seconds" and "peak_memory_bytes" are those of this whole process.
 *
 * Threads: any thread may call any function. Several jobs may run at once. A thread that is
 * cancelled with pthread_cancel() ends after its job.
 *
 * The process: without "isolate" a job changes nothing of the process: no signal handlers, no
 * locale, no log, no allocator settings. What can be set for the process only is
 * qmt_configure_process(). Without it, FFmpeg's libraries and liblog print warnings on standard
 * error. A broken invariant of the library aborts the process with a line on standard error that
 * says which; so may a lack of memory or of descriptors when a codec or the writer starts. FFmpeg's
 * libraries expect that floating-point exceptions are not trapped. With "isolate", all of these are
 * errors of the job.
 *
 * Mistakes: each function checks its handle and its pointers for null, and returns an error. No
 * mistake with these functions aborts the process, except a pointer that does not lead to text, and
 * a progress function that throws, jumps out or ends its thread.
 */
#ifndef QMTRANSCODE_QMTRANSCODE_H
#define QMTRANSCODE_QMTRANSCODE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** How a function, or a job, ends. The positive values are the exit statuses of the command. */
typedef enum qmt_status {
    QMT_OK = 0,
    /**
     * The job failed; another try may succeed: an I/O error, or exhausted resources. Where it
     * cannot, as below "min-ssim", the receipt's "retryable" is false.
     */
    QMT_FAILED = 1,
    /** The request cannot be carried out as it is written, whatever the input. */
    QMT_USAGE = 2,
    /** This input, or this request for this input, can never work. */
    QMT_UNUSABLE = 3,
    /** The job was cancelled. A shorter output may exist; the receipt says so. */
    QMT_STOPPED = 130,
    /** There is no such job: it was freed, or it never was one. */
    QMT_INVALID_HANDLE = -1,
    /** A null pointer where there must be none. */
    QMT_INVALID_ARGUMENT = -2,
    /** The job is running, so that it can be neither run nor freed. */
    QMT_BUSY = -3,
    /** The job has run; it runs only once. */
    QMT_USED = -4,
    /** The job has not run yet, so that there is no receipt. */
    QMT_NOT_RUN = -5,
    /** There is not enough memory for the call. Any function may return it. */
    QMT_NO_MEMORY = -6
} qmt_status;

/** What qmt_configure_process() does; to be combined with |. */
enum {
    /**
     * Limits each allocation of FFmpeg's libraries in this process to 256 MiB, because a few bytes
     * of a file can ask for any amount. Cannot be undone. "isolate" does it in its program.
     */
    QMT_LIMIT_ALLOCATIONS = 1,
    /** FFmpeg's libraries and liblog print nothing on standard error, except a failed check. */
    QMT_QUIET = 2
};

/** A job. 0 is never one, and a number is never used again. */
typedef uint64_t qmt_job;

/**
 * Told of the progress of a job, on threads of the library and on the one in qmt_job_run(): a lock
 * that is held during qmt_job_run() must not be taken. Calls do not overlap.
 *
 * @param context what qmt_job_run() was given.
 * @param percent of the work, rising; 100 once, when the output is complete and has its name.
 *
 * It may cancel the job. It must not block for long, because the job waits for it, and must not
 * throw. Running or freeing the job gives QMT_BUSY.
 */
typedef void (*qmt_progress)(void* context, int32_t percent);

/** The version of the library, such as "0.1.0". Static. */
const char* qmt_version(void);

/**
 * Settings of other libraries that they have for the process only, and so for its other users of
 * these libraries as well. Optional; before the first job.
 *
 * @param settings QMT_LIMIT_ALLOCATIONS, QMT_QUIET or both.
 * @return QMT_OK, or QMT_INVALID_ARGUMENT for another value.
 */
qmt_status qmt_configure_process(uint32_t settings);

/**
 * Makes a job. Reads no file but the list of a request with "list".
 *
 * @param request the request; copied.
 * @param job set to the job, or to 0 on error.
 * @return QMT_OK; QMT_USAGE with qmt_error_text(), or QMT_INVALID_ARGUMENT.
 */
qmt_status qmt_job_new(const char* request, qmt_job* job);

/**
 * Runs the job on the calling thread, and blocks until its output is complete or it has failed.
 *
 * @param job a job that has not run.
 * @param progress may be null.
 * @param context for `progress`.
 * @return QMT_OK when the output is whole, verified and on disk. QMT_FAILED, QMT_UNUSABLE,
 * QMT_USAGE (the output exists, for example) and QMT_STOPPED with a receipt that has an "error".
 * QMT_BUSY, QMT_USED or QMT_INVALID_HANDLE if nothing was run.
 */
qmt_status qmt_job_run(qmt_job job, qmt_progress progress, void* context);

/**
 * Makes qmt_job_run() return QMT_STOPPED soon; before it, makes it return at once with nothing
 * written. Does not block. After the run it has no effect.
 *
 * @return QMT_OK or QMT_INVALID_HANDLE.
 */
qmt_status qmt_job_cancel(qmt_job job);

/**
 * The receipt of a job that has run.
 *
 * @param job the job.
 * @param receipt set to the receipt of the job's run, which the job owns until it is freed; to null
 * on error.
 * @return QMT_OK; QMT_NOT_RUN before the end of the run, QMT_INVALID_ARGUMENT or
 * QMT_INVALID_HANDLE.
 */
qmt_status qmt_job_receipt(qmt_job job, const char** receipt);

/**
 * Frees the job and its receipt.
 *
 * @return QMT_OK; QMT_BUSY while the job runs, which goes on then; QMT_INVALID_HANDLE.
 */
qmt_status qmt_job_free(qmt_job job);

/**
 * One line on the last call of this thread that did not return QMT_OK: what was wrong, and what
 * would work. Valid until the thread's next call that fails. "" if none has failed, and after
 * QMT_NO_MEMORY. Not null.
 */
const char* qmt_error_text(void);

/** The code of that error for programs, such as "output-exists" or "ENOSPC"; as qmt_error_text().
 */
const char* qmt_error_code(void);

#ifdef __cplusplus
}
#endif

#endif
