// What the component's log says about a run: which message means that a thread waits, works, has
// handed a batch over or has come to an event. The wording is the component's own.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android::qmmediaeditor::cli {

// The places where one thread waits for another.
enum class Queue { kNone, kDecodedPictures, kEncodedPictures, kDecodedSound, kEncodedSound };
constexpr size_t kQueueCount = 5;
const char* nameOf(Queue queue);

// What moves through a run. Each is told by messages that come once for a frame or a batch.
enum class Stage {
    kNone,
    kPicturesDecoded,
    kPicturesTaken,  // by the encoder
    kPicturesEncoded,
    kPicturesWritten,
    kSoundDecoded,
    kSoundTaken,
    kSoundEncoded,
    kSoundWritten,
};
constexpr size_t kStageCount = 9;
const char* nameOf(Stage stage);

enum class Act {
    kNothing,  // tells of the stage alone
    kBegins,   // the thread takes up `role`
    kWorks,
    kWaits,
    kPolls,  // waits, and says so again and again
    kEnds,
    kEvent,
};

// What the message does to the queue.
enum class Effect {
    kNone,
    kPushed,   // one more
    kDropped,  // the one that came last was not taken
    kFull,     // a producer has handed a batch over and waits until it is gone
    kEmpty,    // a consumer has found nothing and waits
};

struct Phrase {
    const char* tag;
    const char* text;  // how the message begins
    const char* also;  // what else is in it, or null
    Act act;
    const char* what;  // what the thread does or waits for, or the event
    Queue queue = Queue::kNone;
    Effect effect = Effect::kNone;
    // What the thread does when a wait is over, as the thread does not say it.
    const char* afterwards = nullptr;
    Stage stage = Stage::kNone;
    const char* role = nullptr;
    // Which of the message's numbers is a time of the output: 1 or 2.
    int timeAt = 0;
};

// A message that was understood.
struct Saying {
    const Phrase* phrase = nullptr;
    // The first two numbers behind the phrase's text; 0 when there are none.
    int64_t first = 0;
    int64_t second = 0;
};

// False for a message that says nothing of this kind.
bool understand(const char* tag, const char* message, Saying* saying);

}  // namespace android::qmmediaeditor::cli
