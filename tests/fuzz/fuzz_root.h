// Set-up shared by the fuzz targets that write data files: a private file root on tmpfs when
// there is one (a target writes a file per execution; on a disk that is slow and wears it), the
// virtual clock so that no wait sleeps, and the daemon's console and syslog output silenced.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/dbgout.h"
#include "platform/clock.h"
#include "platform/paths.h"

namespace fuzzsupport {

inline bool quiet_file_root(const char* name, platform::Clock* clock) {
    std::string shm = std::string("/dev/shm/afd-fuzz-") + name + "-XXXXXX";
    std::string tmp = std::string("/tmp/afd-fuzz-") + name + "-XXXXXX";
    const char* root = mkdtemp(shm.data());
    if (root == nullptr)
        root = mkdtemp(tmp.data());
    if (root == nullptr)
        return false;
    platform::set_file_root(root);
    platform::select_clock(clock);
    dbg_set_syslog(false);
    return std::freopen("/dev/null", "w", stdout) != nullptr;
}

}  // namespace fuzzsupport
