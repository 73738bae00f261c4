// How many CPUs this process may use. Any thread.
#pragma once

#include <string>

namespace android {
namespace qmmediaeditor {

// CPUs that the quotas of a process's control groups and of their ancestors allow, rounded up; 0
// without a quota. `membership` is the file that names the groups, in the form of
// /proc/self/cgroup, and `root` the directory that the hierarchies are mounted at: that of version
// 2 itself, and those of version 1 in directories named after their controllers.
int cpuQuota(const std::string& membership, const std::string& root);

// The minimum of the affinity mask and the CPU quota; at least 1.
int availableCpus();

// The number of threads for one codec: `wanted`, or when that is 0 the number of available CPUs, at
// most 16, because each thread of a video codec takes the memory of several frames.
int codecThreads(int wanted);

}  // namespace qmmediaeditor
}  // namespace android
