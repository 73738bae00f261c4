// The sanitizers' options for these tests. Without a sanitizer nobody calls these functions.

extern "C" {

const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

// The platform's libraries are not instrumented: how the last reference to an object is passed from
// thread to thread is invisible. Tests' hooks run within the log's lock.
const char* __tsan_default_suppressions() {
    return "race:android::RefBase::decStrong\n"
           "deadlock:__android_log_write_logger_data\n";
}

// An object whose constructor fails a check leaves its reference counts behind.
const char* __lsan_default_suppressions() { return "leak:android::RefBase::RefBase\n"; }

}  // extern "C"
