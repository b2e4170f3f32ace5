// GPIO seam. The lens board's home sensors, frame strobe, busy line and reset are driven through
// a vendor character device with one ioctl per pin operation (lens_api/gpio_pins). As for SPI,
// the seam is the system-call surface itself: open, ioctl, close.
#pragma once

namespace platform {

class GpioBackend {
  public:
    virtual ~GpioBackend() = default;
    virtual int open(const char* dev_path, int flags) = 0;
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    virtual int close(int fd) = 0;
};

GpioBackend& gpio();
void select_gpio(GpioBackend* b);

}  // namespace platform
