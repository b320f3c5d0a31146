#include "common/portable_math.h"

#include <cmath>
#include <limits>

namespace ostrel {

namespace {

// ln 2 in two parts: the first has its low 32 bits zero, so k * kLn2High is
// exact for every |k| below 2^20 (the reduction of exp, the exponent of log).
constexpr double kLn2High = 0x1.62e42fefa0000p-1;
constexpr double kLn2Low = 0x1.cf79abc9e3b3ap-40;
constexpr double kInverseLn2 = 0x1.71547652b82fep+0;

}  // namespace

double portable_exp(double x) {
    if (std::isnan(x)) return x;
    if (x > 709.782712893384) return std::numeric_limits<double>::infinity();
    if (x < -745.1332191019412) return 0.0;
    // x = k ln 2 + r with |r| <= ln 2 / 2 (a little more from rounding).
    const double k = std::floor(x * kInverseLn2 + 0.5);
    const double r = (x - k * kLn2High) - k * kLn2Low;
    // e^r by its Taylor series to r^17 / 17!: the first term left out is
    // below 2^-60 of the sum for |r| <= 0.35. Horner's rule from the top.
    double sum = 1.0;
    for (int n = 17; n >= 1; --n) sum = 1.0 + sum * r / n;
    // ldexp is exact (it only changes the exponent; below the smallest
    // normal double it rounds as every IEEE machine does).
    return std::ldexp(sum, static_cast<int>(k));
}

double portable_log(double x) {
    if (std::isnan(x) || x < 0.0) return std::numeric_limits<double>::quiet_NaN();
    if (x == 0.0) return -std::numeric_limits<double>::infinity();
    if (std::isinf(x)) return x;
    // x = m 2^e with m in [sqrt(1/2), sqrt(2)) (frexp and ldexp are exact).
    int e = 0;
    double m = std::frexp(x, &e);  // [1/2, 1)
    if (m < 0x1.6a09e667f3bcdp-1) {
        m *= 2.0;
        --e;
    }
    // ln m = 2 atanh(s), s = (m - 1) / (m + 1), |s| <= 0.172: the series
    // s + s^3/3 + s^5/5 ... to s^29 / 29, whose next term is below 2^-60
    // of the sum.
    const double s = (m - 1.0) / (m + 1.0);
    const double s2 = s * s;
    double series = 0.0;
    for (int n = 29; n >= 3; n -= 2) series = (series + 1.0 / n) * s2;
    const double log_m = 2.0 * s + 2.0 * s * series;
    return (e * kLn2High + (e * kLn2Low + log_m));
}

double portable_erfc(double x) {
    if (std::isnan(x)) return x;
    const double z = std::fabs(x);
    // Beyond 6, erfc is below 2.2e-17.
    if (z >= 6.0) return x > 0.0 ? 0.0 : 2.0;
    // erf z = 2 / sqrt(pi) e^(-z^2) sum over n of 2^n z^(2n+1) / (1 3 5 ... (2n+1)):
    // every term positive, so the sum loses nothing to cancellation; the
    // terms rise up to n near z^2 and then fall faster than geometrically.
    const double z2 = z * z;
    double term = z;
    double sum = z;
    for (int n = 1; n < 400; ++n) {
        term = term * (2.0 * z2) / (2 * n + 1);
        sum += term;
        if (term < sum * 0x1p-60) break;
    }
    const double erf = 1.1283791670955126 * portable_exp(-z2) * sum;
    return x > 0.0 ? 1.0 - erf : 1.0 + erf;
}

}  // namespace ostrel
