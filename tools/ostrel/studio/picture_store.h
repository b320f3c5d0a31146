// The pictures the studio works on: those of its folder, read once at
// start, and those a person adds by drag and drop, kept in a temporary
// folder for the session.
//
// Every picture has a plain file name that is unique in the store, its size,
// and its own image_key for the library, fixed for the session: the same
// pixels always come with the same key, so detecting again on a picture
// only runs the window scan. Requests name pictures; the store looks the
// name up in its own list and never builds a path from it.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "picture.h"
#include "picture_header.h"

namespace ostrel_tool {
namespace studio {

struct PictureLimits {
    size_t max_file_bytes = 32u << 20;       // an uploaded or listed picture file
    int64_t max_pixels = 40'000'000;         // width x height
    int64_t max_side = 16384;                // width or height
    size_t max_pictures = 2000;              // listed and uploaded together
    size_t cached_pictures = 24;             // decoded pictures kept in memory
};

struct PictureEntry {
    std::string name;
    std::string path;  // the file on disk
    int width = 0;
    int height = 0;
    int64_t key = 0;
    bool uploaded = false;
    PictureFormat format = PictureFormat::unknown;
};

class PictureStore {
public:
    // Lists the JPEG, PNG and BMP files directly inside folder (no sub-folders;
    // symbolic links only when they resolve inside the folder), sorted by name.
    // Files that are not pictures or exceed the limits are left out and
    // named in skipped(). Uploads go to upload_folder, which must exist.
    // Throws an input error when folder is not a readable folder.
    PictureStore(const std::string &folder, const std::string &upload_folder, PictureLimits limits = {});

    std::vector<PictureEntry> list() const;
    // Throws ApiError(404) for a name the store does not hold.
    PictureEntry find(const std::string &name) const;
    bool contains(const std::string &name) const;

    // The decoded picture, with the entry's key. Throws ApiError(404) for an
    // unknown name and ApiError(422) when the file no longer decodes.
    std::shared_ptr<const Picture> picture(const std::string &name);
    // The file's bytes, for the browser. The file must still lie inside its
    // folder (a link swapped since start is refused).
    std::string file_bytes(const std::string &name) const;

    // Adds an uploaded picture. Refuses (ApiError) files over the size limit
    // (413), bytes that are not a JPEG, PNG or BMP picture or do not decode
    // (415), pictures over the pixel limits (422) and a full store (409).
    // The name is made from suggested_name and made unique.
    PictureEntry add_upload(const std::string &bytes, const std::string &suggested_name);

    const std::vector<std::string> &skipped() const { return skipped_; }
    const PictureLimits &limits() const { return limits_; }
    const std::string &folder() const { return folder_; }

private:
    std::string unique_name(const std::string &name) const;  // with mutex_ held
    void check_size(int64_t width, int64_t height) const;     // throws ApiError(422)

    PictureLimits limits_;
    std::string folder_;         // canonical
    std::string upload_folder_;  // canonical
    mutable std::mutex mutex_;
    std::vector<PictureEntry> entries_;
    std::map<std::string, size_t> index_;
    // Decoded pictures, most recently used first.
    std::list<std::shared_ptr<const Picture>> cache_;
    std::vector<std::string> skipped_;
    int64_t next_key_;
};

}  // namespace studio
}  // namespace ostrel_tool
