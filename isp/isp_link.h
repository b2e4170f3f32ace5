// Client of the camera's ISP service: one local TCP connection (the ISP link) carrying four
// request codes, each a single byte:
//   1 Get_ISP_VD       reply: 5504-byte statistics of the next frame (this paces the frame loop)
//   2 GET_AF_ATTR      reply: the 264-byte AF attribute record
//   3 SET_AF_ATTR      the code and the 264-byte record in one 265-byte message; no reply
//   4 GET_AE_EXP_INFO  reply: the 292-byte exposure record
// Records are little-endian. One lock serialises every exchange: the main thread and the tuning
// server's client threads share the link, and a request and its reply must never interleave with
// another's.
//
// Robustness. Every reply is read until its full size has arrived: TCP may split a reply, and a
// short read would leave the rest in the stream and desynchronise every later exchange. A reply
// that stops short because the service closed the connection, an error, or a service that stays
// silent for longer than the reply timeout (3 s: the slowest frame rate is 25 fps, so a frame three
// seconds late means the service has hung) all close the link with the request's failure message.
// A statistics frame lands in a second buffer and becomes the current frame only once complete,
// so nobody ever sees half a frame. The exchange is strict request/reply, so bytes still waiting
// once a reply is complete mean the stream is out of step (a reply of the wrong size, junk): the
// reply is discarded and the link closed to be reconnected in step ("out of step" lines, limited
// to one per 5 s while a service keeps doing it).
//
// Reconnect. When the ISP service restarts the link is lost. Get_ISP_VD then tries to connect
// again at most once a second (platform clock), the first time on the call after the loss; on
// success it re-runs the AF attribute set-up on the new connection. While the link is down
// Get_ISP_VD returns 1 after a 100 ms pause, taken without the link lock so that the tuning
// threads are never held up, and the frame loop keeps publishing. The loss, the first failed
// retry and the recovery are each logged once.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t kAfAttrSize = 264;
inline constexpr std::size_t kExposureRecordSize = 292;

// Start-up step 4. The lock is a constant-initialised mutex that exists before any thread starts,
// so there is nothing left to initialise; the step stays in the start-up sequence.
void isp_link_lock_init();
// Connects the link (no lock, no retry). Returns 0 on success, -1 on failure.
int socket_to_soc_init();
// One-time AF attribute set-up on the connection. Returns 0 on success (or when already done on
// this connection), -1 on failure or when the link is closed.
int isp_af_attr_setup();
// Waits for the next frame's statistics. Returns 0 when a complete frame arrived, 1 otherwise.
int Get_ISP_VD();
// GET_AE_EXP_INFO: refreshes exp_luma, exp_gain_ratio and exp_index. Returns 0 when refreshed,
// -1 when the link is down or the exchange failed (the previous values stay in force).
int isp_read_exposure();
// Writes the filter parameters A (offset 230), B (232), C (226), D (228) into the ISP's AF
// attribute record (read, modify, write back).
void set_filter_param(uint8_t a, uint8_t b, uint16_t c, uint16_t d);

// The last complete statistics frame (kAfStatFrameSize bytes; zero before the first frame).
const uint8_t* isp_stat_frame();
// The last AF attribute record received, as modified by the last set-up or parameter write.
const uint8_t* isp_af_attr_record();
// 1 while the link is connected.
uint8_t isp_link_up();

// Exposure record decoding: brightness L (word 2), exposure time T (word 11) and gain G (word 12)
// as floats; a gain of 0.0 reads as 1.0.
struct ExposureValues {
    uint32_t luma;        // L
    uint32_t gain_ratio;  // L / G x 100
    uint32_t index;       // T x 1000 x G x 10, as a signed integer
};
ExposureValues isp_decode_exposure(const uint8_t* record);

// Exposure state of the last successful read.
uint32_t get_exp_luma();
uint32_t get_exp_gain_ratio();
uint32_t get_exp_index();

// Filter profile control. statistics_mode is set by the autofocus side: 0 normal (low-noise
// profile), 2 low-light (high-noise profile); any non-zero value counts as low-light here.
void set_statistics_mode(uint8_t mode);
uint8_t get_statistics_mode();
// Called with 1 (low-light) or 0 whenever set_statistics_mode changes the mode: the autofocus
// state machine installs its handler here. nullptr removes it.
void isp_set_low_light_listener(void (*listener)(uint8_t low_light));
// Automatic filter update by the gain ratio. Returns 1 if new parameters were sent, else 0.
uint8_t isp_auto_filter_update();
// Forced profile: flag non-zero sends the low-noise profile and sets statistics_mode to 0; flag 0
// picks the profile by the gain ratio. Returns 0.
uint8_t isp_force_filter_profile(uint8_t flag);
// Exposure mode judged by the last automatic update: 3 low gain, 20 high gain.
uint32_t get_exposure_mode();
uint8_t get_fast_statistics();

// Exposure-change test of the autofocus restart check.
void exposure_change_reset();
// Returns 1 when a large exposure change has lasted 46 consecutive calls, else 0.
uint8_t exposure_change_test(uint8_t active);

// The ISP link has no request for the window mask: always answers 1 (the full mask) and leaves
// the caller's 25 bytes untouched.
uint8_t isp_read_window_mask(uint8_t* mask);

// Tests: back to the power-on state (closes the link); the reply timeout; the exposure mode.
void isp_link_reset_for_testing();
void isp_set_reply_timeout_ms_for_testing(uint32_t ms);
void isp_set_exposure_mode_for_testing(uint32_t mode);
