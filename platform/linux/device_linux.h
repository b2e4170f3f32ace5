#pragma once

#include "platform/gpio.h"
#include "platform/spi.h"

namespace platform {

// Pass-through to the kernel. Device paths resolve under the file root, so on a desktop sandbox
// the spidev and GPIO nodes are simply missing (or plain files whose ioctls fail).
class LinuxSpi final : public SpiBackend {
  public:
    int open(const char* dev_path, int flags) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int close(int fd) override;
};

class LinuxGpio final : public GpioBackend {
  public:
    int open(const char* dev_path, int flags) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    int close(int fd) override;
};

}  // namespace platform
