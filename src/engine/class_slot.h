// class_slot: one class of a multi-class engine while another class is the
// current one.
//
// The engine's training, detection and sample operations work on the
// current class, held in the engine's own fields (svm_model, accurate_class,
// accurate_pictures, ...), as they always have. The other classes wait in
// slots of this record; choosing another class swaps the current class's
// fields into its slot and the chosen slot's into the fields. So an engine
// of one class is exactly the engine it always was, and every class is
// trained by the same code.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "accurate/accurate_model.h"
#include "accurate/accurate_trainer.h"
#include "train/svm_model.h"

namespace ostrel {

inline constexpr int64_t kNoPictureKey = -1;

struct class_slot {
    svm_model weights;
    accurate_class_model model;
    std::vector<accurate_training_picture> pictures;
    std::vector<ostrel_alg_box> marked_boxes;
    std::vector<ostrel_alg_sample> sample_thumbs;  // pixels owned by the slot (free_slot_samples)
    cv::Mat cached_image;
    int64_t cached_image_key = kNoPictureKey;
    uint32_t train_width = 0;
    uint32_t train_height = 0;
    uint32_t train_input_width = 0;
    uint32_t train_input_height = 0;
    uint32_t positive_count = 0;
    uint32_t negative_count = 0;
};

// Lets a slot's samples go (pictures, thumbnails and their pixels, marked
// boxes, the cached picture) and keeps its model and name, as
// ostrel_alg_init does for the current class.
void free_slot_samples(class_slot &slot);

}  // namespace ostrel
