#include "platform/linux/device_linux.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

#include "platform/paths.h"

namespace platform {
namespace {

int open_under_root(const char* dev_path, int flags) {
    Path p(dev_path);
    if (!p.ok())
        return -1;
    return ::open(p.c_str(), flags);
}

LinuxSpi g_linuxSpi;
LinuxGpio g_linuxGpio;
std::atomic<SpiBackend*> g_spi{&g_linuxSpi};
std::atomic<GpioBackend*> g_gpio{&g_linuxGpio};

}  // namespace

int LinuxSpi::open(const char* dev_path, int flags) {
    return open_under_root(dev_path, flags);
}
int LinuxSpi::ioctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}
int LinuxSpi::close(int fd) {
    return ::close(fd);
}

int LinuxGpio::open(const char* dev_path, int flags) {
    return open_under_root(dev_path, flags);
}
int LinuxGpio::ioctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}
int LinuxGpio::close(int fd) {
    return ::close(fd);
}

SpiBackend& spi() {
    return *g_spi.load(std::memory_order_acquire);
}
void select_spi(SpiBackend* b) {
    g_spi.store(b ? b : &g_linuxSpi, std::memory_order_release);
}

GpioBackend& gpio() {
    return *g_gpio.load(std::memory_order_acquire);
}
void select_gpio(GpioBackend* b) {
    g_gpio.store(b ? b : &g_linuxGpio, std::memory_order_release);
}

}  // namespace platform
