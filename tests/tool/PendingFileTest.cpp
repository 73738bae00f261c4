#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/PendingFile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

namespace android::qmmediaeditor::cli {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

// Faults in the file system calls of the code under test, which the linker redirects with --wrap.
struct FileFaults {
    // errno of each call; 0 for no fault.
    int openUnnamed = 0;
    int linkFile = 0;
    int renameNoReplace = 0;
    int renameExchange = 0;
    // The second exchange, which undoes the first.
    int renameBack = 0;
    int syncFile = 0;
    int syncFolder = 0;
    int close = 0;
};

// Reset by each test.
FileFaults gFaults;
// The calls that decide what a power failure leaves, in their order.
std::vector<std::string> gCalls;

// Whether the call must fail; sets errno.
bool fails(int error) {
    if (error != 0) errno = error;
    return error != 0;
}

extern "C" {

int __real_openat64(int folder, const char* path, int flags, mode_t mode);
int __real_linkat(int from, const char* path, int to, const char* target, int flags);
int __real_renameat2(int from, const char* path, int to, const char* target, unsigned flags);
int __real_renameat(int from, const char* path, int to, const char* target);
int __real_fsync(int fd);
int __real_close(int fd);

int __wrap_openat64(int folder, const char* path, int flags, mode_t mode) {
    if ((flags & O_TMPFILE) == O_TMPFILE && fails(gFaults.openUnnamed)) return -1;
    return __real_openat64(folder, path, flags, mode);
}

int __wrap_linkat(int from, const char* path, int to, const char* target, int flags) {
    gCalls.emplace_back("link");
    if (fails(gFaults.linkFile)) return -1;
    return __real_linkat(from, path, to, target, flags);
}

int __wrap_renameat2(int from, const char* path, int to, const char* target, unsigned flags) {
    const bool exchange = flags == RENAME_EXCHANGE;
    const bool back = exchange && !gCalls.empty() && gCalls.back() == "sync folder";
    int error = exchange ? gFaults.renameExchange : gFaults.renameNoReplace;
    if (back) error = gFaults.renameBack;
    gCalls.emplace_back(exchange ? "exchange" : "rename");
    if (fails(error)) return -1;
    return __real_renameat2(from, path, to, target, flags);
}

int __wrap_renameat(int from, const char* path, int to, const char* target) {
    gCalls.emplace_back("rename");
    return __real_renameat(from, path, to, target);
}

int __wrap_fsync(int fd) {
    struct stat status {};
    const bool isFolder = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    gCalls.emplace_back(isFolder ? "sync folder" : "sync file");
    if (fails(isFolder ? gFaults.syncFolder : gFaults.syncFile)) return -1;
    return __real_fsync(fd);
}

int __wrap_close(int fd) {
    const int result = __real_close(fd);
    return fails(gFaults.close) ? -1 : result;
}

}  // extern "C"

// Names and texts of the files in a folder.
typedef std::map<std::string, std::string> Contents;

class PendingFileTest : public testing::Test {
protected:
    PendingFileTest() {
        std::string pattern = testing::TempDir() + "qmtranscode-XXXXXX";
        mFolder = mkdtemp(pattern.data());
        gFaults = FileFaults();
    }
    ~PendingFileTest() override {
        gFaults = FileFaults();
        fs::remove_all(mFolder);
    }

    std::string path(const std::string& name) const { return mFolder / name; }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream(path(name)) << text;
    }
    Contents contents() const {
        Contents result;
        for (const auto& entry : fs::directory_iterator(mFolder)) {
            std::stringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            result[entry.path().filename()] = text.str();
        }
        return result;
    }
    struct stat statusOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(0, stat(path(name).c_str(), &status)) << name;
        return status;
    }

    static std::string check(const std::string& path, bool overwrite) {
        PendingFile file;
        std::optional<Failure> failure = file.locate(path);
        if (!failure) failure = file.checkPlace(overwrite);
        if (!failure) return "";
        EXPECT_EQ(kExitUsage, failure->status) << path;
        EXPECT_EQ(path, failure->subject);
        return failure->reason;
    }

    // Holds "new", and is ready to be committed.
    std::unique_ptr<PendingFile> filled(const std::string& name, bool overwrite = false) const {
        auto file = std::make_unique<PendingFile>();
        EXPECT_FALSE(file->locate(path(name)));
        EXPECT_FALSE(file->checkPlace(overwrite));
        EXPECT_FALSE(file->create(overwrite));
        EXPECT_EQ(3, ::write(file->fd(), "new", 3));
        gCalls.clear();
        return file;
    }

    // Empty, or the reason of the failure. The file is closed then.
    static std::string commit(const std::unique_ptr<PendingFile> file) {
        const std::optional<Failure> failure = file->commit();
        if (!failure) return "";
        EXPECT_EQ(failure->code == "output-exists" ? kExitUsage : kExitFailed, failure->status);
        return failure->reason;
    }

    fs::path mFolder;
};

TEST_F(PendingFileTest, commit_syncsTheFileThenNamesItThenSyncsTheDirectory) {
    auto file = filled("out");
    EXPECT_EQ(Contents(), contents());
    EXPECT_EQ("", commit(std::move(file)));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "link", "sync folder"));

    write("out", "old");
    EXPECT_EQ("", commit(filled("out", true)));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "link", "link", "exchange", "sync folder"));

    // The hidden name of such a file has to be a valid one, too.
    gFaults.openUnnamed = EOPNOTSUPP;
    const std::string longest(255, 'n');
    EXPECT_EQ("", commit(filled(longest)));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "rename", "sync folder"));
    EXPECT_EQ((Contents{{"out", "new"}, {longest, "new"}}), contents());
}

// One fault at a time: with and without an older file, with and without unnamed files.
TEST_F(PendingFileTest, anyFailedStep_leavesTheDirectoryUnchanged) {
    const struct {
        int FileFaults::*fault;
        int error;
        bool isStep[2][2];  // whether it occurs for hidden and unnamed files, new and replaced ones
    } kFaults[] = {{&FileFaults::syncFile, EIO, {{true, true}, {true, true}}},
                   {&FileFaults::close, EDQUOT, {{true, true}, {true, true}}},
                   {&FileFaults::syncFolder, EIO, {{true, true}, {true, true}}},
                   {&FileFaults::linkFile, ENOSPC, {{false, false}, {true, true}}},
                   {&FileFaults::renameNoReplace, ENOSPC, {{true, true}, {false, false}}},
                   {&FileFaults::renameExchange, ENOSPC, {{false, true}, {false, true}}}};
    for (size_t step = 0; step < std::size(kFaults); ++step) {
        for (const bool unnamed : {true, false}) {
            for (const bool replaced : {false, true}) {
                const auto& c = kFaults[step];
                if (!c.isStep[unnamed][replaced]) continue;
                SCOPED_TRACE(testing::Message() << step << unnamed << replaced);
                if (replaced) write("out", "old");
                gFaults.openUnnamed = unnamed ? 0 : EOPNOTSUPP;
                auto file = filled("out", replaced);
                gFaults.*c.fault = c.error;
                EXPECT_EQ(strerror(c.error), commit(std::move(file)));
                gFaults = FileFaults();
                EXPECT_EQ(replaced ? Contents({{"out", "old"}}) : Contents(), contents());
                fs::remove(path("out"));
            }
        }
    }
}

// The older file survives under the hidden name if it cannot get its own one back.
TEST_F(PendingFileTest, failedDirectorySyncAndFailedUndo_keepBothFiles) {
    write("out", "old");
    auto file = filled("out", true);
    gFaults.syncFolder = EIO;
    gFaults.renameBack = EIO;
    EXPECT_EQ(strerror(EIO), commit(std::move(file)));
    Contents found = contents();
    EXPECT_EQ("new", found["out"]);
    found.erase("out");
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("old", found.begin()->second);
}

TEST_F(PendingFileTest, aFileThatAppearsDuringTheRun_isReplacedOnlyWhenOverwriting) {
    // File systems with fewer and fewer operations; in the last case, the older file is removed
    // just before the exchange.
    for (const FileFaults& faults :
         {FileFaults{0, 0, 0, 0}, FileFaults{EOPNOTSUPP, 0, 0, 0},
          FileFaults{EISDIR, 0, EINVAL, EINVAL}, FileFaults{EINVAL, EPERM, EINVAL, EINVAL},
          FileFaults{0, 0, 0, ENOENT}}) {
        SCOPED_TRACE(strerror(faults.openUnnamed));
        gFaults = faults;
        const struct {
            bool overwrite;
            const char* before;  // an empty text is no file
            const char* after;
            std::string refusal;
        } kCases[] = {{false, "", "other", "made by another program"},
                      {true, "", "other", ""},
                      {false, "", "", ""},
                      {true, "old", "", ""}};
        for (const auto& c : kCases) {
            const auto set = [this](const std::string& text) {
                fs::remove(path("out"));
                if (!text.empty()) write("out", text);
            };
            set(c.before);
            auto file = filled("out", c.overwrite);
            set(c.after);
            const std::string reason = commit(std::move(file));
            EXPECT_EQ(c.refusal.empty(), reason.empty());
            EXPECT_THAT(reason, testing::HasSubstr(c.refusal));
            EXPECT_EQ((Contents{{"out", c.refusal.empty() ? "new" : c.after}}), contents());
        }
    }
}

TEST_F(PendingFileTest, permissions_areCopiedFromTheOlderFileOrFollowTheUmask) {
    const mode_t before = umask(027);
    EXPECT_EQ("", commit(filled("out")));
    EXPECT_EQ(0640U, statusOf("out").st_mode & 07777);
    for (const int error : {0, EOPNOTSUPP}) {
        gFaults.openUnnamed = error;
        chmod(path("out").c_str(), 0604);
        auto file = filled("out", true);
        struct stat status {};
        ASSERT_EQ(0, fstat(file->fd(), &status));
        EXPECT_EQ(0604U, status.st_mode & 07777) << "before it is complete";
        chmod(path("out").c_str(), 0600);
        EXPECT_EQ("", commit(std::move(file)));
        EXPECT_EQ(0600U, statusOf("out").st_mode & 07777);
    }
    umask(before);
}

TEST_F(PendingFileTest, owner_isCopiedFromTheOlderFile) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may change an owner";
    write("out", "old");
    ASSERT_EQ(0, chown(path("out").c_str(), 65534, 12345));
    chmod(path("out").c_str(), 0640);
    EXPECT_EQ("", commit(filled("out", true)));
    EXPECT_EQ(65534U, statusOf("out").st_uid);
    EXPECT_EQ(12345U, statusOf("out").st_gid);
    EXPECT_EQ(0640U, statusOf("out").st_mode & 07777);
    EXPECT_EQ((Contents{{"out", "new"}}), contents());
}

TEST_F(PendingFileTest, links_areFollowedAlsoToAMissingTarget) {
    fs::create_directory(path("folder"));
    fs::create_symlink("folder/second", path("first"));
    fs::create_symlink(path("folder/real"), path("folder/second"));
    for (const bool overwrite : {false, true}) {
        EXPECT_EQ("", commit(filled("first", overwrite)));
        EXPECT_TRUE(fs::is_symlink(path("first")));
        EXPECT_EQ("new", contents()["first"]);
        write("folder/real", "old");
    }
}

TEST_F(PendingFileTest, anotherUsersFileInAStickyDirectory_isRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may act as other users";
    write("root's", "old");
    write("own", "old");
    ASSERT_EQ(0, chown(path("own").c_str(), 65534, 65534));
    ASSERT_EQ(0, chmod(mFolder.c_str(), 01777));
    ASSERT_EQ(0, seteuid(65534));
    const std::string roots = check(path("root's"), true);
    const std::string own = check(path("own"), true);
    ASSERT_EQ(0, seteuid(0));
    EXPECT_NE("", roots);
    EXPECT_EQ("", own);
}

TEST_F(PendingFileTest, withoutCommit_onlyHiddenNamesAreRemoved) {
    write("out", "old");
    for (const int error : {0, EOPNOTSUPP}) {
        gFaults.openUnnamed = error;
        filled("out", true).reset();
        filled("other").reset();
        EXPECT_EQ((Contents{{"out", "old"}}), contents());
    }
    auto first = filled("out", true);
    auto second = filled("other");
    EXPECT_EQ(3U, contents().size());
    PendingFile::removeNow();
    EXPECT_EQ((Contents{{"out", "old"}}), contents());

    first = filled("out", true);
    EXPECT_FALSE(first->commit());
    PendingFile::removeNow();
    EXPECT_EQ((Contents{{"out", "new"}}), contents());
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
