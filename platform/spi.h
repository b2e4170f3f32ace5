// SPI seam. The lens-driver links (lens_api/spi_link) speak to the bus through exactly the calls
// the Linux spidev interface has: open, ioctl (SPI_IOC_* requests), close. The Linux backend passes
// them to the kernel; the simulation backend forwards them to the virtual camera's chip emulators.
// The driver code above this seam is the same in both cases.
#pragma once

namespace platform {

class SpiBackend {
  public:
    virtual ~SpiBackend() = default;
    // dev_path is the device as the daemon names it ("/dev/spidev4.0"). Returns a descriptor
    // (>= 0) or -1 with nothing opened.
    virtual int open(const char* dev_path, int flags) = 0;
    // An SPI_IOC_* request with its argument, as ioctl(2). Returns the ioctl result (< 0 failure).
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    virtual int close(int fd) = 0;
};

// The backend in force; the Linux one until select_spi() is called.
SpiBackend& spi();
void select_spi(SpiBackend* b);

}  // namespace platform
