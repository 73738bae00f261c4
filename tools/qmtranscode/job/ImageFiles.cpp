#include <errno.h>
#include <qmtranscode/cli/NumberedName.h>
#include <qmtranscode/job/ImageFiles.h>
#include <qmtranscode/job/PendingFile.h>
#include <unistd.h>

namespace android::qmmediaeditor::cli {

namespace {

// Bytes of the size in front of each image.
constexpr size_t kSizeBytes = sizeof(uint64_t);

// Finds the place of an image, which must be neither a file of the command nor unwritable.
std::optional<Failure> findPlace(const std::string& path, bool overwrite,
                                 const std::vector<std::string>& others, PendingFile* file) {
    if (auto failure = file->locate(path)) return failure;
    for (const std::string& name : others) {
        PendingFile other;
        if (other.locate(name) || !file->isSameAs(other)) continue;
        return Failure{kExitUsage, path, "this is another file of the command: " + name,
                       "same-file"};
    }
    return file->checkPlace(overwrite);
}

std::optional<Failure> writeImage(const std::string& path, bool overwrite,
                                  const std::vector<std::string>& others, const std::string& jpeg) {
    PendingFile file;
    if (auto failure = findPlace(path, overwrite, others, &file)) return failure;
    if (auto failure = file.create(overwrite)) return failure;
    if (writeAll(file.fd(), jpeg) != 0) return systemFailure(kExitFailed, path, errno);
    return file.commit();
}

// Nothing at the end; errno is 0 then.
std::optional<std::string> readImage(int memory, off_t* offset) {
    uint64_t size = 0;
    errno = 0;
    if (pread(memory, &size, kSizeBytes, *offset) != static_cast<ssize_t>(kSizeBytes)) {
        return std::nullopt;
    }
    // The worker may send anything.
    constexpr uint64_t kMaxBytes = uint64_t{1} << 28;
    if (size > kMaxBytes) {
        errno = EMSGSIZE;
        return std::nullopt;
    }
    std::string jpeg(static_cast<size_t>(size), '\0');
    *offset += static_cast<off_t>(kSizeBytes);
    const ssize_t read = pread(memory, jpeg.data(), jpeg.size(), *offset);
    if (read != static_cast<ssize_t>(size)) {
        if (errno == 0) errno = EIO;
        return std::nullopt;
    }
    *offset += read;
    return jpeg;
}

}  // namespace

std::string posterName(const Options& options, size_t period) {
    return numberedName(*options.poster, static_cast<int>(options.part.value_or(period)) + 1);
}

std::optional<Failure> checkImages(const Options& options, size_t posters,
                                   const std::vector<std::string>& others) {
    std::vector<std::string> taken = others;
    if (options.contactSheet) {
        PendingFile sheet;
        if (auto failure = findPlace(*options.contactSheet, options.overwrite, taken, &sheet)) {
            return failure;
        }
        taken.push_back(*options.contactSheet);
    }
    for (size_t i = 0; options.poster && i < posters; ++i) {
        PendingFile poster;
        const std::string name = posterName(options, i);
        if (auto failure = findPlace(name, options.overwrite, taken, &poster)) return failure;
    }
    return std::nullopt;
}

int addImage(int memory, const std::vector<uint8_t>& jpeg) {
    const uint64_t size = jpeg.size();
    std::string bytes(reinterpret_cast<const char*>(&size), sizeof(size));
    bytes.append(jpeg.begin(), jpeg.end());
    return writeAll(memory, bytes);
}

std::optional<Failure> publishImages(const Options& options, int memory,
                                     const std::vector<std::string>& others) {
    std::vector<std::string> images;
    off_t offset = 0;
    while (auto jpeg = readImage(memory, &offset)) images.push_back(std::move(*jpeg));
    if (errno != 0) return systemFailure(kExitFailed, "the images", errno);
    const size_t sheets = options.contactSheet && !images.empty() ? 1 : 0;
    for (size_t i = 0; i + sheets < images.size(); ++i) {
        // A period without a frame.
        if (images[i].empty()) continue;
        if (auto failure =
                writeImage(posterName(options, i), options.overwrite, others, images[i])) {
            return failure;
        }
    }
    if (sheets == 0) return std::nullopt;
    return writeImage(*options.contactSheet, options.overwrite, others, images.back());
}

}  // namespace android::qmmediaeditor::cli
