#include <errno.h>
#include <qmtranscode/job/JobFiles.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

JobFiles::~JobFiles() {
    if (receipt >= 0) close(receipt);
}

std::optional<Failure> JobFiles::open(const Options& options) {
    receipt = memfd_create("qmtranscode-receipt", MFD_CLOEXEC);
    if (receipt < 0) return Failure{kExitFailed, "memory for the receipt", strerror(errno)};
    if (auto failure = input.open(options.input)) return failure;
    if (auto failure = output.check(options.output, options.overwrite, input)) return failure;
    if (options.plan) return std::nullopt;
    if (options.trace) {
        if (auto failure = trace.open(*options.trace, options.overwrite, input, output)) {
            return failure;
        }
    }
    return output.create();
}

}  // namespace android::qmmediaeditor::cli
