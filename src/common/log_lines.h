// Formats of the failure lines shared by several units. The operation
// names and line numbers that fill them are fixed parts of the messages and
// sit next to the code that emits them.
#pragma once

namespace ostrel {

// Engine operations: operation name (ostrel_alg::op), source stem, line.
inline constexpr const char *kEngineFailFormat = "[Alg. FAIL!] %s (%s line:%d)\n";
inline constexpr const char *kEngineSource = "ostrel_alg";

// Picture refused by the engine's image check: name, width, height, data.
inline constexpr const char *kInvalidImageFormat = "[%s] invalid image data: %d x %d @%p)\n";
inline constexpr const char *kCheckImgValidName = "ostrel_alg::checkImgValid";

}  // namespace ostrel
