#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qmtranscode/OutputFile.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace android::qmmediaeditor::cli {
namespace {

namespace fs = std::filesystem;

class OutputFileTest : public testing::Test {
protected:
    OutputFileTest() {
        std::string pattern = testing::TempDir() + "qmtranscode-XXXXXX";
        mFolder = mkdtemp(pattern.data());
        write("input", "in");
        EXPECT_FALSE(mInput.open(path("input")).has_value());
    }
    ~OutputFileTest() override { fs::remove_all(mFolder); }

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

    // Checks, creates and fills; the failure, if any.
    static std::optional<Failure> fill(OutputFile* output, const std::string& path, bool overwrite,
                                       const InputFile& input) {
        if (auto failure = output->check(path, overwrite, input)) return failure;
        int fd = -1;
        if (auto failure = output->create(&fd)) return failure;
        EXPECT_EQ(3, ::write(fd, "new", 3));
        close(fd);
        return std::nullopt;
    }

    fs::path mFolder;
    InputFile mInput;
};

TEST_F(OutputFileTest, keep_givesTheFileItsNameAndLeavesNothingElse) {
    OutputFile output;
    ASSERT_FALSE(fill(&output, path("out"), false, mInput).has_value());
    EXPECT_FALSE(fs::exists(path("out")));
    ASSERT_FALSE(output.keep().has_value());
    EXPECT_EQ("new", read("out"));
    EXPECT_THAT(names(), testing::UnorderedElementsAre("input", "out"));
}

TEST_F(OutputFileTest, notKept_leavesTheOldFileAndNothingElse) {
    write("out", "old");
    {
        OutputFile output;
        ASSERT_FALSE(fill(&output, path("out"), true, mInput).has_value());
    }
    EXPECT_EQ("old", read("out"));
    EXPECT_THAT(names(), testing::UnorderedElementsAre("input", "out"));
}

TEST_F(OutputFileTest, fileThatCameInTheMeantime_isNotReplaced) {
    {
        OutputFile output;
        ASSERT_FALSE(fill(&output, path("out"), false, mInput).has_value());
        write("out", "other");
        EXPECT_TRUE(output.keep().has_value());
    }
    EXPECT_EQ("other", read("out"));
    EXPECT_THAT(names(), testing::UnorderedElementsAre("input", "out"));
}

TEST_F(OutputFileTest, overwriting_keepsPermissionsAndFollowsLinks) {
    write("real", "old");
    fs::permissions(path("real"), fs::perms::owner_read | fs::perms::owner_write);
    fs::create_symlink("real", path("out"));
    OutputFile output;
    ASSERT_FALSE(fill(&output, path("out"), true, mInput).has_value());
    ASSERT_FALSE(output.keep().has_value());
    EXPECT_TRUE(fs::is_symlink(path("out")));
    EXPECT_EQ("new", read("real"));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
              fs::status(path("real")).permissions());
}

TEST_F(OutputFileTest, longestName_leavesRoomForTheTemporaryOne) {
    const std::string name(255, 'n');
    OutputFile output;
    ASSERT_FALSE(fill(&output, path(name), false, mInput).has_value());
    ASSERT_FALSE(output.keep().has_value());
    EXPECT_EQ("new", read(name));
}

TEST_F(OutputFileTest, check_refusesWhatCannotBeWritten) {
    fs::create_symlink("input", path("link"));
    fs::create_hard_link(path("input"), path("twin"));
    for (const char* name : {"input", "link", "twin", "missing/out", ".", "input/out", "new/"}) {
        OutputFile output;
        const std::optional<Failure> failure = output.check(path(name), true, mInput);
        EXPECT_TRUE(failure.has_value()) << name;
    }
    OutputFile device;
    EXPECT_TRUE(device.check("/dev/null", true, mInput).has_value());
}

}  // namespace
}  // namespace android::qmmediaeditor::cli
