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

    // Standard normal (Box-Muller, one value per call; the pair's second half is kept).
    double normal() {
        if (have_spare_) {
            have_spare_ = false;
            return spare_;
        }
        const double u = uniform();
        const double v = uniform();
        const double m = std::sqrt(-2.0 * std::log(u));
        spare_ = m * std::sin(6.283185307179586 * v);
        have_spare_ = true;
        return m * std::cos(6.283185307179586 * v);
    }

  private:
    uint64_t state_;
    double spare_ = 0.0;
    bool have_spare_ = false;
};

}  // namespace vcam
