#include "isp/shm_record.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/paths.h"

bool ShmRecord::map() {
    if (map_ != nullptr) {
        struct stat st;
        if (fstat(fd_, &st) == 0 && st.st_size >= size_)
            return true;
        unmap();
        return false;
    }
    platform::Path path(device_);
    int fd = -1;
    for (int attempt = 0; attempt < 4 && fd < 0; ++attempt) {
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            platform::sleep_us(500);
    }
    if (fd < 0)
        return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size < size_) {
        close(fd);
        return false;
    }
    void* m = mmap(nullptr, static_cast<size_t>(size_), PROT_READ, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) {
        close(fd);
        return false;
    }
    fd_ = fd;
    map_ = static_cast<const volatile uint8_t*>(m);
    return true;
}

void ShmRecord::read_words(uint32_t* out, int n) const {
    for (int i = 0; i < n && 4 * i + 4 <= size_; ++i) {
        const volatile uint8_t* p = map_ + 4 * i;
        out[i] = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                 static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
    }
}

void ShmRecord::unmap() {
    if (map_ != nullptr)
        munmap(const_cast<uint8_t*>(map_), static_cast<size_t>(size_));
    if (fd_ >= 0)
        close(fd_);
    map_ = nullptr;
    fd_ = -1;
}
