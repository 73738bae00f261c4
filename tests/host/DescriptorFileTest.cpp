// Files on descriptors: windows, errors that last, and what a written file holds afterwards.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "IoSupport.h"
#include "host/io/DescriptorFile.h"

namespace android::qmmediaeditor {
namespace {

std::string readAt(const DescriptorFile& file, int64_t position, size_t size) {
    std::string text(size, '?');
    const ssize_t count = file.readAt(position, text.data(), size);
    return count < 0 ? "error" : text.substr(0, static_cast<size_t>(count));
}

TEST(DescriptorFileTest, aWindowIsReadAndTheCallersPositionKept) {
    const int fd = memoryFile("0123456789");
    lseek(fd, 3, SEEK_SET);
    const auto file = DescriptorFile::openForReading(fd, 2, 5).file;
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(5, file->sizeBytes());
    EXPECT_EQ("23456", readAt(*file, 0, 100));
    EXPECT_EQ("6", readAt(*file, 4, 100));
    EXPECT_EQ("", readAt(*file, 5, 1));
    EXPECT_EQ("error", readAt(*file, -1, 1));
    EXPECT_EQ(OK, file->status()) << "a wrong position is no read error";
    char bytes[5];
    EXPECT_TRUE(file->readFully(0, bytes, 5));
    EXPECT_FALSE(file->readFully(1, bytes, 5));
    EXPECT_EQ(3, lseek(fd, 0, SEEK_CUR));
    close(fd);
    EXPECT_EQ("2", readAt(*file, 0, 1)) << "it has a descriptor of its own";
}

TEST(DescriptorFileTest, windowsWithoutBytesAndBadDescriptorsAreRefused) {
    const int fd = memoryFile("0123");
    EXPECT_EQ(-ENODATA, DescriptorFile::openForReading(fd, 4, 1).status);
    EXPECT_EQ(-EINVAL, DescriptorFile::openForReading(fd, -1, 1).status);
    EXPECT_EQ(-EINVAL, DescriptorFile::openForReading(fd, 0, 0).status);
    EXPECT_EQ(4, DescriptorFile::openForReading(fd, 0, INT64_MAX).file->sizeBytes());
    close(fd);
    EXPECT_EQ(-EBADF, DescriptorFile::openForReading(fd, 0, 1).status);
    EXPECT_EQ(-EBADF, DescriptorFile::openForWriting(fd).status);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(-ESPIPE, DescriptorFile::openForWriting(ends[1]).status);
    close(ends[0]);
    close(ends[1]);
}

TEST(DescriptorFileTest, theFirstReadErrorLastsAndIsReportedOnce) {
    struct Observer : HostObserver {
        void onReadError(int error, int64_t offsetBytes) override {
            errors.emplace_back(error, offsetBytes);
        }
        std::vector<std::pair<int, int64_t>> errors;
    } observer;
    const int fd = memoryFile("0123456789");
    const auto file = DescriptorFile::openForReading(fd, 1, 9, &observer).file;
    ASSERT_EQ(0, ftruncate(fd, 4));
    EXPECT_EQ("123", readAt(*file, 0, 9)) << "the rest of it is still there";
    EXPECT_EQ("error", readAt(*file, 3, 1));
    EXPECT_EQ(-ESTALE, file->status());
    EXPECT_EQ("error", readAt(*file, 0, 1)) << "no later read may resume";
    EXPECT_EQ("", readAt(*file, 9, 1)) << "the end is no error";
    ASSERT_EQ(1u, observer.errors.size());
    EXPECT_EQ(std::make_pair(ESTALE, int64_t{4}), observer.errors[0]) << "offset in the file";
    close(fd);
}

TEST(DescriptorFileTest, aWrittenFileHoldsOnlyWhatWasWritten) {
    for (const int mode : {O_RDWR, O_WRONLY}) {
        const std::string path = scratchPath("written");
        std::ofstream(path) << std::string(100, 'x');
        const int fd = open(path.c_str(), mode | O_CLOEXEC);
        const auto file = DescriptorFile::openForWriting(fd).file;
        ASSERT_NE(nullptr, file);
        EXPECT_EQ(OK, file->writeAt(4, "efgh", 4));
        EXPECT_EQ(OK, file->writeAt(0, "abcd", 4));
        EXPECT_EQ(8, file->sizeBytes());
        ASSERT_TRUE(file->makeReadable());
        EXPECT_EQ("fgh", readAt(*file, 5, 100)) << "nothing of the older file";
        EXPECT_EQ(OK, file->finish());
        EXPECT_EQ(OK, file->finish());
        std::ifstream content(path);
        EXPECT_EQ("abcdefgh", std::string(std::istreambuf_iterator<char>(content), {}));
        EXPECT_EQ(0, lseek(fd, 0, SEEK_CUR));
        close(fd);
    }
}

}  // namespace
}  // namespace android::qmmediaeditor
