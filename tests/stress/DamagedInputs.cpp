// The command line on damaged files: whatever is in them, a run ends soon, with a file that can be
// read or with one line that says why not.
//
// usage: damaged_inputs QMTRANSCODE FOLDER
// QM_DAMAGES says how many files of FOLDER are damaged, in turn, and QM_SEED with which random
// numbers. Of each clip every second one is cut, 1 % of its length later each time. A file that was
// not borne stays in the working folder.
#include <stdio.h>
#include <support/SessionRun.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace android::qmmediaeditor {

namespace {

namespace fs = std::filesystem;

// The demuxer alone may take seconds when it opens a table with a made-up length.
constexpr int kBoundSeconds = 10 * kSlowness;

typedef std::vector<char> Bytes;

class Damage {
public:
    explicit Damage(uint64_t seed) : mRandom(seed) {}

    // Returns a description of the damage.
    std::string apply(Bytes* bytes) {
        switch (below(4)) {
            case 0:
                flipBits(bytes, 1 + below(300), bytes->size());
                return "bits flipped";
            case 1:
                flipBits(bytes, 1 + below(20), std::min<size_t>(bytes->size(), 1024));
                return "bits of the head flipped";
            case 2:
                loseBlock(bytes);
                return "block lost";
            default:
                for (size_t i = 0; i <= below(4); ++i) lie(bytes);
                return "numbers replaced";
        }
    }

private:
    size_t below(size_t bound) { return mRandom() % std::max<size_t>(bound, 1); }

    void flipBits(Bytes* bytes, size_t count, size_t within) {
        for (size_t i = 0; i < count; ++i) {
            (*bytes)[below(within)] ^= static_cast<char>(1 << below(8));
        }
    }

    void loseBlock(Bytes* bytes) {
        const size_t start = below(bytes->size());
        const size_t end = std::min(bytes->size(), start + 1 + below(4096));
        bytes->erase(bytes->begin() + static_cast<ptrdiff_t>(start),
                     bytes->begin() + static_cast<ptrdiff_t>(end));
    }

    // Most of what precedes four letters is the size of a box, or of a chunk.
    void lie(Bytes* bytes) {
        static constexpr uint32_t kNumbers[] = {0,    1,      7,          8,          9,
                                                0x7f, 0xffff, 0x7fffffff, 0x80000000, 0xffffffff};
        const auto isLetter = [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        };
        static const Bytes kFour(4);
        if (bytes->size() < 16) return;
        const auto first = bytes->begin() + static_cast<ptrdiff_t>(4 + below(bytes->size() - 8));
        const auto letters = std::search(first, bytes->end(), kFour.begin(), kFour.end(),
                                         [&](char c, char) { return isLetter(c); });
        const auto number = (letters == bytes->end() ? first : letters) - 4;
        const uint32_t value = kNumbers[below(std::size(kNumbers))];
        for (int i = 0; i < 4; ++i) number[i] = static_cast<char>(value >> (24 - 8 * i));
    }

    std::mt19937_64 mRandom;
};

Bytes readFile(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
}

int runCommand(const std::string& command) {
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class DamagedRun {
public:
    // Cuts the clip to `percent` of its length; 0 damages it in some other way.
    DamagedRun(const fs::path& clip, size_t percent, uint64_t seed)
        : mClip(clip), mPercent(percent), mSeed(seed) {}

    // "" when it was borne, else what went wrong. Adds to `whole` when a file came out.
    std::string run(std::atomic<uint64_t>* whole) {
        Bytes bytes = readFile(mClip);
        std::string kind = "cut to " + std::to_string(mPercent) + " %";
        if (mPercent == 0) {
            kind = Damage(mSeed).apply(&bytes);
        } else {
            bytes.resize(bytes.size() * mPercent / 100);
        }
        std::ofstream(mIn.path(), std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        fs::remove(mOut.path());
        const int status = runCommand("timeout -s KILL " + std::to_string(kBoundSeconds) +
                                      " \"$QMTRANSCODE\" '" + mIn.path() + "' '" + mOut.path() +
                                      "' >/dev/null 2>'" + mSaid.path() + "' </dev/null");
        const Bytes words = readFile(mSaid.path());
        const std::string said(words.begin(), words.end());
        if (status == 0) ++*whole;
        const std::string wrong = judge(status, said);
        if (wrong.empty()) return wrong;
        const std::string kept = "damaged-" + std::to_string(mSeed) + mClip.extension().string();
        fs::copy_file(mIn.path(), kept, fs::copy_options::overwrite_existing);
        return mClip.filename().string() + ", " + kind + " (" + kept + "): " + wrong + ": " + said;
    }

private:
    std::string judge(int status, const std::string& said) const {
        if (status == 0) {
            const bool lacksTrack = said.find("has no samples") != std::string::npos;
            if (!said.empty() && !lacksTrack) return "words beside a whole file";
            return runCommand("ffprobe -v error '" + mOut.path() + "' >/dev/null 2>&1") == 0
                       ? ""
                       : "unreadable output";
        }
        if (status != 1 && status != 3) return "status " + std::to_string(status);
        if (fs::exists(mOut.path())) return "an output in spite of the failure";
        if (std::count(said.begin(), said.end(), '\n') != 1 || said.rfind("qmtranscode: ", 0) != 0)
            return "not one line";
        return said.find("internal check") == std::string::npos ? "" : "not the input's fault";
    }

    const fs::path mClip;
    const size_t mPercent;
    const uint64_t mSeed;
    const TemporaryFile mIn;
    const TemporaryFile mOut;
    const TemporaryFile mSaid;
};

int run(const char* qmtranscode, const fs::path& folder) {
    // A variable, because the path may have characters that a shell command would have to quote.
    setenv("QMTRANSCODE", qmtranscode, 1);
    const uint64_t seed = numberFromEnvironment("QM_SEED", 1);
    const uint64_t count = numberFromEnvironment("QM_DAMAGES", 300 / kSlowness);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::vector<fs::path> clips;
    for (const auto& entry : fs::directory_iterator(folder)) clips.push_back(entry.path());
    std::sort(clips.begin(), clips.end());
    if (clips.empty()) return 1;

    std::atomic<uint64_t> next{0};
    std::atomic<uint64_t> whole{0};
    std::atomic<uint64_t> failures{0};
    const auto work = [&] {
        for (uint64_t n = next++; n < count; n = next++) {
            const uint64_t round = n / clips.size();
            const size_t percent = round % 2 == 0 ? 1 + round / 2 % 99 : 0;
            const std::string wrong =
                DamagedRun(clips[n % clips.size()], percent, seed + n).run(&whole);
            if (wrong.empty()) continue;
            ++failures;
            printf("FAILED: %s\n", wrong.c_str());
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) thread.join();
    printf("seed %llu: %llu came out as files, %llu were refused\n",
           static_cast<unsigned long long>(seed), static_cast<unsigned long long>(whole),
           static_cast<unsigned long long>(count - whole - failures));
    return failures == 0 ? 0 : 1;
}

}  // namespace

}  // namespace android::qmmediaeditor

int main(int argc, char** argv) {
    return argc == 3 ? android::qmmediaeditor::run(argv[1], argv[2]) : 2;
}
