// Floating-point results must not depend on the machine: the board (AArch64) and the desktop
// (x86-64) round every multiply and every add separately. A compiler that fuses a * b + c into one
// multiply-add (GCC does on AArch64 unless told not to) rounds once, and thresholds on computed
// values then flip between the desktop tests and the board.
#include <gtest/gtest.h>

#include <cmath>

namespace {

template <typename T>
T mul_add(T a, T b, T c) {
    return a * b + c;
}

TEST(FloatRounding, ProductIsRoundedBeforeTheAdd) {
    // (1 + 2^-13)^2 = 1 + 2^-12 + 2^-26: the 2^-26 is lost when the product is rounded to float.
    // Inputs through volatile so that the compiler cannot fold the expressions at build time.
    volatile float a = 1.0f + std::ldexp(1.0f, -13);
    volatile float c = -(1.0f + std::ldexp(1.0f, -12));
    EXPECT_EQ(mul_add<float>(a, a, c), 0.0f) << "a fused multiply-add kept the product's low bits";
    // (1 + 2^-27)^2 = 1 + 2^-26 + 2^-54: the same for double.
    volatile double ad = 1.0 + std::ldexp(1.0, -27);
    volatile double cd = -(1.0 + std::ldexp(1.0, -26));
    EXPECT_EQ(mul_add<double>(ad, ad, cd), 0.0) << "a fused multiply-add in double";
}

}  // namespace
