#include "studio/picture_store.h"

#include <algorithm>
#include <chrono>

#include <opencv2/imgcodecs.hpp>

#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "files/atomic_file.h"
#include "studio/api_error.h"
#include "studio/safe_names.h"

namespace ostrel_tool {
namespace studio {

namespace fs = std::filesystem;

namespace {

// The store's keys start far above those the tool's picture loader hands
// out (it counts from 1), so that the two can never meet in one process.
constexpr int64_t kFirstKey = int64_t(1) << 40;

bool is_listed_extension(const std::string &ext) {
    return ext == ".jpg" || ext == ".jpeg" || ext == ".png" || ext == ".bmp";
}

// The first bytes of a file: enough for any header the store reads (a JPEG
// may carry large metadata segments before its frame header).
std::string read_head(const ReadOnlyFile &file, size_t bytes) {
    std::string head(static_cast<size_t>(std::min<uint64_t>(bytes, file.size())), '\0');
    head.resize(file.read_at(0, &head[0], head.size()));
    return head;
}

// How long a request waits for a decoding turn before it is told the
// studio is busy: several pictures' decoding, on a loaded machine.
constexpr std::chrono::seconds kDecodeWait{60};

size_t decoded_bytes(const Picture &picture) { return picture.pixels.total() * picture.pixels.elemSize(); }

cv::Mat decode(const std::string &bytes) {
    cv::Mat pixels;
    try {
        const cv::Mat raw(1, static_cast<int>(bytes.size()), CV_8UC1, const_cast<char *>(bytes.data()));
        pixels = cv::imdecode(raw, cv::IMREAD_COLOR);
    } catch (const cv::Exception &) {
        pixels.release();
    }
    return pixels;
}

}  // namespace

PictureStore::PictureStore(const std::string &folder, const std::string &upload_folder, PictureLimits limits)
    : limits_(limits), decoding_(std::max<size_t>(1, limits.decodes_at_once)), next_key_(kFirstKey) {
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        throw input_error("'" + folder + "' is not a folder");
    }
    folder_ = fs::canonical(folder, ec).string();
    if (ec) {
        throw input_error("cannot open folder '" + folder + "': " + ec.message());
    }
    upload_folder_ = fs::canonical(upload_folder, ec).string();
    if (ec) {
        throw output_error("cannot use the upload folder '" + upload_folder + "': " + ec.message());
    }

    std::vector<std::string> names;
    fs::directory_iterator it(folder_, ec);
    if (ec) {
        throw input_error("cannot list folder '" + folder + "': " + ec.message());
    }
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) {
            break;
        }
        const std::string name = it->path().filename().string();
        if (is_plain_file_name(name) && is_listed_extension(lower_extension(name))) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());

    for (const std::string &name : names) {
        const fs::path path = fs::path(folder_) / name;
        const std::string shown = listing_name(name);
        // A link may point anywhere; only what resolves inside the folder is served.
        if (!lies_inside(folder_, path) || !fs::is_regular_file(path, ec)) {
            skipped_.push_back(shown + ": not a file inside the folder");
            continue;
        }
        std::string head;
        try {
            const ReadOnlyFile file(path.string(), shown);
            if (file.size() > limits_.max_file_bytes) {
                skipped_.push_back(shown + strformat(": larger than %zu MiB", limits_.max_file_bytes >> 20));
                continue;
            }
            head = read_head(file, 1u << 20);
        } catch (const ApiError &e) {
            skipped_.push_back(shown + ": " + e.what());
            continue;
        }
        const PictureHeader header = read_picture_header(head);
        if (header.format == PictureFormat::unknown || header.width < 1 || header.height < 1) {
            skipped_.push_back(shown + ": not a JPEG, PNG or BMP picture");
            continue;
        }
        try {
            check_size(header.width, header.height);
        } catch (const ApiError &e) {
            skipped_.push_back(shown + ": " + e.what());
            continue;
        }
        if (entries_.size() >= limits_.max_pictures) {
            skipped_.push_back(shown + strformat(": more than %zu pictures", limits_.max_pictures));
            continue;
        }
        PictureEntry entry;
        entry.name = unique_name(shown);
        entry.path = path.string();
        entry.width = static_cast<int>(header.width);
        entry.height = static_cast<int>(header.height);
        entry.key = next_key_++;
        entry.format = header.format;
        index_[entry.name] = entries_.size();
        entries_.push_back(entry);
    }
}

void PictureStore::check_size(int64_t width, int64_t height) const {
    if (width > limits_.max_side || height > limits_.max_side || width * height > limits_.max_pixels) {
        throw ApiError(http_status::unprocessable,
                       strformat("a %lld x %lld picture is too large (at most %lld pixels per side and %lld "
                                 "megapixels)",
                                 static_cast<long long>(width), static_cast<long long>(height),
                                 static_cast<long long>(limits_.max_side),
                                 static_cast<long long>(limits_.max_pixels / 1000000)));
    }
}

std::vector<PictureEntry> PictureStore::list() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

bool PictureStore::contains(const std::string &name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return index_.count(name) != 0;
}

PictureEntry PictureStore::find(const std::string &name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = index_.find(name);
    if (it == index_.end()) {
        throw ApiError(http_status::not_found, "no picture named '" + name + "'");
    }
    return entries_[it->second];
}

std::shared_ptr<const ReadOnlyFile> PictureStore::open_file(const std::string &name) const {
    const PictureEntry entry = find(name);
    const std::string &folder = entry.uploaded ? upload_folder_ : folder_;
    auto file = std::make_shared<const ReadOnlyFile>(entry.path, name);
    // Asked of the open file, so that no link swapped after the check can
    // lead elsewhere (the path is the fallback where the system cannot tell).
    const std::string opened = file->resolved_path();
    if (!lies_inside(folder, opened.empty() ? entry.path : opened)) {
        throw ApiError(http_status::not_found, "'" + name + "' no longer lies inside the folder");
    }
    return file;
}

std::string PictureStore::file_bytes(const std::string &name) const {
    const auto file = open_file(name);
    if (file->size() > limits_.max_file_bytes) {
        throw ApiError(http_status::not_found,
                       strformat("'%s' has grown beyond %zu MiB", name.c_str(), limits_.max_file_bytes >> 20));
    }
    return file->read_all();
}

size_t PictureStore::cached_bytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cached_bytes_;
}

void PictureStore::keep(const std::shared_ptr<const Picture> &picture) {
    const size_t bytes = decoded_bytes(*picture);
    if (bytes > limits_.cache_bytes) {
        return;  // larger than the whole cache: decoded for its request only
    }
    while (!cache_.empty() && cached_bytes_ + bytes > limits_.cache_bytes) {
        cached_bytes_ -= cache_.back().bytes;
        cache_.pop_back();
    }
    cache_.push_front({picture, bytes});
    cached_bytes_ += bytes;
}

CountingGate::Ticket PictureStore::decoding_turn() {
    CountingGate::Ticket turn = decoding_.acquire(1, kDecodeWait);
    if (!turn.valid()) {
        throw ApiError(http_status::service_unavailable, "the studio is busy decoding other pictures: try again");
    }
    return turn;
}

std::shared_ptr<const Picture> PictureStore::picture(const std::string &name) {
    const PictureEntry entry = find(name);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = cache_.begin(); it != cache_.end(); ++it) {
            if (it->picture->key == entry.key) {
                cache_.splice(cache_.begin(), cache_, it);
                return cache_.front().picture;
            }
        }
    }
    // Decoded outside the lock: other requests go on meanwhile. The turn
    // lasts until the pixels are in the cache.
    const CountingGate::Ticket turn = decoding_turn();
    const std::string bytes = file_bytes(name);
    cv::Mat pixels = decode(bytes);
    if (pixels.empty() || pixels.type() != CV_8UC3 || pixels.cols != entry.width || pixels.rows != entry.height) {
        throw ApiError(http_status::unprocessable, "'" + name + "' cannot be decoded as the picture it claims to be");
    }
    auto decoded = std::make_shared<Picture>(picture_from_pixels(pixels, entry.path));
    decoded->key = entry.key;

    std::lock_guard<std::mutex> lock(mutex_);
    keep(decoded);
    return decoded;
}

std::string PictureStore::unique_name(const std::string &name) const {
    if (index_.count(name) == 0) {
        return name;
    }
    const std::string ext = lower_extension(name);
    const std::string stem = name.substr(0, name.size() - ext.size());
    for (int n = 2;; ++n) {
        const std::string candidate = stem + "-" + std::to_string(n) + ext;
        if (index_.count(candidate) == 0) {
            return candidate;
        }
    }
}

PictureEntry PictureStore::add_upload(const std::string &bytes, const std::string &suggested_name) {
    if (bytes.size() > limits_.max_file_bytes) {
        throw ApiError(http_status::payload_too_large,
                       strformat("the picture is larger than %zu MiB", limits_.max_file_bytes >> 20));
    }
    const PictureHeader header = read_picture_header(bytes);
    if (header.format == PictureFormat::unknown || header.width < 1 || header.height < 1) {
        throw ApiError(http_status::unsupported_media_type, "not a picture: the studio reads JPEG, PNG and BMP files");
    }
    check_size(header.width, header.height);
    if (!reaches_picture_end(bytes, header.format)) {
        throw ApiError(http_status::unsupported_media_type, "the picture is cut short: the file ends before it does");
    }
    const CountingGate::Ticket turn = decoding_turn();  // until the pixels are in the cache
    cv::Mat pixels = decode(bytes);
    if (pixels.empty() || pixels.type() != CV_8UC3 || pixels.cols != header.width || pixels.rows != header.height) {
        throw ApiError(http_status::unsupported_media_type, "the picture is damaged: it does not decode");
    }

    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.size() >= limits_.max_pictures) {
        throw ApiError(http_status::conflict, strformat("the studio holds %zu pictures already", entries_.size()));
    }
    PictureEntry entry;
    entry.name = unique_name(upload_file_name(suggested_name, file_extension(header.format)));
    entry.path = (fs::path(upload_folder_) / entry.name).string();
    entry.width = pixels.cols;
    entry.height = pixels.rows;
    entry.key = next_key_++;
    entry.uploaded = true;
    entry.format = header.format;
    try {
        write_file_atomically(entry.path, bytes);
    } catch (const ToolError &e) {
        throw ApiError(http_status::internal_error, std::string("cannot keep the picture: ") + e.what());
    }
    auto decoded = std::make_shared<Picture>(picture_from_pixels(pixels, entry.path));
    decoded->key = entry.key;
    keep(decoded);
    index_[entry.name] = entries_.size();
    entries_.push_back(entry);
    return entry;
}

}  // namespace studio
}  // namespace ostrel_tool
