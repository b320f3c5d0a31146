// The last picture that detection computed features for.
//
// PER THREAD: every engine used on one thread shares that thread's record;
// engines on other threads have their own. Keeping the last picture here
// lets a host re-run detection on the same picture (a new sensitivity, the
// auto-training passes) without computing its features again, also with a
// second engine on the same thread; keeping it per thread lets engines on
// different threads detect at the same time without touching each other's
// features.
#pragma once

#include <cstdint>

#include "acf/picture_features.h"

namespace ostrel {

struct last_picture {
    bool valid = false;  // features hold the picture of image_key
    int64_t image_key = 0;
    picture_features features;

    bool holds(int64_t key) const { return valid && image_key == key; }
    void forget() {
        valid = false;
        features = picture_features{};
    }
};

// The calling thread's record, shared by the engines used on that thread.
// It lives until the thread ends.
last_picture &shared_last_picture();

}  // namespace ostrel
