// Helpers shared by the virtual camera's tests: scenarios from text, a plain ISP client, the
// centre sharpness of a statistics frame.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "data/frame_stamp.h"
#include "sim/scenario.h"

namespace simtest {

// Parses a scenario given as YAML text; fails the test on an error.
vcam::Scenario scenario_from(const std::string& yaml);

// A textured chart filling the centre in daylight at `distance` mm, lens at `zoom`, no noise.
vcam::Scenario chart_scenario(double distance, double zoom, double texture = 5000);

// Centre V of a 5504-byte statistics frame: (fir_v + iir1) / 2 over blocks 6..9 x 6..9, as the
// daemon reads it.
double centre_v(const uint8_t* frame);

// Plain blocking TCP client of the ISP service.
class IspClient {
  public:
    explicit IspClient(uint16_t port);
    ~IspClient();
    bool connected() const { return fd_ >= 0; }
    bool send_bytes(const std::vector<uint8_t>& b);
    // Waits until `n` bytes are readable, then reads them with one recv() (as the daemon does);
    // returns what that single call got.
    std::vector<uint8_t> recv_once(size_t n, int timeout_ms = 3000);
    // True when the server closed the connection (recv returns 0) within the timeout.
    bool closed_by_peer(int timeout_ms = 3000);
    std::vector<uint8_t> request(uint8_t code, size_t reply_size);
    // Requests the next frame and waits for all of it; returns its stamp (sequence 0 on failure).
    afdata::FrameStamp next_frame();

  private:
    int fd_ = -1;
};

std::string read_file(const std::string& path);
std::string temp_path(const std::string& name);

}  // namespace simtest
