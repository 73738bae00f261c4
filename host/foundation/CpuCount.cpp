#include "host/foundation/CpuCount.h"

#include <sched.h>
#include <stdint.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

namespace android {
namespace qmmediaeditor {

namespace {

constexpr int kMaxDefaultThreads = 16;

// A quota and the period that it is for, in microseconds; no quota is negative or a word.
int roundUp(int64_t quota, int64_t period) {
    if (quota <= 0 || period <= 0) return 0;
    return static_cast<int>(std::min<int64_t>((quota - 1) / period + 1, INT32_MAX));
}

int quotaOfVersion2(const std::string& directory) {
    int64_t quota = 0;
    int64_t period = 0;
    std::ifstream(directory + "/cpu.max") >> quota >> period;
    return roundUp(quota, period);
}

int quotaOfVersion1(const std::string& directory) {
    int64_t quota = 0;
    int64_t period = 0;
    std::ifstream(directory + "/cpu.cfs_quota_us") >> quota;
    std::ifstream(directory + "/cpu.cfs_period_us") >> period;
    return roundUp(quota, period);
}

bool listsCpu(const std::string& controllers) {
    return ("," + controllers + ",").find(",cpu,") != std::string::npos;
}

// The smallest quota of `group` and its ancestors. Inside of a container the path may be that of
// the host: then only the root's own files are there.
template <typename QuotaOf>
int smallestQuota(const std::string& root, std::string group, const QuotaOf& quotaOf) {
    int smallest = 0;
    for (;;) {
        const int quota = quotaOf(root + group);
        if (quota > 0 && (smallest == 0 || quota < smallest)) smallest = quota;
        if (group.empty()) return smallest;
        group.erase(group.rfind('/'));
    }
}

}  // namespace

int cpuQuota(const std::string& membership, const std::string& root) {
    int smallest = 0;
    std::ifstream groups(membership);
    // Lines like "4:cpu,cpuacct:/user.slice", and "0::/user.slice" for version 2.
    for (std::string line; std::getline(groups, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string controllers;
        std::string group;
        std::getline(fields, number, ':');
        std::getline(fields, controllers, ':');
        std::getline(fields, group);
        if (group.empty() || group[0] != '/') continue;
        if (group == "/") group.clear();
        int quota = 0;
        if (controllers.empty()) {
            quota = smallestQuota(root, group, quotaOfVersion2);
        } else if (listsCpu(controllers)) {
            quota = smallestQuota(root + "/" + controllers, group, quotaOfVersion1);
            if (quota == 0) quota = smallestQuota(root + "/cpu", group, quotaOfVersion1);
        }
        if (quota > 0 && (smallest == 0 || quota < smallest)) smallest = quota;
    }
    return smallest;
}

int availableCpus() {
    cpu_set_t mask;
    // The mask of a machine with more CPUs than it has room for cannot be read.
    int cpus = sched_getaffinity(0, sizeof(mask), &mask) == 0
                   ? CPU_COUNT(&mask)
                   : static_cast<int>(std::thread::hardware_concurrency());
    const int quota = cpuQuota("/proc/self/cgroup", "/sys/fs/cgroup");
    if (quota > 0) cpus = std::min(cpus, quota);
    return std::max(cpus, 1);
}

int codecThreads(int wanted) {
    return wanted > 0 ? wanted : std::min(availableCpus(), kMaxDefaultThreads);
}

}  // namespace qmmediaeditor
}  // namespace android
