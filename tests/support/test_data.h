// Paths of the pictures and annotations shipped in data/.
#pragma once

#include <string>

namespace ostrel_test {

inline std::string data_path(const std::string &relative) { return std::string(OSTREL_TEST_DATA_DIR) + "/" + relative; }

}  // namespace ostrel_test
