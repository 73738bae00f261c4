// Ends the worker when an allocation fails.
#pragma once

namespace android::qmmediaeditor::cli {

// From now on, `end` is called when an allocation of any library fails, on the thread that made it.
// `end` does not return and does not allocate. It is needed because libraries do not always report
// such a failure: FFmpeg's parsers drop bytes, and frames would be missing in the output silently.
//
// Does nothing in sanitizer builds, whose run-time library has its own allocator.
void endOnFailedAllocation(void (*end)());

}  // namespace android::qmmediaeditor::cli
