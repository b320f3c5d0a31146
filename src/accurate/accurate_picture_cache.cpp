#include "accurate/accurate_picture_cache.h"

namespace ostrel {

accurate_last_picture &thread_accurate_last_picture() {
    thread_local accurate_last_picture picture;
    return picture;
}

}  // namespace ostrel
