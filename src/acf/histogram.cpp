// Oriented-gradient histograms over square cells.
#include <cstddef>

#include "acf/acf_helper.h"
#include "common/log.h"

namespace ostrel {
namespace acf_helper {

namespace {

constexpr const char *kBadInputFormat = "[%s] Mag or Smooth is bad. \n\n";
constexpr const char *kGradientMagHistogramName = "acf_helper::gradient_mag_histogram";

// pi in 1/10000 radian as the single-precision number the bin width has
// always been computed from (31415.928f is exactly this value).
constexpr float kPiTenThousandths = 31415.927734375f;

bool holds_one_plane(const chn_image32 &plane, size_t plane_size) { return plane.data.size() >= plane_size; }

// Orientation to bin: orient / bin_width, truncating, then the last bin
// for anything past it (pi itself with 6 bins). For 0 <= orient < 2^15 the
// quotient is taken as (orient * ceil(2^32 / bin_width)) >> 32, which is
// exact there since both the value and the width are below 2^15; other
// values (never produced by the orientation table) divide.
class orientation_binner {
public:
    orientation_binner(int32_t bin_width, int32_t n_orients)
        : bin_width_(bin_width),
          last_bin_(n_orients - 1),
          magic_((uint64_t{1} << 32) / static_cast<uint64_t>(bin_width) + 1) {}

    int32_t operator()(int32_t orient) const {
        int32_t b;
        if (orient >= 0 && orient < (1 << 15)) {
            b = static_cast<int32_t>((static_cast<uint64_t>(orient) * magic_) >> 32);
        } else {
            b = orient / bin_width_;
        }
        if (b > last_bin_) {
            b = last_bin_;
        } else if (b < 0) {
            b = 0;  // negative orientations do not occur; kept in range anyway
        }
        return b;
    }

private:
    int32_t bin_width_;
    int32_t last_bin_;
    uint64_t magic_;
};

// Adds every pixel of the cell grid to its cell's bin. kFixedSide > 0 fixes
// the cell side at compile time (the channel computation always uses 2);
// 0 takes it from `side`. Pixels of the last width % side columns and
// height % side rows belong to no cell and are skipped. Each pixel adds to
// one bin of one cell: no interpolation, no normalisation.
template <int32_t kFixedSide>
void add_cells(const chn_image32 &mag, const chn_image32 &orient, int32_t side_arg, const orientation_binner &bin_of,
               chn_image32 &hist) {
    const int32_t side = kFixedSide > 0 ? kFixedSide : side_arg;
    const size_t width = static_cast<size_t>(mag.width);
    const size_t cells_wide = static_cast<size_t>(hist.width);
    const size_t cell_plane = hist.plane_size();
    uint32_t *const bins = reinterpret_cast<uint32_t *>(hist.data.data());
    for (int32_t cy = 0; cy < hist.height; ++cy) {
        uint32_t *const cell_row = bins + static_cast<size_t>(cy) * cells_wide;
        for (int32_t j = 0; j < side; ++j) {
            const size_t y = static_cast<size_t>(cy) * static_cast<size_t>(side) + static_cast<size_t>(j);
            const int32_t *mag_row = mag.data.data() + y * width;
            const int32_t *orient_row = orient.data.data() + y * width;
            for (size_t cx = 0; cx < cells_wide; ++cx) {
                const size_t x0 = cx * static_cast<size_t>(side);
                for (int32_t i = 0; i < side; ++i) {
                    const int32_t b = bin_of(orient_row[x0 + static_cast<size_t>(i)]);
                    // Two truncating divisions, as the features always had
                    // them: 7 / 2 / 2 = 1.
                    const int32_t v = (mag_row[x0 + static_cast<size_t>(i)] / side) / side;
                    cell_row[static_cast<size_t>(b) * cell_plane + cx] += static_cast<uint32_t>(v);
                }
            }
        }
    }
}

}  // namespace

chn_image32 gradient_mag_histogram(const chn_image32 &mag, const chn_image32 &orient, int32_t bin_size,
                                   int32_t n_orients) {
    // The orientation record's channel count is deliberately not checked.
    if (orient.width != mag.width || orient.height != mag.height || mag.channels != 1) {
        log(kBadInputFormat, kGradientMagHistogramName);
        return chn_image32();
    }
    // Records whose buffers are shorter than their extents, or a cell size or
    // bin count no caller passes, give an empty record instead of a fault.
    if (mag.width < 0 || mag.height < 0 || bin_size < 1 || n_orients < 0 || !holds_one_plane(mag, mag.plane_size()) ||
        !holds_one_plane(orient, mag.plane_size())) {
        return chn_image32();
    }

    const int32_t cells_wide = mag.width / bin_size;
    const int32_t cells_high = mag.height / bin_size;
    chn_image32 hist(n_orients, cells_wide, cells_high);
    if (n_orients == 0 || cells_wide == 0 || cells_high == 0) {
        return hist;
    }

    // Bin width in single precision, truncated: 5235 for 6 bins. More bins
    // than 1/10000-radian steps would make it 0; one step is the floor then.
    int32_t bin_width = static_cast<int32_t>(kPiTenThousandths / static_cast<float>(n_orients));
    if (bin_width < 1) {
        bin_width = 1;
    }

    const orientation_binner bin_of(bin_width, n_orients);
    if (bin_size == 2) {
        add_cells<2>(mag, orient, bin_size, bin_of, hist);
    } else {
        add_cells<0>(mag, orient, bin_size, bin_of, hist);
    }
    return hist;
}

}  // namespace acf_helper
}  // namespace ostrel
