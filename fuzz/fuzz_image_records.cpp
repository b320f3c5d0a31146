// Fuzz target: image records and box lists through the C interface.
//
// Each input describes a picture record (width, height, channels, format,
// key, whether it has pixels) and a box list (count and boxes), and hands
// them to the three calls that take a picture: the feature map, detection
// by a trained engine, and set-up of a new engine (followed, when it
// succeeds, by detection, the samples and a removal). Records the library
// must refuse point at a buffer of 16 bytes, and box counts beyond the
// limit at a list of 4 boxes: reading them past that is a finding, since a
// refusal must come before any read. Records it may accept get exactly
// width * height * 3 bytes, so that any read past the pixels is one too.
//
// Beyond memory safety the target checks the interface's promises: every
// status is 0 or 1; a detection holds at most 256 boxes, each at least
// 1 x 1 pixel with a score in 0..1; a set-up that returns 0 leaves a
// trained engine that detects on its own picture.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include <fuzzer/FuzzedDataProvider.h>

#include "ostrel_alg.h"

namespace {

// Pictures the target gives real pixels: up to this many (60 kB), so that
// every execution stays quick. Larger records within the limit are shrunk.
constexpr int64_t kMaxFuzzedPixels = 20000;

void discard_message(const char *, void *) {}

void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "promise broken: %s\n", what);
        std::abort();
    }
}

void require_status(int32_t status, const char *call) {
    if (status != 0 && status != 1) {
        std::fprintf(stderr, "%s returned %d\n", call, status);
        std::abort();
    }
}

// A light picture with dark rings in the marked boxes, as a host draws it
// in the C example; the engine trained on it is the detector of every run.
std::vector<uint8_t> ring_picture(int width, int height, const std::vector<ostrel_alg_box> &rings) {
    std::vector<uint8_t> bgr(static_cast<size_t>(width) * height * 3);
    uint32_t seed = 1;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            seed = seed * 1103515245u + 12345u;
            uint8_t v = static_cast<uint8_t>(200 + (seed >> 16) % 24);
            for (const ostrel_alg_box &b : rings) {
                const int dx = x - (b.x + b.width / 2);
                const int dy = y - (b.y + b.height / 2);
                const int d2 = dx * dx + dy * dy;
                if (d2 < 18 * 18 && d2 > 9 * 9) v = 40;
            }
            std::memset(bgr.data() + 3 * (static_cast<size_t>(y) * width + x), v, 3);
        }
    }
    return bgr;
}

ostrel_alg *trained_detector() {
    static ostrel_alg *const engine = [] {
        ostrel_alg *e = nullptr;
        require(ostrel_alg_create(&e) == 0, "create");
        ostrel_alg_setRandomSeed(e, 1);
        ostrel_alg_setSensitivity(e, 100);
        std::vector<ostrel_alg_box> rings;
        for (int i = 0; i < 6; ++i) rings.push_back(ostrel_alg_box{20 + 50 * i, 30 + 80 * (i % 2), 48, 48, 0, 1, 0, 0});
        std::vector<uint8_t> pixels = ring_picture(320, 240, rings);
        const ostrel_alg_image image{320, 240, 3, pixels.data(), 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
        require(ostrel_alg_setDetector_ptr(e, &image, rings.data(), static_cast<int32_t>(rings.size())) == 0,
                "the detector trains");
        // Reset to a detector that was never set up: it reports detections
        // only, no marked boxes, so every box it returns must keep the
        // promises on size and score.
        char name[] = "/tmp/ostrel_fuzz_detector_XXXXXX";
        const int fd = mkstemp(name);
        require(fd >= 0, "temporary model file");
        close(fd);
        require(ostrel_alg_exportModel_ptr(e, name) == 0, "export");
        ostrel_alg_destroy(e);
        e = nullptr;
        require(ostrel_alg_create(&e) == 0, "create");
        ostrel_alg_setSensitivity(e, 100);
        require(ostrel_alg_importModel_ptr(e, name) == 0, "import");
        std::remove(name);
        return e;
    }();
    return engine;
}

// Choices come first as small selectors; an input that has run out gives
// 0 everywhere, which picks the plausible case, so that short inputs
// already reach training.
int32_t fuzzed_side(FuzzedDataProvider &in) {
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
        case 1:
        case 2:
        case 3: return in.ConsumeIntegralInRange<int32_t>(24, 160);
        case 4: return in.ConsumeIntegralInRange<int32_t>(-3, 23);
        case 5: return in.ConsumeIntegral<int32_t>();
        case 6: return in.ConsumeIntegralInRange<int32_t>(16380, 16390);  // around the pixel limit's square
        default:
            return in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(268435450, 268435460)
                                    : in.ConsumeIntegralInRange<int32_t>(1, 5000);
    }
}

int32_t fuzzed_coordinate(FuzzedDataProvider &in) {
    switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0: return in.ConsumeIntegral<int32_t>();
        case 1: return in.ConsumeIntegralInRange<int32_t>(-200, 200);
        default: return in.ConsumeIntegralInRange<int32_t>(0, 320);
    }
}

// A width or height of a box with fields a host should never send: absurd,
// zero or negative, or small. Boxes between a quarter of the picture and
// the picture's size are left out on purpose: they are valid, and their
// large windows with their many shifted copies make a set-up take much
// memory and time, which would only slow the search down.
int32_t fuzzed_extent(FuzzedDataProvider &in, int32_t picture_side) {
    switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: return in.ConsumeIntegral<int32_t>();
        case 1: return in.ConsumeIntegralInRange<int32_t>(-200, 0);
        default: return in.ConsumeIntegralInRange<int32_t>(0, picture_side > 4 ? picture_side / 4 : 1);
    }
}

// A box as a host marks it (inside the picture, of a size a window can
// have) or with any fields at all.
ostrel_alg_box fuzzed_box(FuzzedDataProvider &in, int32_t picture_width, int32_t picture_height,
                          const ostrel_alg_box *first) {
    ostrel_alg_box b{};
    const int mode = in.ConsumeIntegralInRange<int>(0, 5);
    if (mode <= 3 && picture_width > 0 && picture_height > 0) {
        if (mode <= 1 && first != nullptr && first->width >= 1 && first->width <= picture_width / 4 + 1 &&
            first->height >= 1 && first->height <= picture_height / 4 + 1) {
            b.width = first->width;  // most hosts mark every box at one size
            b.height = first->height;
        } else {
            b.width = in.ConsumeIntegralInRange<int32_t>(picture_width / 12 + 1, picture_width / 4 + 1);
            b.height = in.ConsumeIntegralInRange<int32_t>(picture_height / 12 + 1, picture_height / 4 + 1);
        }
        if (mode == 3) {  // anywhere, across the edges too
            b.x = in.ConsumeIntegralInRange<int32_t>(-b.width / 2, picture_width);
            b.y = in.ConsumeIntegralInRange<int32_t>(-b.height / 2, picture_height);
        } else {
            b.x = in.ConsumeIntegralInRange<int32_t>(0, picture_width > b.width ? picture_width - b.width : 0);
            b.y = in.ConsumeIntegralInRange<int32_t>(0, picture_height > b.height ? picture_height - b.height : 0);
        }
    } else {
        b.x = fuzzed_coordinate(in);
        b.y = fuzzed_coordinate(in);
        b.width = fuzzed_extent(in, picture_width);
        b.height = fuzzed_extent(in, picture_height);
    }
    b.score = in.ConsumeFloatingPoint<float>();
    b.label = in.ConsumeIntegralInRange<int>(0, 3) != 3 ? 1 : in.ConsumeIntegralInRange<int32_t>(-2, 2);
    return b;
}

// The record the input describes, and the buffer its pixels lie in.
struct fuzzed_picture {
    ostrel_alg_image image{};
    std::vector<uint8_t> pixels;
};

bool library_must_refuse(const ostrel_alg_image &image) {
    return image.width < 1 || image.height < 1 || image.channels != 3 || image.data == nullptr ||
           static_cast<int64_t>(image.width) * image.height > OSTREL_ALG_MAX_PICTURE_PIXELS;
}

fuzzed_picture make_picture(FuzzedDataProvider &in) {
    fuzzed_picture p;
    ostrel_alg_image &image = p.image;
    image.width = fuzzed_side(in);
    image.height = fuzzed_side(in);
    image.channels = in.ConsumeIntegralInRange<int>(0, 9) == 9 ? in.ConsumeIntegral<int32_t>() : 3;
    image.format = in.ConsumeBool() ? OSTREL_ALG_FORMAT_PLANAR : in.ConsumeIntegral<int32_t>();
    image.image_key = in.ConsumeIntegralInRange<int>(0, 7) == 7 ? in.ConsumeIntegral<int64_t>()
                                                                : 1000 + in.ConsumeIntegralInRange<int64_t>(0, 3);
    image.aux = in.ConsumeIntegral<int32_t>();
    const bool with_data = in.ConsumeIntegralInRange<int>(0, 15) != 15;
    const uint8_t shade = in.ConsumeIntegral<uint8_t>();

    // A record the library may take gets exactly its pixels; one it must
    // refuse gets 16 bytes.
    ostrel_alg_image probe = image;
    probe.data = reinterpret_cast<uint8_t *>(1);
    if (!library_must_refuse(probe)) {
        int64_t pixels = static_cast<int64_t>(image.width) * image.height;
        while (pixels > kMaxFuzzedPixels) {  // keep each run quick
            image.width = image.width > 1 ? image.width / 2 : 1;
            image.height = image.height > 1 ? image.height / 2 : 1;
            pixels = static_cast<int64_t>(image.width) * image.height;
        }
        p.pixels.resize(static_cast<size_t>(pixels) * 3);
    } else {
        p.pixels.resize(16);
    }
    const std::vector<uint8_t> texture = in.ConsumeBytes<uint8_t>(64);
    for (size_t i = 0; i < p.pixels.size(); ++i) {
        p.pixels[i] = texture.empty() ? shade : static_cast<uint8_t>(texture[i % texture.size()] ^ shade);
    }
    image.data = with_data ? p.pixels.data() : nullptr;
    return p;
}

void check_detections(const ostrel_alg_box *boxes, uint32_t count) {
    require(count <= 256, "at most 256 boxes");
    for (uint32_t i = 0; i < count; ++i) {
        require(boxes[i].width >= 1 && boxes[i].height >= 1, "a detection is at least 1 x 1 pixel");
        require(boxes[i].score >= 0.0f && boxes[i].score <= 1.0f, "a score lies in 0..1");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The library's lines are noise here; OSTREL_FUZZ_LOG=1 keeps them, to
    // see what the library said about an input.
    if (std::getenv("OSTREL_FUZZ_LOG") == nullptr) ostrel_alg_setLogHandler(discard_message, nullptr);
    trained_detector();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    fuzzed_picture picture = make_picture(in);
    const ostrel_alg_image &image = picture.image;

    // The box list: a count the library may take gets exactly that many
    // boxes; beyond the limit, 4.
    int32_t count = 0;
    switch (in.ConsumeIntegralInRange<int>(0, 9)) {
        case 8: count = in.ConsumeIntegral<int32_t>(); break;
        case 9: count = OSTREL_ALG_MAX_MARKED_BOXES + in.ConsumeIntegralInRange<int32_t>(-1, 1); break;
        default: count = in.ConsumeIntegralInRange<int32_t>(1, 24); break;
    }
    const bool count_refused = count < 0 || count > OSTREL_ALG_MAX_MARKED_BOXES;
    std::vector<ostrel_alg_box> boxes(count_refused ? 4 : static_cast<size_t>(count));
    for (size_t i = 0; i < boxes.size(); ++i) {
        boxes[i] = fuzzed_box(in, image.width, image.height, i > 0 ? &boxes[0] : nullptr);
    }
    const ostrel_alg_box *box_list = in.ConsumeIntegralInRange<int>(0, 31) == 31 ? nullptr : boxes.data();

    // The feature map.
    {
        ostrel_alg *engine = trained_detector();
        const uint8_t *map = nullptr;
        uint32_t channels = 0, columns = 0, rows = 0;
        const int32_t status = ostrel_alg_getFeatureMap_ptr(engine, &image, &map, &channels, &columns, &rows);
        require_status(status, "getFeatureMap");
        require(status == 1 || !library_must_refuse(image), "a refused record gives no feature map");
    }

    // Detection by the trained engine.
    {
        ostrel_alg_box *found = nullptr;
        uint32_t found_count = 0;
        const int32_t status = ostrel_alg_runDetector_ptr(trained_detector(), &image, &found, &found_count);
        require_status(status, "runDetector");
        require(status == 1 || !library_must_refuse(image), "a refused record is not detected on");
        if (status == 0) check_detections(found, found_count);
    }

    // Set-up of a new engine, and what a host does next.
    ostrel_alg *engine = nullptr;
    require(ostrel_alg_create(&engine) == 0, "create");
    ostrel_alg_setRandomSeed(engine, 7);
    ostrel_alg_setSensitivity(engine, in.ConsumeIntegralInRange<uint32_t>(0, 100));
    const int32_t status = ostrel_alg_setDetector_ptr(engine, &image, box_list, count);
    require_status(status, "setDetector");
    require(status == 1 || (!library_must_refuse(image) && !count_refused), "a refused input does not train");
    if (status == 0) {
        uint8_t trained = 0;
        require(ostrel_alg_istraied(engine, &trained) == 0 && trained == 1, "set-up trains");
        ostrel_alg_box *found = nullptr;
        uint32_t found_count = 0;
        require(ostrel_alg_runDetector_ptr(engine, &image, &found, &found_count) == 0,
                "a set-up that returns 0 leaves a model that detects on its picture");
        require(found_count <= 256, "at most 256 boxes");
        ostrel_alg_sample *samples = nullptr;
        uint32_t sample_count = 0;
        require(ostrel_alg_getSamples_ptr(engine, &samples, &sample_count) == 0, "samples");
        for (uint32_t i = 0; i < sample_count; ++i) {
            const ostrel_alg_thumb_image &thumb = samples[i].image;
            require(thumb.width >= 0 && thumb.height >= 0 && thumb.channels == 3, "thumbnail record");
            if (thumb.width > 0 && thumb.height > 0) {
                volatile uint8_t last = thumb.data[static_cast<size_t>(thumb.width) * thumb.height * 3 - 1];
                (void)last;
            }
        }
        if (sample_count > 0) {
            require_status(ostrel_alg_removeSample(engine, in.ConsumeIntegralInRange<uint32_t>(0, sample_count)),
                           "removeSample");
        }
    }
    ostrel_alg_destroy(engine);
    return 0;
}
