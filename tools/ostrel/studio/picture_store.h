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

#include "files/picture.h"
#include "files/picture_header.h"
#include "studio/counting_gate.h"
#include "studio/read_only_file.h"

namespace ostrel_tool {
namespace studio {

// The memory a picture costs is what bounds these. A decoded picture takes
// three bytes a pixel, and the library keeps one more such copy (its colour
// planes) of the last picture it worked on, besides what it needs while it
// works. The detector itself works at 242 x 136 feature cells whatever the
// picture's size, so more pixels than a camera's photo gain nothing.
struct PictureLimits {
    size_t max_file_bytes = 32u << 20;  // an uploaded or listed picture file
    // width x height: 24 megapixels, a 6000 x 4000 photo (72 MB decoded).
    int64_t max_pixels = 24'000'000;
    int64_t max_side = 16384;    // width or height
    size_t max_pictures = 2000;  // listed and uploaded together
    // Decoded pictures kept in memory, counted in bytes (3 a pixel): the
    // 640 x 480 pictures of a folder fit 200 times, 24-megapixel ones twice.
    // A picture larger than the whole cache is decoded for its request and
    // not kept.
    size_t cache_bytes = 144u << 20;
    // Pictures decoded at once, each until it is in the cache (up to 72 MB
    // besides the decoder's own buffers): requests beyond wait for their
    // turn. Decoding for the engine happens on its one thread anyway, so
    // only uploads from several clients at once ever wait here.
    size_t decodes_at_once = 1;
};

struct PictureEntry {
    std::string name;  // as listed: the file name, or its escaped form when that is not UTF-8
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
    // unknown name or a file that is gone, ApiError(422) when it no longer
    // decodes and ApiError(503) when other decodes kept it waiting too long.
    std::shared_ptr<const Picture> picture(const std::string &name);
    // The picture's file, opened for reading: a regular file that still
    // lies inside its folder (a link swapped since start, a FIFO or a
    // folder put in its place are refused with ApiError(404)).
    std::shared_ptr<const ReadOnlyFile> open_file(const std::string &name) const;
    // The file's bytes (what open_file opens, read whole).
    std::string file_bytes(const std::string &name) const;

    // Adds an uploaded picture. Refuses (ApiError) files over the size limit
    // (413), bytes that are not a JPEG, PNG or BMP picture or do not decode
    // (415), pictures over the pixel limits (422) and a full store (409).
    // The name is made from suggested_name and made unique.
    PictureEntry add_upload(const std::string &bytes, const std::string &suggested_name);

    // Bytes of decoded pixels the cache holds now (at most cache_bytes).
    size_t cached_bytes() const;

    const std::vector<std::string> &skipped() const { return skipped_; }
    const PictureLimits &limits() const { return limits_; }
    const std::string &folder() const { return folder_; }

private:
    struct Cached {
        std::shared_ptr<const Picture> picture;
        size_t bytes = 0;
    };

    std::string unique_name(const std::string &name) const;  // with mutex_ held
    void check_size(int64_t width, int64_t height) const;    // throws ApiError(422)
    // A turn to decode a picture and put it in the cache; throws
    // ApiError(503) when none came in time.
    CountingGate::Ticket decoding_turn();
    void keep(const std::shared_ptr<const Picture> &picture);  // with mutex_ held

    PictureLimits limits_;
    std::string folder_;         // canonical
    std::string upload_folder_;  // canonical
    mutable std::mutex mutex_;
    std::vector<PictureEntry> entries_;
    std::map<std::string, size_t> index_;
    // Decoded pictures, most recently used first, and their bytes in all.
    std::list<Cached> cache_;
    size_t cached_bytes_ = 0;
    CountingGate decoding_;
    std::vector<std::string> skipped_;
    int64_t next_key_;
};

}  // namespace studio
}  // namespace ostrel_tool
