#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/job/JobFiles.h>
#include <qmtranscode/job/PendingFile.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "FileFaults.h"

namespace android::qmmediaeditor::cli {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

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
    std::string read(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(path(name)).rdbuf();
        return text.str();
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& entry : fs::directory_iterator(mFolder)) {
            result.push_back(entry.path().filename());
        }
        return result;
    }
    mode_t modeOf(const std::string& name) const {
        struct stat status {};
        return stat(path(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
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
        std::optional<Failure> failure = file->locate(path(name));
        if (!failure) failure = file->checkPlace(overwrite);
        if (!failure) failure = file->create(overwrite);
        EXPECT_FALSE(failure) << failure->reason;
        EXPECT_EQ(3, ::write(file->fd(), "new", 3));
        gCalls.clear();
        return file;
    }

    static std::string commit(PendingFile* file) {
        const std::optional<Failure> failure = file->commit();
        if (!failure) return "";
        EXPECT_EQ(kExitFailed, failure->status);
        return failure->reason;
    }

    fs::path mFolder;
};

TEST_F(PendingFileTest, commit_syncsTheFileThenNamesItThenSyncsTheDirectory) {
    auto file = filled("out");
    EXPECT_THAT(names(), ElementsAre());
    EXPECT_EQ("", commit(file.get()));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "link", "sync folder"));

    file = filled("out", true);
    EXPECT_THAT(names(), ElementsAre("out"));
    EXPECT_EQ("", commit(file.get()));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "link", "link", "exchange", "sync folder"));

    gFaults.openUnnamed = EOPNOTSUPP;
    file = filled("other");
    EXPECT_EQ("", commit(file.get()));
    EXPECT_THAT(gCalls, ElementsAre("sync file", "rename", "sync folder"));

    file.reset();
    EXPECT_EQ("new", read("out"));
    EXPECT_EQ("new", read("other"));
    EXPECT_THAT(names(), UnorderedElementsAre("out", "other"));
}

// One fault at a time: with and without an older file, with and without unnamed files.
TEST_F(PendingFileTest, anyFailedStep_leavesTheDirectoryUnchanged) {
    const struct {
        const char* name;
        int FileFaults::*fault;
        int error;
        bool inNew, inReplaced;  // whether the step occurs
    } kFaults[] = {{"sync file", &FileFaults::syncFile, EIO, true, true},
                   {"close", &FileFaults::close, EDQUOT, true, true},
                   {"sync folder", &FileFaults::syncFolder, EIO, true, true},
                   {"link", &FileFaults::linkFile, ENOSPC, true, true},
                   {"rename", &FileFaults::renameNoReplace, ENOSPC, true, true},
                   {"exchange", &FileFaults::renameExchange, ENOSPC, false, true}};
    for (const bool unnamed : {true, false}) {
        for (const bool replaced : {false, true}) {
            for (const auto& c : kFaults) {
                if (!(replaced ? c.inReplaced : c.inNew)) continue;
                if ((unnamed ? &FileFaults::renameNoReplace : &FileFaults::linkFile) == c.fault) {
                    continue;
                }
                SCOPED_TRACE(std::string(c.name) + (unnamed ? ", unnamed" : ", hidden") +
                             (replaced ? ", replaced" : ", new"));
                if (replaced) write("out", "old");
                gFaults.openUnnamed = unnamed ? 0 : EOPNOTSUPP;
                auto file = filled("out", replaced);
                gFaults.*c.fault = c.error;
                EXPECT_EQ(strerror(c.error), commit(file.get()));
                gFaults = FileFaults();
                file.reset();
                EXPECT_EQ(replaced ? "old" : "", read("out"));
                EXPECT_EQ(replaced ? 1U : 0U, names().size());
                fs::remove(path("out"));
            }
        }
    }
}

TEST_F(PendingFileTest, withoutCommit_theOlderFileIsUnchanged) {
    write("out", "old");
    for (const int error : {0, EOPNOTSUPP}) {
        gFaults.openUnnamed = error;
        filled("out", true).reset();
        filled("other").reset();
        EXPECT_EQ("old", read("out"));
        EXPECT_THAT(names(), ElementsAre("out"));
    }
}

// The older file survives under the hidden name if it cannot get its own one back.
TEST_F(PendingFileTest, failedDirectorySyncAndFailedUndo_keepBothFiles) {
    write("out", "old");
    auto file = filled("out", true);
    gFaults.syncFolder = EIO;
    gFaults.renameBack = EIO;
    EXPECT_EQ(strerror(EIO), commit(file.get()));
    file.reset();
    ASSERT_EQ(2U, names().size());
    const size_t hidden = names()[0] == "out" ? 1 : 0;
    EXPECT_EQ("old", read(names()[hidden]));
    EXPECT_EQ("new", read("out"));
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
        auto file = filled("out", false);
        write("out", "other");
        EXPECT_EQ(strerror(EEXIST), commit(file.get()));
        file.reset();
        EXPECT_EQ("other", read("out"));
        EXPECT_THAT(names(), ElementsAre("out"));

        fs::remove(path("out"));
        file = filled("out", true);
        write("out", "other");
        EXPECT_EQ("", commit(file.get()));
        file.reset();
        EXPECT_EQ("new", read("out"));
        EXPECT_THAT(names(), ElementsAre("out"));

        // And without another file.
        fs::remove(path("out"));
        file = filled("out", false);
        EXPECT_EQ("", commit(file.get()));
        file.reset();
        EXPECT_EQ("new", read("out"));
        EXPECT_THAT(names(), ElementsAre("out"));

        write("out", "old");
        file = filled("out", true);
        fs::remove(path("out"));
        EXPECT_EQ("", commit(file.get()));
        file.reset();
        EXPECT_EQ("new", read("out"));
        EXPECT_THAT(names(), ElementsAre("out"));
        fs::remove(path("out"));
    }
}

TEST_F(PendingFileTest, aDirectoryUnderTheName_orARemovedDirectory_isAFailure) {
    auto file = filled("out", true);
    fs::create_directory(path("out"));
    EXPECT_EQ(strerror(EEXIST), commit(file.get()));
    file.reset();
    EXPECT_TRUE(fs::is_directory(path("out")));
    EXPECT_THAT(names(), ElementsAre("out"));

    file = filled("out/inner");
    fs::remove_all(path("out"));
    EXPECT_EQ(strerror(ENOENT), commit(file.get()));
}

TEST_F(PendingFileTest, permissions_areCopiedFromTheOlderFileOrFollowTheUmask) {
    const mode_t before = umask(027);
    auto file = filled("out");
    EXPECT_EQ("", commit(file.get()));
    EXPECT_EQ(0640U, modeOf("out"));
    for (const int error : {0, EOPNOTSUPP}) {
        gFaults.openUnnamed = error;
        chmod(path("out").c_str(), 0604);
        file = filled("out", true);
        struct stat status {};
        ASSERT_EQ(0, fstat(file->fd(), &status));
        EXPECT_EQ(0604U, status.st_mode & 07777) << "before it is complete";
        chmod(path("out").c_str(), 0600);
        EXPECT_EQ("", commit(file.get()));
        EXPECT_EQ(0600U, modeOf("out"));
    }
    umask(before);
}

TEST_F(PendingFileTest, owner_isCopiedFromTheOlderFile) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may change an owner";
    write("out", "old");
    ASSERT_EQ(0, chown(path("out").c_str(), 65534, 12345));
    chmod(path("out").c_str(), 0640);
    auto file = filled("out", true);
    EXPECT_EQ("", commit(file.get()));
    struct stat status {};
    ASSERT_EQ(0, stat(path("out").c_str(), &status));
    EXPECT_EQ(65534U, status.st_uid);
    EXPECT_EQ(12345U, status.st_gid);
    EXPECT_EQ(0640U, modeOf("out"));
    EXPECT_EQ("new", read("out"));
}

TEST_F(PendingFileTest, links_areFollowedAlsoToAMissingTarget) {
    fs::create_directory(path("folder"));
    fs::create_symlink("folder/second", path("first"));
    fs::create_symlink(path("folder/real"), path("folder/second"));
    for (const bool overwrite : {false, true}) {
        auto file = filled("first", overwrite);
        EXPECT_EQ("", commit(file.get()));
        EXPECT_TRUE(fs::is_symlink(path("first")));
        EXPECT_EQ("new", read("folder/real"));
        write("folder/real", "old");
    }
}

TEST_F(PendingFileTest, unusablePaths_areRefusedBeforeAnythingIsWritten) {
    fs::create_symlink("loop", path("loop"));
    fs::create_symlink("missing/out", path("dangling"));
    fs::create_directory(path("folder"));
    ASSERT_EQ(0, mkfifo(path("pipe").c_str(), 0600));
    write("out", "old");
    const auto before = names();
    for (const std::string name : {"loop", "dangling", "folder", "folder/", "new/", ".", "..",
                                   "pipe", "missing/out", "out/inner"}) {
        EXPECT_NE("", check(path(name), true)) << name;
    }
    EXPECT_NE("", check("", true));
    EXPECT_NE("", check("/dev/null", true));
    EXPECT_EQ("the file exists; --overwrite would replace it", check(path("out"), false));
    EXPECT_EQ("", check(path("out"), true));
    EXPECT_EQ("", check(path(std::string(255, 'n')), false));
    EXPECT_EQ(strerror(ENAMETOOLONG), check(path(std::string(256, 'n')), false));
    EXPECT_THAT(names(), testing::UnorderedElementsAreArray(before));
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

TEST_F(PendingFileTest, aNameOfMaximumLength_isShortenedInTheHiddenName) {
    gFaults.openUnnamed = EOPNOTSUPP;
    const std::string name(255, 'n');
    auto file = filled(name);
    EXPECT_EQ("", commit(file.get()));
    EXPECT_THAT(names(), ElementsAre(name));
}

TEST_F(PendingFileTest, isSameAs_comparesFilesAndNotPaths) {
    fs::create_directory(path("folder"));
    write("old", "old");
    fs::create_hard_link(path("old"), path("twin"));
    fs::create_symlink("new", path("link"));
    fs::create_symlink(".", path("here"));
    const struct {
        const char* first;
        const char* second;
        bool same;
    } kCases[] = {{"new", "new", true},      {"new", "folder/../new", true},
                  {"new", "here/new", true}, {"new", "link", true},
                  {"old", "twin", true},     {"new", "folder/new", false},
                  {"new", "old", false}};
    for (const auto& c : kCases) {
        PendingFile first;
        PendingFile second;
        ASSERT_FALSE(first.locate(path(c.first)).has_value());
        ASSERT_FALSE(second.locate(path(c.second)).has_value());
        EXPECT_EQ(c.same, first.isSameAs(second)) << c.first << ' ' << c.second;
    }
}

TEST_F(PendingFileTest, removeNow_removesOnlyHiddenNames) {
    write("out", "old");
    gFaults.openUnnamed = EOPNOTSUPP;
    auto first = filled("out", true);
    auto second = filled("other");
    EXPECT_EQ(3U, names().size());
    PendingFile::removeNow();
    EXPECT_THAT(names(), ElementsAre("out"));
    EXPECT_EQ("old", read("out"));

    first = filled("out", true);
    EXPECT_EQ("", commit(first.get()));
    PendingFile::removeNow();
    EXPECT_EQ("new", read("out"));
}

TEST_F(PendingFileTest, jobFiles_outputIsNeverTheInput) {
    write("input", "in");
    fs::create_symlink("input", path("link"));
    fs::create_hard_link(path("input"), path("twin"));
    for (const char* name : {"input", "link", "twin", "./input"}) {
        Options options;
        options.input = path("input");
        options.output = path(name);
        options.overwrite = true;
        const std::optional<Failure> failure = JobFiles().open(options);
        ASSERT_TRUE(failure.has_value()) << name;
        EXPECT_EQ("this is the input file", failure->reason) << name;
    }
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
