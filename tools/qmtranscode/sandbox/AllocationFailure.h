// What the command's worker does when memory runs out.
#pragma once

namespace android::qmmediaeditor::cli {

// From now on `end` is called when an allocation of any library fails, on the thread that asked for
// memory. It does not return and allocates nothing. Libraries do not always report such a failure:
// FFmpeg's parsers drop bytes, and the output would lack frames without a word.
//
// Does nothing in sanitizer builds, whose run-time library has its own allocator.
void endOnFailedAllocation(void (*end)());

}  // namespace android::qmmediaeditor::cli
