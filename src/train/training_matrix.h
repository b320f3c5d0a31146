// Laying the training samples out as the matrices the SVM and the
// false-positive filter are trained on.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "acf/training_sample.h"

namespace ostrel {

// Lays `rows` out as a float matrix (columns = the first row's feature
// length; a shorter row is copied as far as it goes and padded with zeros, a
// longer one cut) and an int32 label column (1 for label 1, -1 otherwise).
// Logs a "[Debug]" line when a row's length differs from the first.
void lay_out_training_rows(const std::vector<const training_sample *> &rows, cv::Mat *samples, cv::Mat *labels);

// Every record and then all of its variants, whatever their labels.
std::vector<const training_sample *> flatten_all_samples(const std::vector<training_sample> &groups);

// The candidate list of the outlier step: every record; after a record
// labelled 1, its variants labelled 1. *positives receives the number of
// label-1 rows in that list.
std::vector<const training_sample *> flatten_outlier_candidates(const std::vector<training_sample> &groups,
                                                                uint32_t *positives);

// set_training_mat: the full set (flatten_all_samples) as matrices. Logs
// "[Debug] No Acf feature ! \n" and returns false for an empty set.
bool set_training_mat(const std::vector<training_sample> &groups, cv::Mat *samples, cv::Mat *labels);

}  // namespace ostrel
