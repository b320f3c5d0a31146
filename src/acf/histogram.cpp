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
    if (mag.width < 0 || mag.height < 0 || bin_size < 1 || n_orients < 0 ||
        !holds_one_plane(mag, mag.plane_size()) || !holds_one_plane(orient, mag.plane_size())) {
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

    // Pixels of the last width % bin_size columns and height % bin_size rows
    // belong to no cell and are skipped. Each pixel adds to one bin of one
    // cell: no interpolation, no normalisation.
    const size_t width = static_cast<size_t>(mag.width);
    const size_t cell_plane = hist.plane_size();
    uint32_t *const bins = reinterpret_cast<uint32_t *>(hist.data.data());
    for (int32_t y = 0; y < cells_high * bin_size; ++y) {
        const int32_t *mag_row = mag.data.data() + static_cast<size_t>(y) * width;
        const int32_t *orient_row = orient.data.data() + static_cast<size_t>(y) * width;
        const size_t cell_row = static_cast<size_t>(y / bin_size) * static_cast<size_t>(cells_wide);
        for (int32_t x = 0; x < cells_wide * bin_size; ++x) {
            int32_t b = orient_row[x] / bin_width;
            if (b >= n_orients) {
                b = n_orients - 1;  // pi itself (31415) goes to the last bin
            } else if (b < 0) {
                b = 0;  // orientations are never negative; kept in range anyway
            }
            // Two truncating divisions, not one by the square: 7 / 2 / 2 = 1.
            const int32_t v = (mag_row[x] / bin_size) / bin_size;
            bins[static_cast<size_t>(b) * cell_plane + cell_row + static_cast<size_t>(x / bin_size)] +=
                static_cast<uint32_t>(v);
        }
    }
    return hist;
}

}  // namespace acf_helper
}  // namespace ostrel
