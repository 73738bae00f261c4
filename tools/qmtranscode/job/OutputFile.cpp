#include <qmtranscode/job/OutputFile.h>

namespace android::qmmediaeditor::cli {

std::optional<Failure> OutputFile::check(const std::string& path, bool overwrite,
                                         const InputFile& input) {
    mOverwrite = overwrite;
    if (path == "-") {
        return Failure{kExitUsage, path,
                       "an MP4 file cannot be piped; the output has to be a file"};
    }
    if (auto failure = mFile.locate(path)) return failure;
    if (input.isSameFile(mFile.older())) return Failure{kExitUsage, path, "this is the input"};
    return mFile.checkPlace(overwrite);
}

}  // namespace android::qmmediaeditor::cli
