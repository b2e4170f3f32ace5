// A small read-only record that another process of the camera publishes in a shared-memory
// device (the tracker's box, the rangefinder's distance): mapped on first use, read as
// little-endian u32 words. The writer rewrites it in place while we read, so callers copy the
// words once and use the copy.
#pragma once

#include <cstdint>

class ShmRecord {
  public:
    ShmRecord(const char* device, int size) : device_(device), size_(size) {}
    ~ShmRecord() { unmap(); }
    ShmRecord(const ShmRecord&) = delete;
    ShmRecord& operator=(const ShmRecord&) = delete;

    // Maps the device when it is not mapped yet (up to four opens, 500 us apart). False while the
    // device is missing or shorter than the record; a device cut short after mapping is unmapped
    // (reading past its end would fault) and mapped again once it is whole.
    bool map();
    bool mapped() const { return map_ != nullptr; }
    // Copies the first n words; map() must have succeeded.
    void read_words(uint32_t* out, int n) const;
    void unmap();

  private:
    const char* device_;
    int size_;
    // Kept open while mapped, to check the device's size before each read.
    int fd_ = -1;
    const volatile uint8_t* map_ = nullptr;
};
