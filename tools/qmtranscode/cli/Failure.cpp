#include <errno.h>
#include <qmtranscode/cli/Failure.h>

namespace android::qmmediaeditor::cli {

ExitStatus exitStatusOf(int error) {
    switch (error) {
        case EACCES:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case ENODEV:
        case ENOENT:
        case ENOTDIR:
        case ENXIO:
        case EPERM:
            return kExitUnusable;
        default:
            return kExitFailed;
    }
}

}  // namespace android::qmmediaeditor::cli
