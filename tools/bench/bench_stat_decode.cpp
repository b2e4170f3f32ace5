// Per-frame cost of turning a statistics reply into the block table, the highlight masks, the
// window values and the per-block grids (the work every autofocus or zoom-motion frame does after
// Get_ISP_VD), and of decoding an exposure record.
//
// Instructions per frame, exact and machine-independent, with callgrind counting only inside the
// fetch:
//   valgrind --tool=callgrind --toggle-collect='af_stat_fetch_from*'
//       ./bench_stat_decode --benchmark_filter=Fetch/1 --benchmark_min_time=0.05
// (one command line)
//   callgrind_annotate --inclusive=yes callgrind.out.<pid> | grep af_stat_fetch_from
// and divide by the number of calls (callgrind_annotate --tree=caller shows them).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "isp/af_stat.h"
#include "isp/highlight.h"
#include "isp/isp_link.h"

namespace {

void put(uint8_t* f, std::size_t off, int i, uint32_t v) {
    std::memcpy(f + off + 4 * static_cast<std::size_t>(i), &v, 4);
}

// A textured scene with a few street lights: filter sums of a few hundred to a few thousand,
// 10-bit block brightness, and six highlight blocks.
const uint8_t* scene_frame() {
    static uint8_t frame[kAfStatFrameSize];
    std::mt19937 rng(7);
    std::uniform_int_distribution<uint32_t> sharp(50, 6000), luma(20, 1000);
    for (int i = 0; i < kGridBlocks; ++i) {
        put(frame, kAfStatLumaOffset, i, luma(rng));
        put(frame, kAfStatFirVOffset, i, sharp(rng));
        put(frame, kAfStatFirHOffset, i, sharp(rng));
        put(frame, kAfStatIir1Offset, i, sharp(rng));
        put(frame, kAfStatIir2Offset, i, sharp(rng));
        put(frame, kAfStatHighlightOffset, i, 0);
    }
    for (int i : {20, 21, 97, 112, 113, 200})
        put(frame, kAfStatHighlightOffset, i, 4000);
    return frame;
}

void Fetch(benchmark::State& state) {
    const uint8_t* frame = scene_frame();
    const auto mode = static_cast<uint8_t>(state.range(0));
    highlight_arm_update();
    for (auto _ : state) {
        af_stat_fetch_from(frame, mode);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Fetch)->Arg(0)->Arg(1)->Arg(2);

void ExposureDecode(benchmark::State& state) {
    uint8_t rec[kExposureRecordSize] = {};
    const float l = 215.0f, t = 0.01f, g = 3.5f;
    std::memcpy(rec + 8, &l, 4);
    std::memcpy(rec + 44, &t, 4);
    std::memcpy(rec + 48, &g, 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rec);
        benchmark::DoNotOptimize(isp_decode_exposure(rec));
    }
}
BENCHMARK(ExposureDecode);

}  // namespace

BENCHMARK_MAIN();
