// Value checks of the model records, run before a model is written and after
// one is read. Both return true when the record is WRONG, after logging why.
#pragma once

#include "fpfilter/pca_fp_filter.h"
#include "train/svm_model.h"

namespace ostrel {

bool checkSvmModel(const svm_model &model);
bool checkPcaFilter(const pca_fp_filter &filter);

}  // namespace ostrel
