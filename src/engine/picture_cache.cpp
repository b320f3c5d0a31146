#include "engine/picture_cache.h"

namespace ostrel {

last_picture &shared_last_picture() {
    thread_local last_picture picture;
    return picture;
}

}  // namespace ostrel
