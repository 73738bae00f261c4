// The component's log messages as events: which one means that a thread waits, works, has pushed a
// sample, or reports an event of the run. The texts of the messages are the component's contract.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string_view>

namespace android::qmmediaeditor::cli {

// The queues at which one thread waits for another.
enum class Queue { kNone, kDecodedVideo, kEncodedVideo, kDecodedAudio, kEncodedAudio };
constexpr size_t kQueueCount = 5;
const char* nameOf(Queue queue);

// The stages that samples pass. A message reports each once per sample or per batch.
enum class Stage {
    kNone,
    kVideoDecoded,
    kVideoTaken,  // by the encoder
    kVideoEncoded,
    kVideoWritten,
    kAudioDecoded,
    kAudioTaken,
    kAudioEncoded,
    kAudioWritten,
};
constexpr size_t kStageCount = 9;
const char* nameOf(Stage stage);

// The activity of the thread of the message from now on.
enum class Activity {
    kUnchanged,
    kStarts,  // it takes its `role`
    kWorks,
    kWaits,
    kPolls,  // waits, and repeats the message
    kEnds,
    kEvent,  // unchanged; the message is an event of the run
};

enum class QueueChange {
    kNone,
    kPushed,
    kDropped,  // the sample that was pushed last is dropped
    kFull,     // a producer has handed a batch over and waits until it is taken
    kEmpty,    // a consumer has found nothing and waits
};

// How a message is recognised, and its meaning.
struct LogPattern {
    const char* tag;
    std::string_view prefix;  // the beginning of the message
    const char* contains;     // text after the prefix, or null
    Activity activity;
    const char* what;  // what the thread does or waits for, or the name of the event
    Queue queue = Queue::kNone;
    QueueChange change = QueueChange::kNone;
    // The activity of the thread after a wait, which no message announces.
    const char* afterwards = nullptr;
    Stage stage = Stage::kNone;
    const char* role = nullptr;
    // The index of the message's number that is a timestamp of the output: 1 or 2; 0 for none.
    int timestampIndex = 0;
};

struct LogEvent {
    const LogPattern* pattern;
    // The first two integers after the prefix; 0 if there are none.
    int64_t first;
    int64_t second;
};

// Nothing for a message without a pattern.
std::optional<LogEvent> parseLogMessage(std::string_view tag, std::string_view message);

}  // namespace android::qmmediaeditor::cli
