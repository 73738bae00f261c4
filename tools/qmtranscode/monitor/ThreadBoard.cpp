#include <qmtranscode/monitor/ThreadBoard.h>
#include <stdio.h>

namespace android::qmmediaeditor::cli {

namespace {

template <typename... Values>
std::string lineOf(const char* format, Values... values) {
    char text[160];
    snprintf(text, sizeof(text), format, values...);
    return text;
}

double secondsBetween(int64_t fromUs, int64_t toUs) {
    return static_cast<double>(toUs - fromUs) / 1e6;
}

}  // namespace

void ThreadBoard::note(pid_t id, int64_t timeUs, const Saying& saying) {
    const Phrase& phrase = *saying.phrase;
    Thread& thread = mThreads[id];
    if (phrase.role != nullptr && thread.role != phrase.role) {
        thread.role = phrase.role;
        if (mPicture != nullptr) mPicture->thread(id, phrase.role);
    }
    applyEffect(saying, timeUs);
    switchTo(id, &thread, phrase, timeUs);
    if (phrase.stage != Stage::kNone) {
        Moved& moved = mStages[static_cast<size_t>(phrase.stage)];
        ++moved.count;
        moved.atUs = timeUs;
        if (phrase.timeAt == 1) moved.mediaUs = saying.first;
        if (phrase.timeAt == 2) moved.mediaUs = saying.second;
    }
    if (phrase.act != Act::kPolls) mLastMoveUs = timeUs;
}

void ThreadBoard::switchTo(pid_t id, Thread* thread, const Phrase& phrase, int64_t timeUs) {
    if (phrase.act == Act::kNothing) return;
    if (phrase.act == Act::kEvent) {
        if (mPicture != nullptr) mPicture->event(id, phrase.what, timeUs);
        return;
    }
    // A poll that goes on is one wait.
    if (phrase.act == Act::kPolls && thread->what == phrase.what) return;
    endSlice(id, thread, timeUs);
    thread->what = phrase.what;
    thread->act = phrase.act;
    thread->sinceUs = timeUs;
    const bool waits = phrase.act == Act::kWaits;
    thread->queue = waits ? phrase.queue : Queue::kNone;
    thread->effect = phrase.effect;
    thread->afterwards = phrase.afterwards;
}

void ThreadBoard::endSlice(pid_t id, Thread* thread, int64_t timeUs) {
    if (thread->what == nullptr) return;
    const bool waits = thread->act == Act::kWaits || thread->act == Act::kPolls;
    if (mPicture != nullptr) mPicture->slice(id, thread->what, waits, thread->sinceUs, timeUs);
    thread->what = nullptr;
}

void ThreadBoard::applyEffect(const Saying& saying, int64_t timeUs) {
    const Queue queue = saying.phrase->queue;
    const int64_t depth = mDepths[static_cast<size_t>(queue)];
    switch (saying.phrase->effect) {
        case Effect::kNone:
            break;
        case Effect::kPushed:
            setDepth(queue, depth + 1, timeUs);
            break;
        case Effect::kDropped:
            if (depth > 0) setDepth(queue, depth - 1, timeUs);
            break;
        case Effect::kFull:
            setDepth(queue, saying.first, timeUs);
            endWaits(queue, Effect::kEmpty, timeUs);
            break;
        case Effect::kEmpty:
            setDepth(queue, 0, timeUs);
            endWaits(queue, Effect::kFull, timeUs);
            break;
    }
}

// Whoever waits at the other end of the queue goes on.
void ThreadBoard::endWaits(Queue queue, Effect waiter, int64_t timeUs) {
    for (auto& [id, thread] : mThreads) {
        if (thread.queue != queue || thread.effect != waiter) continue;
        endSlice(id, &thread, timeUs);
        thread.what = thread.afterwards;
        thread.act = Act::kWorks;
        thread.sinceUs = timeUs;
        thread.queue = Queue::kNone;
    }
}

void ThreadBoard::setDepth(Queue queue, int64_t count, int64_t timeUs) {
    mDepths[static_cast<size_t>(queue)] = count;
    if (mPicture != nullptr) mPicture->depth(queue, count, timeUs);
}

void ThreadBoard::noteRead(int32_t percent, int64_t timeUs) {
    mReadPercent = percent;
    mReadAtUs = timeUs;
    mLastMoveUs = timeUs;
}

void ThreadBoard::finish(int64_t timeUs) {
    for (auto& [id, thread] : mThreads) endSlice(id, &thread, timeUs);
    mLastMoveUs = 0;
}

std::vector<std::string> ThreadBoard::describe(int64_t timeUs) const {
    std::vector<std::string> lines;
    for (const auto& [id, thread] : mThreads) {
        if (thread.what == nullptr) continue;
        const bool waits = thread.act == Act::kWaits || thread.act == Act::kPolls;
        lines.push_back(lineOf("  %-23s %s%s, for %.1f s", thread.role ? thread.role : "thread",
                               waits ? "waits " : "", thread.what,
                               secondsBetween(thread.sinceUs, timeUs)));
    }
    for (size_t i = 1; i < kQueueCount; ++i) {
        lines.push_back(lineOf("  queue of %-17s %lld", nameOf(static_cast<Queue>(i)),
                               static_cast<long long>(mDepths[i])));
    }
    if (mReadPercent >= 0) {
        lines.push_back(lineOf("  input read: %d %%, last %.1f s ago", mReadPercent,
                               secondsBetween(mReadAtUs, timeUs)));
    }
    for (size_t i = 1; i < kStageCount; ++i) {
        const Moved& moved = mStages[i];
        if (moved.count == 0) continue;
        std::string line = lineOf("  %s: last %.1f s ago", nameOf(static_cast<Stage>(i)),
                                  secondsBetween(moved.atUs, timeUs));
        if (moved.mediaUs >= 0) line += lineOf(", at %.3f s", secondsBetween(0, moved.mediaUs));
        lines.push_back(line);
    }
    return lines;
}

}  // namespace android::qmmediaeditor::cli
