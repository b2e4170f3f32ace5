#include "store/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/paths.h"

namespace {

int g_exitAfterStep = 0;
int g_exitCode = 0;

void step_done(int step) {
    if (g_exitAfterStep == step)
        _exit(g_exitCode);
}

bool write_all(int fd, const unsigned char* p, std::size_t len) {
    while (len > 0) {
        const ssize_t n = ::write(fd, p, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += n;
        len -= static_cast<std::size_t>(n);
    }
    return true;
}

// fsync of the directory holding path, so the rename survives a power cut.
bool sync_parent_dir(const char* path) {
    char dir[platform::kPathMax];
    std::snprintf(dir, sizeof dir, "%s", path);
    char* slash = std::strrchr(dir, '/');
    if (slash == nullptr)
        return false;
    if (slash == dir)
        slash[1] = '\0';
    else
        *slash = '\0';
    const int fd = ::open(dir, O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

int atomic_file_write(const char* abs_path, const void* data, std::size_t len) {
    platform::Path target(abs_path);
    if (!target.ok())
        return kAtomicOpenFailed;
    char tmp[platform::kPathMax + 8];
    std::snprintf(tmp, sizeof tmp, "%s.tmp", target.c_str());

    const int fd = ::open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return kAtomicOpenFailed;
    step_done(kStepTempOpened);

    const auto* bytes = static_cast<const unsigned char*>(data);
    const std::size_t half = len / 2;
    bool ok = write_all(fd, bytes, half);
    if (ok)
        step_done(kStepFirstHalfWritten);
    ok = ok && write_all(fd, bytes + half, len - half);
    if (ok)
        step_done(kStepAllWritten);
    ok = ok && ::fsync(fd) == 0;
    if (ok)
        step_done(kStepFileSynced);
    ok = (::close(fd) == 0) && ok;
    if (ok)
        step_done(kStepClosed);
    if (!ok) {
        ::unlink(tmp);
        return kAtomicWriteFailed;
    }
    if (::rename(tmp, target.c_str()) != 0) {
        ::unlink(tmp);
        return kAtomicWriteFailed;
    }
    step_done(kStepRenamed);
    // The data are in place; a failed directory sync only weakens durability, so it is not an
    // error of the save.
    sync_parent_dir(target.c_str());
    step_done(kStepDirSynced);
    return kAtomicOk;
}

void atomic_file_exit_after_step_for_testing(int step, int exit_code) {
    g_exitAfterStep = step;
    g_exitCode = exit_code;
}
