// Removes the rights that a process which decodes untrusted files does not need.
#pragma once

namespace android::qmmediaeditor::cli {

// After this call, the process can open nothing but libraries in the system's library directories,
// for reading; it cannot create sockets or processes, and it has no capabilities. Open descriptors
// stay open. Landlock (files) and seccomp (system calls) are left out if the kernel does not
// support them. To be called before the process has other threads. False when memory is exhausted.
bool enterSandbox();

}  // namespace android::qmmediaeditor::cli
