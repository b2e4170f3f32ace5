// Per-frame autofocus statistics: the block table and the values derived from it.
//
// The ISP measures every frame over a 15 x 15 grid of image blocks: the brightness, four filter
// sums (a vertical and a horizontal FIR high-pass, two IIR band-passes) and a count of clipped
// pixels. The reply to a frame request carries them as six arrays of 225 little-endian u32 after a
// 12-byte header. Each fetch turns that record into the block table, which the whole autofocus
// side works on, and derives from it what the caller asked for:
//   mode 0  curve calibration: the highlight masks and the centre sharpness only;
//   mode 1  autofocus, mode 2 zoom motion: every window value and every per-block grid.
//
// Blocks are row-major (block (r, c) at r x 15 + c); window z = zr x 5 + zc groups block rows
// 3zr..3zr+2 and columns 3zc..3zc+2. All arithmetic is 32-bit unsigned, as on the board: sums
// wrap, halving is a shift after the addition.
//
// Nothing here allocates; every table is module state that lives for the whole process. The main
// thread and the tuning server's client threads both fetch; no lock protects the tables (a tuning
// client may read values of the frame being converted).
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr int kGridRows = 15;
inline constexpr int kGridCols = 15;
inline constexpr int kGridBlocks = kGridRows * kGridCols;
inline constexpr int kWindowCount = 25;

// Raw statistics reply: header, six arrays of 225 u32, padding.
inline constexpr std::size_t kAfStatFrameSize = 5504;
inline constexpr std::size_t kAfStatHeaderSize = 12;
// Byte offsets of the six arrays in the reply.
inline constexpr std::size_t kAfStatLumaOffset = 12;
inline constexpr std::size_t kAfStatFirVOffset = 912;
inline constexpr std::size_t kAfStatFirHOffset = 1812;
inline constexpr std::size_t kAfStatIir1Offset = 2712;
inline constexpr std::size_t kAfStatIir2Offset = 3612;
inline constexpr std::size_t kAfStatHighlightOffset = 4512;

// One block of the block table.
struct AfStatWindow {
    uint32_t fir_v;      // "FIR_V"
    uint32_t iir1;       // "IIR1"
    uint32_t fir_h;      // "FIR_H"
    uint32_t iir2;       // "IIR2"
    uint32_t luma;       // block brightness
    uint32_t highlight;  // clipped-pixel measure; above 900 the block holds a light
};

// Fetch on the frame of the last successful Get_ISP_VD. No I/O: fetching twice for one frame gives
// the same results.
void af_stat_fetch(uint8_t mode);
// The same on a caller's raw record of kAfStatFrameSize bytes (tools, replay, fuzzing).
void af_stat_fetch_from(const uint8_t* frame, uint8_t mode);

// The block table (225 entries).
const AfStatWindow* af_stat_blocks();
// Clears the block table (the AF attribute set-up at start-up).
void af_stat_clear_blocks();

// Window values of the last mode-1/2 fetch (window_sharpness[0] also after a mode-0 fetch). An
// index above 24 reads entry 24.
uint32_t get_window_sharpness(uint8_t z);
uint32_t get_window_iir2(uint8_t z);
uint32_t get_window_highlight_depth(uint8_t z);
uint32_t get_window_luma_deviation(uint8_t z);
uint32_t get_centre_highlight_depth();

// Per-block grids of the last mode-1/2 fetch.
enum class StatGrid : uint8_t {
    kSharpV,     // (fir_v + iir1) / 2 + 50
    kSharpH,     // (fir_h + iir2) / 2
    kLuma,       // luma
    kHighlight,  // highlight
    kIir1,
    kFirV,
    kIir2,
    kFirH,
};
// Copies a grid (225 u32, 900 bytes) into out.
void af_stat_copy_grid(StatGrid grid, uint32_t* out);

// Grid by kind, computed afresh from the block table into out (225 u32):
//   0 iir1+50, 1 fir_v+50, 2 iir2+50, 3 fir_h+50, 4 (iir1+fir_v)/2+50, 5 (iir2+fir_h)/2+50, 6 luma.
// Any other kind leaves out untouched.
void af_stat_grid_by_kind(uint32_t* out, uint32_t kind);

// Filter table export (15 x 15 x 5 u32, 4500 bytes): at r x 75 + c x 5 the words iir1 + 1,
// fir_v + 1, iir2 + 1, fir_h + 1, luma.
inline constexpr int kFilterTableWords = kGridBlocks * 5;
void af_stat_export_filter_table(uint32_t* out);

// window_sharpness into out (25 u32), each entry + 50 when below 20000.
void af_stat_copy_window_sharpness(uint32_t* out);
