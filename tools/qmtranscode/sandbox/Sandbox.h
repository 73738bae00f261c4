// Takes away the rights that a process which decodes untrusted files does not need.
#pragma once

namespace android::qmmediaeditor::cli {

// From here on this process opens no files but libraries, of the system's library folders and for
// reading alone, makes no sockets and no processes, and has no capabilities. What it has open stays
// open. What the kernel does not offer is left out: Landlock for files, seccomp for system calls.
// To be called before the process has other threads. False when memory is
// short.
bool enterSandbox();

}  // namespace android::qmmediaeditor::cli
