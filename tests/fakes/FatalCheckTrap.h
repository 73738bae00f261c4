// Keeps failed checks of the platform from ending the process. One at a time.
//
// On the thread that made the trap a failed check becomes a FatalCheckFailure; any other thread
// ends, and the message is kept.
#pragma once

#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace android::qmmediaeditor {

struct FatalCheckFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class FatalCheckTrap {
public:
    FatalCheckTrap();
    ~FatalCheckTrap();

    // Messages of other threads since the last call.
    std::vector<std::string> elsewhere();

    // The effect of a failed check.
    [[noreturn]] static void onFailure(const char* message);

    // The message of the check that `statement` fails, or "" when it fails none.
    template <typename Statement>
    static std::string messageOf(const Statement& statement) {
        try {
            statement();
        } catch (const FatalCheckFailure& failure) {
            return failure.what();
        }
        return "";
    }

private:
    const std::thread::id mOwner;
    std::mutex mLock;
    std::vector<std::string> mElsewhere;
};

#define EXPECT_FATAL(statement, text) EXPECT_EQ(text, FatalCheckTrap::messageOf([&] { statement; }))

}  // namespace android::qmmediaeditor
