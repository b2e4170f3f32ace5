#include "platform/sim/virtual_clock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

VirtualClock::~VirtualClock() {
    if (page_ != nullptr)
        munmap(const_cast<uint8_t*>(page_), afdata::kVirtualClockFileSize);
}

int VirtualClock::attach_page(const char* path) {
    int fd = open(path, O_RDWR | O_CREAT, 0666);
    if (fd < 0)
        return -1;
    if (ftruncate(fd, afdata::kVirtualClockFileSize) != 0) {
        close(fd);
        return -1;
    }
    void* p =
        mmap(nullptr, afdata::kVirtualClockFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return -1;
    page_ = static_cast<volatile uint8_t*>(p);
    publish(now_.load());
    return 0;
}

int VirtualClock::wall_time(timeval* tv) {
    uint64_t t = now_.load(std::memory_order_acquire);
    tv->tv_sec = static_cast<time_t>(kEpochSeconds + static_cast<int64_t>(t / 1000000u));
    tv->tv_usec = static_cast<suseconds_t>(t % 1000000u);
    return 0;
}

void VirtualClock::sleep_us(uint32_t us) {
    uint64_t t = now_.fetch_add(us, std::memory_order_acq_rel) + us;
    publish(t);
}

void VirtualClock::idle_us(uint32_t us) {
    sleep_us(us);
    const uint32_t pause = us < kIdleRealPauseUs ? us : kIdleRealPauseUs;
    timespec ts{0, static_cast<long>(pause) * 1000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void VirtualClock::on_frame(const afdata::FrameStamp& stamp) {
    uint64_t cur = now_.load(std::memory_order_acquire);
    while (stamp.time_us > cur && !now_.compare_exchange_weak(cur, stamp.time_us)) {
    }
    publish(now_.load(std::memory_order_acquire));
}

void VirtualClock::set_now_us(uint64_t t) {
    now_.store(t, std::memory_order_release);
    publish(t);
}

void VirtualClock::publish(uint64_t t) {
    if (page_ == nullptr)
        return;
    // Byte-wise little-endian store: the reader is another process on the same machine, and a
    // torn read only ever lags by one update.
    for (int i = 0; i < 8; ++i)
        page_[i] = static_cast<uint8_t>(t >> (8 * i));
}

}  // namespace platform
