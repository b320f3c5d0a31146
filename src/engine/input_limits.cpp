#include "engine/input_limits.h"

#include "common/failure.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "detect/window_scan.h"

namespace ostrel {

bool picture_within_pixel_limit(int32_t width, int32_t height) {
    if (width < 1 || height < 1) {
        return true;
    }
    return static_cast<int64_t>(width) * static_cast<int64_t>(height) <= kMaxPicturePixels;
}

bool marked_box_count_within_limit(int64_t count) { return count <= kMaxMarkedBoxes; }

box_size trained_box_on_picture(int32_t width, int32_t height, int32_t trained_width, int32_t trained_height,
                                int32_t input_width, int32_t input_height) {
    // Detection keeps the trained size on a picture of the training size and
    // rescales both sides on any other.
    if (width == input_width && height == input_height) {
        return box_size{trained_width, trained_height};
    }
    return box_size{rescale_trained_side(width, trained_width, input_width),
                    rescale_trained_side(height, trained_height, input_height)};
}

bool accept_picture_pixels(const ostrel_alg_image &image, const char *operation, int line) {
    if (picture_within_pixel_limit(image.width, image.height)) {
        return true;
    }
    fail(OSTREL_ALG_ERR_PICTURE_TOO_LARGE,
         "[Debug] %s: a picture of %d x %d pixels is larger than the limit of %lld pixels\n", operation, image.width,
         image.height, static_cast<long long>(kMaxPicturePixels));
    fail_at(OSTREL_ALG_ERR_FAILED, operation, line);
    return false;
}

bool accept_marked_box_count(size_t count, const char *operation, int line) {
    if (count <= static_cast<size_t>(kMaxMarkedBoxes)) {
        return true;
    }
    fail(OSTREL_ALG_ERR_TOO_MANY_BOXES, "[Debug] %s: %zu marked boxes, more than the %lld one picture may have\n",
         operation, count, static_cast<long long>(kMaxMarkedBoxes));
    fail_at(OSTREL_ALG_ERR_FAILED, operation, line);
    return false;
}

bool accept_trained_box_on_picture(const ostrel_alg_image &image, int32_t trained_width, int32_t trained_height,
                                   int32_t input_width, int32_t input_height, const char *operation, int line) {
    const box_size box =
        trained_box_on_picture(image.width, image.height, trained_width, trained_height, input_width, input_height);
    if (box.width >= 1 && box.height >= 1) {
        return true;
    }
    fail(OSTREL_ALG_ERR_PICTURE_TOO_SMALL,
         "[Debug] %s: the trained box of %d x %d pixels on a %d x %d picture is %d x %d pixels on this %d x %d "
         "picture: too small to detect\n",
         operation, trained_width, trained_height, input_width, input_height, box.width, box.height, image.width,
         image.height);
    fail_at(OSTREL_ALG_ERR_FAILED, operation, line);
    return false;
}

}  // namespace ostrel
