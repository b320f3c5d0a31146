// Fixed-point resampling (coefficients, shortcuts, enlargement, general
// reduction) and conversion of 32-bit planes to bytes.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "acf/acf_helper.h"
#include "acf/fixed_point_factor.h"
#include "acf/resample_kernel.h"
#include "support/stdout_capture.h"

namespace {

using ostrel::chn_image;
using ostrel::chn_image32;
using ostrel::chn_image8;
using ostrel::acf_helper::convert_factor_q14;
using ostrel::acf_helper::convert_norm_byte_fix;
using ostrel::acf_helper::feature_resample_fix;
using ostrel::acf_helper::image_resample_fix;
using ostrel::acf_helper::resample_coef;
using ostrel::acf_helper::resample_coefs;
using ostrel::acf_helper::resample_factor_q13;
using ostrel::acf_helper::truncate_saturated;

constexpr float kGradientFactor = 0.005667f;

template <typename T>
chn_image<T> image_of(int32_t channels, int32_t width, int32_t height, std::vector<int32_t> values) {
    chn_image<T> image(channels, width, height);
    EXPECT_EQ(values.size(), image.data.size());
    std::copy(values.begin(), values.end(), image.data.begin());
    return image;
}

template <typename T>
chn_image<T> constant(int32_t channels, int32_t width, int32_t height, T value) {
    chn_image<T> image(channels, width, height);
    std::fill(image.data.begin(), image.data.end(), value);
    return image;
}

std::vector<int32_t> bytes(const chn_image8 &image) {
    return std::vector<int32_t>(image.data.begin(), image.data.end());
}

// --- a literal second reading of the kernel ---------------------------------
//
// Written case by case as the rule states it (group-of-four indexing when a
// reduction has at most four sources per target, per-target accumulators
// beyond; vertical sums zeroed and added), with 64-bit arithmetic cast back
// to 32 bits for the wrap-around. The library's loops are organised
// differently (per-target ranges, one accumulator form); this checks that
// they give the same bytes.

int32_t w32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v))); }

template <typename T>
chn_image8 literal_resample(const chn_image<T> &src, int32_t dw, int32_t dh, float r) {
    const int32_t sw = src.width;
    const int32_t sh = src.height;
    const int32_t r13 = resample_factor_q13(r);
    const int32_t rq = w32(static_cast<int64_t>(r13) << 14) >> 13;
    const resample_coefs v = resample_coef(sh, dh, 0);
    resample_coefs h = resample_coef(sw, dw, 4);
    for (auto &w : h.weight) {
        w = w32(static_cast<int64_t>(r13) * w) >> 13;
    }
    std::vector<std::vector<int32_t>> vertical_entries(dh);
    for (int32_t k = 0; k < v.size(); ++k) {
        vertical_entries[v.dst_index[k]].push_back(k);
    }
    chn_image8 out(src.channels, dw, dh);
    std::vector<int32_t> c(sw);
    for (int32_t ch = 0; ch < src.channels; ++ch) {
        auto a = [&](int32_t row, int32_t x) -> int64_t { return src.at(ch, row, x); };
        for (int32_t y = 0; y < dh; ++y) {
            for (int32_t x = 0; x < sw; ++x) {
                if (sh == 2 * dh) {
                    c[x] = w32(a(2 * y, x) + a(2 * y + 1, x)) >> 1;
                } else if (sh == 3 * dh) {
                    c[x] = w32((a(3 * y, x) + a(3 * y + 1, x) + a(3 * y + 2, x)) * 342) >> 10;
                } else if (sh == 4 * dh) {
                    c[x] = w32(a(4 * y, x) + a(4 * y + 1, x) + a(4 * y + 2, x) + a(4 * y + 3, x)) >> 2;
                } else if (sh <= dh) {
                    const int32_t i = v.src_index[y];
                    const int64_t wt = v.weight[y];
                    if (y < v.bd0 || y >= dh - v.bd1) {
                        c[x] = static_cast<int32_t>(a(i, x));
                    } else {
                        c[x] = w32(a(i, x) * wt + a(i + 1, x) * (16384 - wt)) >> 14;
                    }
                } else {
                    const std::vector<int32_t> &entries = vertical_entries[y];
                    int64_t sum = 0;
                    if (entries.size() > 4) {
                        int32_t acc = 0;
                        for (int32_t k : entries) {
                            acc = w32(static_cast<int64_t>(acc) + a(v.src_index[k], x) * v.weight[k]);
                        }
                        sum = acc;
                    } else {
                        for (int32_t k : entries) {
                            sum += a(v.src_index[k], x) * v.weight[k];
                        }
                    }
                    c[x] = w32(sum) >> 14;
                }
            }
            std::vector<int32_t> row(dw);
            if (sw == 2 * dw) {
                for (int32_t x = 0; x < dw; ++x) {
                    row[x] = w32((static_cast<int64_t>(c[2 * x]) + c[2 * x + 1]) * r13) >> 14;
                }
            } else if (sw == 3 * dw) {
                for (int32_t x = 0; x < dw; ++x) {
                    const int32_t third =
                        w32((static_cast<int64_t>(c[3 * x]) + c[3 * x + 1] + c[3 * x + 2]) * 342) >> 10;
                    row[x] = w32(static_cast<int64_t>(third) * r13) >> 13;
                }
            } else if (sw == 4 * dw) {
                for (int32_t x = 0; x < dw; ++x) {
                    row[x] =
                        w32((static_cast<int64_t>(c[4 * x]) + c[4 * x + 1] + c[4 * x + 2] + c[4 * x + 3]) * r13) >> 15;
                }
            } else if (sw <= dw) {
                for (int32_t x = 0; x < dw; ++x) {
                    const int32_t i = h.src_index[x];
                    const int64_t wt = h.weight[x];
                    if (x < h.bd0 || x >= dw - h.bd1) {
                        row[x] = w32(c[i] * wt) >> 14;
                    } else {
                        row[x] = w32(c[i] * wt + c[i + 1] * (rq - wt)) >> 14;
                    }
                }
            } else if (h.bd0 <= 4) {
                for (int32_t x = 0; x < dw; ++x) {
                    int64_t sum = 0;
                    for (int32_t k = 4 * x; k < 4 * x + h.bd0; ++k) {
                        sum += static_cast<int64_t>(c[h.src_index[k]]) * h.weight[k];
                    }
                    row[x] = w32(sum) >> 14;
                }
            } else {
                std::vector<int32_t> acc(dw, 0);
                for (int32_t k = 0; k < h.size(); ++k) {
                    acc[h.dst_index[k]] =
                        w32(acc[h.dst_index[k]] + static_cast<int64_t>(c[h.src_index[k]]) * h.weight[k]);
                }
                for (int32_t x = 0; x < dw; ++x) {
                    row[x] = acc[x] >> 14;
                }
            }
            for (int32_t x = 0; x < dw; ++x) {
                out.at(ch, y, x) = static_cast<uint8_t>(std::clamp(row[x], 0, 255));
            }
        }
    }
    return out;
}

chn_image8 random_image(int32_t channels, int32_t width, int32_t height, uint32_t seed) {
    chn_image8 image(channels, width, height);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    for (auto &v : image.data) {
        v = static_cast<uint8_t>(byte(rng));
    }
    return image;
}

chn_image32 random_planes(int32_t channels, int32_t width, int32_t height, int32_t lo, int32_t hi, uint32_t seed) {
    chn_image32 image(channels, width, height);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int32_t> value(lo, hi);
    for (auto &v : image.data) {
        v = value(rng);
    }
    return image;
}

}  // namespace

// --- factors ------------------------------------------------------------------

// r13' = trunc(trunc(r * 8192) / 1.000001f): 8191 for 1.0 and 45 for 0.005667
// (r13 = 46 before the division).
TEST(FixedPointFactor, ResampleFactor) {
    EXPECT_EQ(resample_factor_q13(1.0f), 8191);
    EXPECT_EQ(resample_factor_q13(kGradientFactor), 45);
    EXPECT_EQ(resample_factor_q13(0.0f), 0);
    EXPECT_EQ(resample_factor_q13(0.5f), 4095);
}

// q = trunc(r * 16384): 16384 for 1.0 and 92 for 0.005667.
TEST(FixedPointFactor, ConvertFactor) {
    EXPECT_EQ(convert_factor_q14(1.0f), 16384);
    EXPECT_EQ(convert_factor_q14(kGradientFactor), 92);
}

// The factors' truncation (also the extractor's window sizes): toward zero,
// saturated at both ends of the int32 range, NaN taken as 0.
TEST(FixedPointFactor, TruncationSaturates) {
    EXPECT_EQ(truncate_saturated(2.9f), 2);
    EXPECT_EQ(truncate_saturated(-2.9f), -2);
    EXPECT_EQ(truncate_saturated(3.0e9f), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(truncate_saturated(-3.0e9f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(truncate_saturated(std::numeric_limits<float>::infinity()), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(truncate_saturated(std::numeric_limits<float>::quiet_NaN()), 0);
}

// --- coefficient lists --------------------------------------------------------

// Enlargement 2 -> 4: target centres at source positions -0.25, 0.25, 0.75
// and 1.25; the outer two take one source with the full weight (bd0 = bd1 =
// 1), the inner two the left source's share. No padding for enlargement.
TEST(ResampleCoef, EnlargementTwoToFour) {
    const resample_coefs c = resample_coef(2, 4, 4);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 0, 0, 1}));
    EXPECT_EQ(c.dst_index, (std::vector<int32_t>{0, 1, 2, 3}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{16384, 12288, 4096, 16384}));
    EXPECT_EQ(c.bd0, 1);
    EXPECT_EQ(c.bd1, 1);
    EXPECT_EQ(c.size(), 4);
}

// Equal size: every target its own source with weight 1.0; the last one
// counts as the end border.
TEST(ResampleCoef, EqualSize) {
    const resample_coefs c = resample_coef(3, 3, 0);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{16384, 16384, 16384}));
    EXPECT_EQ(c.bd0, 0);
    EXPECT_EQ(c.bd1, 1);
}

// A single source enlarged to 3: t = 5461, centres at -5462, -1 and 5460
// (Q14): two targets before the source centre (bd0 = 2), all three at or
// past the last source (bd1 = 3).
TEST(ResampleCoef, EnlargementFromOneSource) {
    const resample_coefs c = resample_coef(1, 3, 0);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 0, 0}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{16384, 16384, 16384}));
    EXPECT_EQ(c.bd0, 2);
    EXPECT_EQ(c.bd1, 3);
}

// Reduction 4 -> 3: s = 12288, t = 21845. Target 0 covers [0, 1.333):
// source 0 fully (12288), source 1 by 5461/16384 (4095). Target 1 covers
// [1.333, 2.667): 8192 and 8191. Target 2 covers [2.667, 4): 4096 and 12288,
// source 4 gets a negative share and is dropped. Each padded to 4 entries
// with weight 0 repeating the previous source; bd0 = 2.
TEST(ResampleCoef, ReductionFourToThreePaddedToFour) {
    const resample_coefs c = resample_coef(4, 3, 4);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3}));
    EXPECT_EQ(c.dst_index, (std::vector<int32_t>{0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{12288, 4095, 0, 0, 8192, 8191, 0, 0, 4096, 12288, 0, 0}));
    EXPECT_EQ(c.bd0, 2);
    EXPECT_EQ(c.bd1, 0);
}

// The vertical list (p = 0) holds only the real entries.
TEST(ResampleCoef, ReductionWithoutPadding) {
    const resample_coefs c = resample_coef(4, 3, 0);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 1, 1, 2, 2, 3}));
    EXPECT_EQ(c.dst_index, (std::vector<int32_t>{0, 0, 1, 1, 2, 2}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{12288, 4095, 8192, 8191, 4096, 12288}));
    EXPECT_EQ(c.bd0, 2);
}

// Reduction 6 -> 5, target 4: its end 98300 lies 4 below source 6's start,
// so the tolerance makes the loop reach source 6 (= the length), whose
// negative share is dropped, and source 5 takes a full s = 13653. With
// source 4's 2733 the sum 16386 exceeds 1.0 and both are renormalised:
// (w << 14) / 16386 gives 2732 and 13651.
TEST(ResampleCoef, ReductionRenormalisesAnOverfullTarget) {
    const resample_coefs c = resample_coef(6, 5, 0);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 1, 1, 2, 2, 3, 3, 4, 4, 5}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{13653, 2729, 10923, 5459, 8193, 8189, 5463, 10919, 2732, 13651}));
    EXPECT_EQ(c.bd0, 2);
}

// Reduction 11 -> 2: s = 2978; each target takes five full sources and the
// shared source 5 by half (1489): six entries, bd0 = 6, no padding needed.
TEST(ResampleCoef, ReductionWithMoreThanFourSources) {
    const resample_coefs c = resample_coef(11, 2, 4);
    EXPECT_EQ(c.src_index, (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(c.dst_index, (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(c.weight, (std::vector<int32_t>{2978, 2978, 2978, 2978, 2978, 1489, 1489, 2978, 2978, 2978, 2978, 2978}));
    EXPECT_EQ(c.bd0, 6);
}

// Strong reductions drop every share of 163 or less: 1000 -> 5 has s = 81,
// so no source survives, and the padding starts from source 0.
TEST(ResampleCoef, SliversAreDropped) {
    const resample_coefs c = resample_coef(1000, 5, 4);
    EXPECT_EQ(c.bd0, 0);
    EXPECT_EQ(c.src_index, std::vector<int32_t>(20, 0));
    EXPECT_EQ(c.weight, std::vector<int32_t>(20, 0));
}

// Sources never run past the line, and each target's weights sum to at most
// 1.0, for the picture sizes and a spread of others.
TEST(ResampleCoef, IndicesInRangeAndWeightsBounded) {
    const std::vector<std::pair<int32_t, int32_t>> sizes = {{1080, 136}, {1920, 242}, {480, 136}, {640, 242}, {7, 3},
                                                            {100, 99},   {3, 100},    {242, 121}, {97, 13}};
    for (const auto &[a, b] : sizes) {
        for (int32_t p : {0, 4}) {
            const resample_coefs c = resample_coef(a, b, p);
            std::vector<int32_t> sum(b, 0);
            for (int32_t k = 0; k < c.size(); ++k) {
                ASSERT_GE(c.src_index[k], 0);
                ASSERT_LT(c.src_index[k], a) << a << "->" << b;
                ASSERT_GE(c.dst_index[k], 0);
                ASSERT_LT(c.dst_index[k], b);
                if (k > 0) {
                    ASSERT_GE(c.dst_index[k], c.dst_index[k - 1]);
                }
                sum[c.dst_index[k]] += c.weight[k];
            }
            for (int32_t j = 0; j < b; ++j) {
                ASSERT_LE(sum[j], 16384) << a << "->" << b << " target " << j;
            }
        }
    }
}

// The picture reductions take more than four sources per target
// horizontally for 1080 -> 136 and 480 -> 136 (per-target accumulators).
TEST(ResampleCoef, PictureReductionsUseAccumulators) {
    EXPECT_EQ(resample_coef(1080, 136, 4).bd0, 9);
    EXPECT_EQ(resample_coef(480, 136, 4).bd0, 5);
    EXPECT_EQ(resample_coef(640, 242, 4).bd0, 4);
}

// A length of 0 has no coefficients.
TEST(ResampleCoef, EmptyLengthGivesNoEntries) {
    EXPECT_EQ(resample_coef(0, 4, 4).size(), 0);
    EXPECT_EQ(resample_coef(4, 0, 4).size(), 0);
}

// --- resampling kernel ----------------------------------------------------------

// A constant 255 image halved with r = 1.0 gives 254 everywhere:
// ((255 + 255) * 8191) >> 14.
TEST(ImageResampleFix, HalvingConstant255Gives254) {
    const chn_image8 out = image_resample_fix(constant<uint8_t>(3, 8, 6, 255), 4, 3, 1.0f);
    EXPECT_EQ(out.channels, 3);
    EXPECT_EQ(out.width, 4);
    EXPECT_EQ(out.height, 3);
    EXPECT_EQ(bytes(out), std::vector<int32_t>(36, 254));
}

// 3x3 -> 1x1 of 255: the vertical shortcut gives (765 * 342) >> 10 = 255, the
// horizontal ((765 * 342) >> 10) * 8191 >> 13 = 254. (Had the vertical pass
// given 254, the result would be 253.)
TEST(ImageResampleFix, ThirdOfConstant255) {
    EXPECT_EQ(bytes(image_resample_fix(constant<uint8_t>(1, 3, 3, 255), 1, 1, 1.0f)), std::vector<int32_t>{254});
    EXPECT_EQ(bytes(feature_resample_fix(constant<int32_t>(1, 3, 3, 255), 1, 1, 1.0f)), std::vector<int32_t>{254});
}

// The 3:1 shortcut uses 342/1024 (slightly above one third), not the
// general weights.
TEST(ImageResampleFix, ThirdShortcutArithmetic) {
    // Vertical 3 -> 1 then horizontal 2 -> 1: ((C0 + C1) * 8191) >> 14.
    const chn_image8 image = image_of<uint8_t>(1, 2, 3, {100, 200, 0, 0, 0, 0});
    // C = (100 * 342) >> 10 = 33 and (200 * 342) >> 10 = 66; (99 * 8191) >> 14 = 49.
    EXPECT_EQ(bytes(image_resample_fix(image, 1, 1, 1.0f)), std::vector<int32_t>{49});
}

// The 4:1 shortcuts: vertical sum >> 2, horizontal (sum * r13') >> 15.
TEST(ImageResampleFix, QuarterShortcuts) {
    // 4 wide, 4 high; column 0 sums to 101 -> 25, column 1 to 1 -> 0.
    const chn_image8 image = image_of<uint8_t>(1, 4, 4,
                                               {10, 0, 255, 7,  //
                                                20, 0, 255, 7,  //
                                                30, 0, 255, 7,  //
                                                41, 1, 255, 8});
    // C = 25, 0, 255, 7; (287 * 8191) >> 15 = 71.
    EXPECT_EQ(bytes(image_resample_fix(image, 1, 1, 1.0f)), std::vector<int32_t>{71});
}

// The 2:1 shortcuts: vertical (A0 + A1) >> 1 truncates before the
// horizontal ((C0 + C1) * r13') >> 14.
TEST(ImageResampleFix, HalfShortcutsTruncateInOrder) {
    const chn_image8 image = image_of<uint8_t>(1, 2, 2,
                                               {1, 2,  //
                                                2, 3});
    // C = 1, 2; (3 * 8191) >> 14 = 1.
    EXPECT_EQ(bytes(image_resample_fix(image, 1, 1, 1.0f)), std::vector<int32_t>{1});
    const chn_image8 bright = image_of<uint8_t>(1, 2, 2, {201, 100, 200, 100});
    // C = 200, 100; (300 * 8191) >> 14 = 149.
    EXPECT_EQ(bytes(image_resample_fix(bright, 1, 1, 1.0f)), std::vector<int32_t>{149});
}

// Horizontal enlargement 2 -> 4 with r = 1.0: the outer targets scale their
// border value by 16382 (16384 * 8191 >> 13), the inner ones blend
// neighbours with weights 12286 + 4096 and 4095 + 12287, summing to rq = 16382.
TEST(ImageResampleFix, HorizontalEnlargementTwoToFour) {
    const chn_image8 image = image_of<uint8_t>(1, 2, 1, {100, 200});
    // (100 * 16382) >> 14 = 99; (100 * 12286 + 200 * 4096) >> 14 = 124;
    // (100 * 4095 + 200 * 12287) >> 14 = 174; (200 * 16382) >> 14 = 199.
    EXPECT_EQ(bytes(image_resample_fix(image, 4, 1, 1.0f)), (std::vector<int32_t>{99, 124, 174, 199}));
}

// Vertical enlargement 2 -> 4: border rows copy their source row, inner rows
// blend with weights summing to 16384 (no factor in this pass); the 2 -> 1
// horizontal halving then applies the factor.
TEST(ImageResampleFix, VerticalEnlargementTwoToFour) {
    const chn_image8 image = image_of<uint8_t>(1, 2, 2,
                                               {100, 100,  //
                                                200, 200});
    // C = 100, (100 * 12288 + 200 * 4096) >> 14 = 125, 175, 200;
    // then (2C * 8191) >> 14 = 99, 124, 174, 199.
    EXPECT_EQ(bytes(image_resample_fix(image, 1, 4, 1.0f)), (std::vector<int32_t>{99, 124, 174, 199}));
}

// Equal size still passes through the factor: 255 becomes 254.
TEST(ImageResampleFix, EqualSizeAppliesTheFactor) {
    const chn_image8 out = image_resample_fix(constant<uint8_t>(1, 5, 3, 255), 5, 3, 1.0f);
    EXPECT_EQ(bytes(out), std::vector<int32_t>(15, 254));
    const chn_image8 zero = image_resample_fix(constant<uint8_t>(1, 5, 3, 0), 5, 3, 1.0f);
    EXPECT_EQ(bytes(zero), std::vector<int32_t>(15, 0));
}

// General horizontal reduction 4 -> 3 (two sources per target): weights
// 12288, 4095 | 8192, 8191 | 4096, 12288 scaled by 8191 >> 13 to 12286, 4094
// | 8191, 8190 | 4095, 12286.
TEST(ImageResampleFix, HorizontalGeneralReduction) {
    const chn_image8 image = image_of<uint8_t>(1, 4, 1, {100, 50, 200, 10});
    // (100 * 12286 + 50 * 4094) >> 14 = 87; (50 * 8191 + 200 * 8190) >> 14 = 124;
    // (200 * 4095 + 10 * 12286) >> 14 = 57.
    EXPECT_EQ(bytes(image_resample_fix(image, 3, 1, 1.0f)), (std::vector<int32_t>{87, 124, 57}));
}

// General vertical reduction 4 -> 3 (no factor in this pass), then halving.
TEST(ImageResampleFix, VerticalGeneralReduction) {
    const chn_image8 image = image_of<uint8_t>(1, 2, 4,
                                               {100, 100,  //
                                                50, 50,    //
                                                200, 200,  //
                                                10, 10});
    // C = (100 * 12288 + 50 * 4095) >> 14 = 87, (50 * 8192 + 200 * 8191) >> 14
    // = 124, (200 * 4096 + 10 * 12288) >> 14 = 57; then (2C * 8191) >> 14.
    EXPECT_EQ(bytes(image_resample_fix(image, 1, 3, 1.0f)), (std::vector<int32_t>{86, 123, 56}));
}

// More than four sources per target (11 -> 2): per-target accumulators.
// Scaled weights 2977 (full) and 1488 (shared source 5).
TEST(ImageResampleFix, ReductionWithAccumulators) {
    const chn_image8 image = image_of<uint8_t>(1, 11, 1, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110});
    // (150 * 2977 + 60 * 1488) >> 14 = 32; (60 * 1488 + 450 * 2977) >> 14 = 87.
    EXPECT_EQ(bytes(image_resample_fix(image, 2, 1, 1.0f)), (std::vector<int32_t>{32, 87}));
}

// The renormalised target of 6 -> 5 (2731 and 13649 after scaling).
TEST(ImageResampleFix, RenormalisedTarget) {
    const chn_image8 image = image_of<uint8_t>(1, 6, 1, {10, 250, 30, 200, 60, 90});
    const chn_image8 out = image_resample_fix(image, 5, 1, 1.0f);
    EXPECT_EQ(out.data[0], 49);  // (10 * 13651 + 250 * 2728) >> 14
    EXPECT_EQ(out.data[4], 84);  // (60 * 2731 + 90 * 13649) >> 14
}

// Reductions by 100 or more keep no source at all (every share is 163 or
// less, bd0 = 0): the targets are 0.
TEST(ImageResampleFix, NoSurvivingSourceGivesZero) {
    // 300 -> 2 has s = 109.
    const chn_image8 image = constant<uint8_t>(1, 300, 2, 200);
    EXPECT_EQ(resample_coef(300, 2, 4).bd0, 0);
    EXPECT_EQ(bytes(image_resample_fix(image, 2, 2, 1.0f)), std::vector<int32_t>(4, 0));
}

// Negative factors, and values past 255, are clamped to 0..255.
TEST(FeatureResampleFix, ResultsAreClampedToBytes) {
    const chn_image32 planes = image_of<int32_t>(1, 2, 2, {-100, -100, -100, -100});
    EXPECT_EQ(bytes(feature_resample_fix(planes, 1, 1, 1.0f)), std::vector<int32_t>{0});
    const chn_image32 big = image_of<int32_t>(1, 2, 2, {100000, 100000, 100000, 100000});
    EXPECT_EQ(bytes(feature_resample_fix(big, 1, 1, 1.0f)), std::vector<int32_t>{255});
}

// The gradient factor 0.005667 works with r13' = 45 (not 46): a 2x2 block of
// 5000 gives (10000 * 45) >> 14 = 27 (46 would give 28).
TEST(FeatureResampleFix, GradientFactorUses45) {
    EXPECT_EQ(bytes(feature_resample_fix(constant<int32_t>(1, 2, 2, 5000), 1, 1, kGradientFactor)),
              std::vector<int32_t>{27});
}

// The shrink-2 formula on 32-bit planes: clamp(((A00 + A10) >> 1) + ((A01 +
// A11) >> 1)) * r13' >> 14 per cell, channel by channel.
TEST(FeatureResampleFix, ShrinkTwoFormula) {
    const chn_image32 planes = random_planes(2, 6, 4, 0, 520200, 17);
    const chn_image8 out = feature_resample_fix(planes, 3, 2, kGradientFactor);
    ASSERT_EQ(out.channels, 2);
    for (int32_t c = 0; c < 2; ++c) {
        for (int32_t y = 0; y < 2; ++y) {
            for (int32_t x = 0; x < 3; ++x) {
                const int32_t left = (planes.at(c, 2 * y, 2 * x) + planes.at(c, 2 * y + 1, 2 * x)) >> 1;
                const int32_t right = (planes.at(c, 2 * y, 2 * x + 1) + planes.at(c, 2 * y + 1, 2 * x + 1)) >> 1;
                const int32_t expected = std::clamp(((left + right) * 45) >> 14, 0, 255);
                EXPECT_EQ(out.at(c, y, x), expected) << c << "," << y << "," << x;
            }
        }
    }
}

// Target side below 1: the failure line (target width printed first, after
// the word "height") and an empty record.
TEST(ResampleFailure, TargetSizeZero) {
    const chn_image8 image = constant<uint8_t>(3, 4, 4, 9);
    chn_image8 out(1, 1, 1);
    std::string log = ostrel_test::capture_stdout([&] { out = image_resample_fix(image, 0, 5, 1.0f); });
    EXPECT_EQ(log, "[acf_helper::image_resample_fix] downsampling factor too small (height: 0, width: 5) \n\n");
    EXPECT_EQ(out.channels, 0);
    EXPECT_EQ(out.width, 0);
    EXPECT_EQ(out.height, 0);
    EXPECT_TRUE(out.data.empty());

    log = ostrel_test::capture_stdout([&] { out = image_resample_fix(image, 5, 0, 1.0f); });
    EXPECT_EQ(log, "[acf_helper::image_resample_fix] downsampling factor too small (height: 5, width: 0) \n\n");
    EXPECT_TRUE(out.data.empty());

    const chn_image32 planes = constant<int32_t>(1, 4, 4, 9);
    log = ostrel_test::capture_stdout([&] { out = feature_resample_fix(planes, 2, -1, kGradientFactor); });
    EXPECT_EQ(log, "[acf_helper::feature_resample_fix] downsampling factor too small (height: 2, width: -1) \n\n");
    EXPECT_EQ(out.channels, 0);
    EXPECT_TRUE(out.data.empty());

    log = ostrel_test::capture_stdout([&] { out = convert_norm_byte_fix(planes, 0, 4, 1.0f); });
    EXPECT_EQ(log, "[acf_helper::convert_norm_byte_fix] downsampling factor too small (height: 0, width: 4) \n\n");
    EXPECT_EQ(out.channels, 0);
    EXPECT_TRUE(out.data.empty());
}

// An empty source (no pixels) gives a zero target of the requested size
// instead of dividing by zero.
TEST(ResampleFailure, EmptySourceGivesZeroTarget) {
    const chn_image8 empty(3, 0, 0);
    const chn_image8 out = image_resample_fix(empty, 4, 2, 1.0f);
    EXPECT_EQ(out.channels, 3);
    EXPECT_EQ(bytes(out), std::vector<int32_t>(24, 0));
}

// The kernel's loops give the bytes of the literal rule, for the picture
// reductions (record 1080 x 1920 and 480 x 640 to 136 x 242), the shrink-2
// halving, enlargements and odd reductions, on random images.
TEST(ImageResampleFix, MatchesTheLiteralRuleOnRandomImages) {
    struct resize_case {
        int32_t sw, sh, dw, dh;
    };
    const std::vector<resize_case> cases = {
        {1080, 1920, 136, 242}, {480, 640, 136, 242}, {136, 242, 68, 121}, {37, 23, 100, 50}, {40, 30, 13, 10},
        {11, 90, 2, 30},        {30, 33, 7, 8},       {9, 12, 3, 3},       {6, 17, 5, 17},    {64, 48, 97, 11},
        {5, 5, 1, 1},           {1000, 7, 5, 7},      {2, 2, 4, 4}};
    uint32_t seed = 1;
    for (const resize_case &c : cases) {
        const chn_image8 image = random_image(3, c.sw, c.sh, seed++);
        const chn_image8 out = image_resample_fix(image, c.dw, c.dh, 1.0f);
        const chn_image8 expected = literal_resample(image, c.dw, c.dh, 1.0f);
        ASSERT_EQ(out.channels, 3);
        ASSERT_EQ(out.width, c.dw);
        ASSERT_EQ(out.height, c.dh);
        EXPECT_EQ(out.data, expected.data) << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh;
    }
}

// The same for 32-bit planes with both factors, including values large
// enough for the 32-bit arithmetic to wrap.
TEST(FeatureResampleFix, MatchesTheLiteralRuleOnRandomPlanes) {
    struct resize_case {
        int32_t sw, sh, dw, dh;
    };
    const std::vector<resize_case> cases = {{136, 242, 68, 121}, {45, 33, 15, 11}, {40, 40, 10, 10},
                                            {50, 70, 13, 9},     {8, 6, 20, 9},    {23, 19, 23, 19}};
    uint32_t seed = 100;
    for (const resize_case &c : cases) {
        for (float r : {1.0f, kGradientFactor}) {
            for (const auto &range : {std::pair<int32_t, int32_t>{0, 520200}, {-2000000000, 2000000000}}) {
                const chn_image32 planes = random_planes(2, c.sw, c.sh, range.first, range.second, seed++);
                const chn_image8 out = feature_resample_fix(planes, c.dw, c.dh, r);
                const chn_image8 expected = literal_resample(planes, c.dw, c.dh, r);
                EXPECT_EQ(out.data, expected.data)
                    << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh << " r " << r;
            }
        }
    }
}

// --- byte conversion -------------------------------------------------------------

// clamp((v * 92) >> 14, 0, 255) for 0.005667: 2849 -> 15, negatives -> 0,
// 45412 -> 254, 45413 and above -> 255.
TEST(ConvertNormByteFix, GradientFactorWorkedValues) {
    const chn_image32 planes = image_of<int32_t>(2, 3, 1, {2849, -1, -100000, 45412, 45413, 1000000});
    const chn_image8 out = convert_norm_byte_fix(planes, 3, 1, kGradientFactor);
    EXPECT_EQ(out.channels, 2);
    EXPECT_EQ(out.width, 3);
    EXPECT_EQ(out.height, 1);
    EXPECT_EQ(bytes(out), (std::vector<int32_t>{15, 0, 0, 254, 255, 255}));
}

// Factor 1.0 keeps bytes as they are and clamps the rest.
TEST(ConvertNormByteFix, UnitFactorKeepsBytes) {
    const chn_image32 planes = image_of<int32_t>(1, 4, 1, {0, 17, 255, 256});
    EXPECT_EQ(bytes(convert_norm_byte_fix(planes, 4, 1, 1.0f)), (std::vector<int32_t>{0, 17, 255, 255}));
}

// The product wraps in 32 bits before the shift: 46684427 * 92 =
// 4294967284 wraps to -12, giving 0 rather than 255.
TEST(ConvertNormByteFix, ProductWrapsInThirtyTwoBits) {
    const chn_image32 planes = image_of<int32_t>(1, 1, 1, {46684427});
    EXPECT_EQ(bytes(convert_norm_byte_fix(planes, 1, 1, kGradientFactor)), std::vector<int32_t>{0});
}

// A buffer shorter than the given extents: the missing values stay 0.
TEST(ConvertNormByteFix, ShortSourceLeavesZeros) {
    const chn_image32 planes = image_of<int32_t>(1, 2, 1, {40000, 40000});
    const chn_image8 out = convert_norm_byte_fix(planes, 2, 2, 1.0f);
    EXPECT_EQ(bytes(out), (std::vector<int32_t>{255, 255, 0, 0}));
}

// --- the SSE2 loops for 8-bit images ---------------------------------------------

// The faster loops of image_resample_fix give the reference loops' bytes on
// random images: every case of each pass, widths that leave a tail of less
// than one register, factors of 1.0, 0.005667 and 0.5, and factors whose
// scaled weights leave 16 bits (3.0, -1.0), which fall back to the
// reference loops.
TEST(ImageResampleFix, FasterLoopsGiveTheReferenceBytes) {
    using ostrel::acf_helper::resample_detail::image_resample_fix_reference;
    struct resize_case {
        int32_t sw, sh, dw, dh;
    };
    const std::vector<resize_case> cases = {
        {1080, 1920, 136, 242}, {480, 640, 136, 242}, {136, 242, 68, 121}, {272, 484, 136, 242}, {405, 726, 135, 242},
        {544, 968, 136, 242},   {37, 23, 100, 50},    {40, 30, 13, 10},    {11, 90, 2, 30},      {30, 33, 7, 8},
        {9, 12, 3, 3},          {6, 17, 5, 17},       {64, 48, 97, 11},    {5, 5, 1, 1},         {1000, 7, 5, 7},
        {2, 2, 4, 4},           {17, 1, 3, 1},        {1, 17, 1, 3},       {1, 1, 9, 9},         {31, 47, 31, 47},
        {33, 100, 15, 2},       {300, 3, 2, 1},       {250, 250, 249, 251}};
    uint32_t seed = 500;
    for (const resize_case &c : cases) {
        for (float r : {1.0f, kGradientFactor, 0.5f, 3.0f, -1.0f}) {
            const chn_image8 image = random_image(2, c.sw, c.sh, seed++);
            const chn_image8 fast = image_resample_fix(image, c.dw, c.dh, r);
            const chn_image8 reference = image_resample_fix_reference(image, c.dw, c.dh, r);
            ASSERT_EQ(fast.channels, reference.channels);
            ASSERT_EQ(fast.width, reference.width);
            ASSERT_EQ(fast.height, reference.height);
            EXPECT_EQ(fast.data, reference.data) << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh << " r " << r;
        }
    }
    // Extreme bytes: all 255 and alternating 0 / 255 stress the 16-bit
    // row buffer's range.
    for (const resize_case &c : cases) {
        chn_image8 image = constant<uint8_t>(1, c.sw, c.sh, 255);
        EXPECT_EQ(image_resample_fix(image, c.dw, c.dh, 1.0f).data,
                  image_resample_fix_reference(image, c.dw, c.dh, 1.0f).data);
        for (size_t i = 0; i < image.data.size(); i += 2) {
            image.data[i] = 0;
        }
        EXPECT_EQ(image_resample_fix(image, c.dw, c.dh, 1.0f).data,
                  image_resample_fix_reference(image, c.dw, c.dh, 1.0f).data);
    }
}

// The reference entry point keeps the failure line of image_resample_fix.
TEST(ImageResampleFix, ReferenceLoopsShareTheFailureLine) {
    using ostrel::acf_helper::resample_detail::image_resample_fix_reference;
    const chn_image8 image = constant<uint8_t>(1, 4, 4, 1);
    const std::string log = ostrel_test::capture_stdout([&] { image_resample_fix_reference(image, 3, 0, 1.0f); });
    EXPECT_EQ(log, "[acf_helper::image_resample_fix] downsampling factor too small (height: 3, width: 0) \n\n");
}

// The picture reductions do take the faster loops in SSE2 builds, and a
// factor whose weights leave 16 bits is handed back to the reference loops.
TEST(ImageResampleFix, FasterLoopsCoverThePictureReductions) {
#if defined(__SSE2__) || defined(_M_X64)
    using namespace ostrel::acf_helper::resample_detail;
    for (const auto &size : {std::pair<int32_t, int32_t>{1080, 1920}, {480, 640}}) {
        const chn_image8 image = random_image(3, size.first, size.second, 77);
        chn_image8 out(3, 136, 242);
        ASSERT_TRUE(resample_bytes_fast(image, make_plan(size.first, size.second, 136, 242, 1.0f), out));
        EXPECT_EQ(out.data, image_resample_fix_reference(image, 136, 242, 1.0f).data);
    }
    const chn_image8 small = random_image(1, 2, 2, 78);
    chn_image8 out(1, 4, 4);
    EXPECT_FALSE(resample_bytes_fast(small, make_plan(2, 2, 4, 4, 3.0f), out));
#else
    GTEST_SKIP() << "no SSE2 loops in this build";
#endif
}
