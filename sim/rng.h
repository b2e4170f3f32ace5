// Counter-based pseudo-random numbers. Every frame's noise is drawn from a generator seeded by
// (scenario seed, frame number), so the same seed gives the same bytes whatever the order or
// timing of requests, and the sequence is the same on every platform and compiler.
#pragma once

#include <cmath>
#include <cstdint>

namespace vcam {

// SplitMix64 finaliser: a strong 64-bit mixing function.
inline uint64_t mix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

class Rng {
  public:
    explicit Rng(uint64_t seed) : state_(seed) {}

    uint64_t next() { return mix64(state_++); }

    // Uniform in (0, 1).
    double uniform() { return (static_cast<double>(next() >> 11) + 0.5) / 9007199254740992.0; }

    // Approximately standard normal: the sum of four uniforms (from two 64-bit draws), centred
    // and scaled to unit variance. Bounded at +-3.46, which suits sensor noise models, and several
    // times cheaper than an exact method; the statistics need millions of these per second.
    double normal() {
        const uint64_t a = next();
        const uint64_t b = next();
        constexpr double k = 1.0 / 4294967296.0;
        const double s =
            static_cast<double>(a & 0xFFFFFFFFu) * k + static_cast<double>(a >> 32) * k +
            static_cast<double>(b & 0xFFFFFFFFu) * k + static_cast<double>(b >> 32) * k;
        return (s - 2.0) * 1.7320508075688772;
    }

  private:
    uint64_t state_;
};

}  // namespace vcam
