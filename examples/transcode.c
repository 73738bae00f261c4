/* Keeps the first two seconds of a media file: transcode INPUT OUTPUT. */
#include <qmtranscode/qmtranscode.h>
#include <stdio.h>
#include <string.h>

static void show(void* context, int32_t percent) {
    fprintf((FILE*)context, "\r%d %%", (int)percent);
}

int main(int argc, char** argv) {
    char request[4096];
    const char* receipt;
    qmt_job job;
    qmt_status status;
    if (argc != 3 || strpbrk(argv[1], "\"\\") != NULL || strpbrk(argv[2], "\"\\") != NULL) {
        fprintf(stderr,
                "usage: transcode INPUT OUTPUT, without quotes and backslashes in the names\n");
        return 2;
    }
    snprintf(request, sizeof(request),
             "{\"input\": \"%s\", \"output\": \"%s\", \"trim\": [[0, 2]]}", argv[1], argv[2]);
    status = qmt_job_new(request, &job);
    if (status == QMT_OK) {
        status = qmt_job_run(job, show, stderr);
        if (qmt_job_receipt(job, &receipt) == QMT_OK) printf("%s", receipt);
    }
    if (status != QMT_OK) fprintf(stderr, "\n%s (%s)\n", qmt_error_text(), qmt_error_code());
    qmt_job_free(job);
    return status;
}
