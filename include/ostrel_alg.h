/*
 * ostrel_alg.h - public interface of the ostrel_alg object detector.
 *
 * The library learns one kind of object from a few boxes that a user marks
 * on a picture, and then finds that object in new pictures.
 *
 * This header is valid C (C99 or later) and C++. Everything in it can be
 * called from C and, through a C FFI, from other languages. A handful of
 * convenience variants that take C++ containers (std::vector, std::string)
 * are declared in the __cplusplus section at the end; every one of them has
 * a pointer form that C callers use instead.
 *
 * Statuses
 *   Every function returns int32_t: 0 for success, 1 for failure. No other
 *   value is ever returned. Every failure is also reported by log lines (see
 *   "Log lines" below), except these, which return 1 without a line:
 *     - ostrel_alg_exportModel* before any training or import, or with an
 *       empty path;
 *     - ostrel_alg_importModel* with an empty path;
 *     - ostrel_alg_removeSample before training, or with an index at or
 *       above the sample count;
 *     - ostrel_alg_setModelId with a negative id, and ostrel_alg_getModelId
 *       while no id is set.
 *   Every failure, these included, also records a code and a message that a
 *   program reads with ostrel_alg_getLastError (see "Errors").
 *
 * Ownership
 *   - The host owns the engine handle from ostrel_alg_create() until it
 *     passes it to ostrel_alg_destroy().
 *   - The host owns every image record, pixel buffer and box array it
 *     passes in. The library copies what it keeps.
 *   - The engine owns every buffer it hands out (result boxes, sample
 *     thumbnails and their pixels, feature maps, strings). The host must
 *     never free them; each function below says how long they stay valid.
 *
 * Threads
 *   Engines are independent: several engines, each used by one thread at a
 *   time, may run every operation (set-up, training, detection, model
 *   files, samples) at the same time on different threads. One engine must
 *   not be used by two threads at once; the engine takes no lock, and a
 *   host that breaks this rule may corrupt that engine (never another one).
 *   An engine may move from one thread to another between calls.
 *   Detection keeps the last picture's colour planes and feature map per
 *   thread, shared by the engines used on that thread: a second detection
 *   on the same thread with the same image_key, by the same or another
 *   engine, reuses them (the accurate profile keeps its own such record per
 *   thread, reused only by engines with the same feature configuration:
 *   engines of the two profiles never share features). The random draws
 *   of training belong to the engine
 *   (ostrel_alg_setRandomSeed). ostrel_alg_setLogHandler and
 *   ostrel_alg_setLogRecordHandler may be called from any thread at any
 *   time. There is no other process-wide state: an
 *   engine's last failure and progress handler belong to the engine, and
 *   the last failure of calls without an engine to the calling thread.
 *
 * Log lines
 *   The library reports through one printf-style function, one message per
 *   call, to standard output or, once the host has installed one, to its
 *   log handler (ostrel_alg_setLogHandler, or ostrel_alg_setLogRecordHandler
 *   to receive each message's severity with it), which then receives every
 *   message instead. Interface failures look like
 *     [Alg.Fail] <function> (ostrel_alg_lib line:<n>)
 *   and failures inside the engine like
 *     [Alg. FAIL!] ostrel_alg::<operation> (ostrel_alg line:<n>)
 *   The line numbers are fixed parts of the messages. Input the engine
 *   refuses before doing anything (a picture above the pixel limit, too many
 *   boxes, boxes whose window cannot be learnt, a picture too small for the
 *   trained box) is reported by a "[Debug] ostrel_alg::<operation>: ..."
 *   line that says what was wrong, followed by the failure line.
 */
#ifndef OSTREL_ALG_H
#define OSTREL_ALG_H

#include <stddef.h>
#include <stdint.h>

/*
 * Version of this header and of the library built from it: major.minor.patch.
 * These three lines are the one place the number is set; the build reads it
 * from here (the shared library's version, the pkg-config file, the tool's
 * --version), so a host compiled against this header and the library it
 * loads can be compared with ostrel_alg_getVersion. A new major number may
 * break hosts built against an older one; a new minor number only adds.
 */
#define OSTREL_ALG_VERSION_MAJOR 0
#define OSTREL_ALG_VERSION_MINOR 1
#define OSTREL_ALG_VERSION_PATCH 0

#if defined(_WIN32)
#if defined(OSTREL_ALG_BUILDING)
#define OSTREL_ALG_API __declspec(dllexport)
#else
#define OSTREL_ALG_API __declspec(dllimport)
#endif
#else
#define OSTREL_ALG_API __attribute__((visibility("default")))
#endif

#if defined(__cplusplus)
#define OSTREL_ALG_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define OSTREL_ALG_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else
#define OSTREL_ALG_STATIC_ASSERT(cond, msg)
#endif

#ifdef __cplusplus
extern "C" {
class ostrel_alg;
#else
/* Opaque engine object; C code only ever holds a pointer to it. */
typedef struct ostrel_alg ostrel_alg;
#endif

/* ------------------------------------------------------------------------
 * Records that cross the boundary
 * ---------------------------------------------------------------------- */

/* Pixel layout values of ostrel_alg_image.format. */
#define OSTREL_ALG_FORMAT_INTERLEAVED 0 /* any value other than 3 */
#define OSTREL_ALG_FORMAT_PLANAR 3

/*
 * Limits of one call, both far above any real use. A call beyond them
 * returns 1 with a log line before the library reads the pixels or boxes or
 * allocates anything for them.
 *   OSTREL_ALG_MAX_PICTURE_PIXELS  width * height of a picture given to
 *     set-up, detection or ostrel_alg_getFeatureMap_ptr: 2^28 pixels (for
 *     instance 16384 x 16384), so width * height * 3 stays below 2^31.
 *   OSTREL_ALG_MAX_MARKED_BOXES    boxes in one set-up call. The feature map
 *     of a picture holds fewer than 400 disjoint windows of the smallest
 *     size a model file takes; each box costs about 250 kB of training
 *     samples at a usual window size.
 */
#define OSTREL_ALG_MAX_PICTURE_PIXELS 268435456
#define OSTREL_ALG_MAX_MARKED_BOXES 1000

/*
 * Sizes of a detector's window, in weights (channels x columns x rows of
 * feature cells), both inclusive: every model file, of either profile,
 * holds windows of OSTREL_ALG_MIN_WINDOW_WEIGHTS to
 * OSTREL_ALG_MAX_WINDOW_WEIGHTS weights, and training refuses a marked box
 * whose window falls outside them (too small or too large a box for the
 * picture). Hosts that advise a person on a box size read them here.
 */
#define OSTREL_ALG_MIN_WINDOW_WEIGHTS 201
#define OSTREL_ALG_MAX_WINDOW_WEIGHTS 5999

/*
 * Image record (40 bytes). Passed by pointer; owned by the host.
 *   width      picture width in pixels, at least 1.
 *   height     picture height in pixels, at least 1; width * height at most
 *              OSTREL_ALG_MAX_PICTURE_PIXELS.
 *   channels   bytes per pixel; must be exactly 3 (8-bit BGR).
 *   data       the pixels, owned by the host, never null. Interleaved:
 *              rows packed one after another, width * height * 3 bytes,
 *              B, G, R per pixel. Planar (format 3): three consecutive
 *              planes of width * height bytes, B plane first.
 *   image_key  host-chosen identifier of the picture, 0 or more. Equal keys
 *              mean equal pixels: the library reuses what it computed for
 *              the last key it saw, so give every different picture its
 *              own key.
 *   aux        for the host; the library neither reads nor writes it.
 *   format     3 = planar, anything else = interleaved. Only detection
 *              reads it; detector set-up always reads interleaved pixels.
 */
typedef struct ostrel_alg_image {
    int32_t width;
    int32_t height;
    int32_t channels;
    uint8_t *data;
    int64_t image_key;
    int32_t aux;
    int32_t format;
} ostrel_alg_image;

/*
 * Box record (32 bytes), the unit of every box list, in both directions.
 *   x, y, width, height  the box in picture pixels (left, top, size).
 *   score         detections: confidence 0..1 in steps of 0.01 (under the
 *                 accurate profile not rounded); a box that
 *                 overlap suppression removed carries -1.0. Marked boxes
 *                 passed in: not read.
 *   label         1 = positive (a box the user marked as the object, or a
 *                 detection at or above the confidence threshold);
 *                 -1 = negative (a detection below the threshold, or a box
 *                 the user marked as background).
 *   color_main    detections: main colour class of the box, 0..8
 *                 (0 dark, 1 middle, 2 light grey; 3..8 chromatic
 *                 classes); 0 otherwise.
 *   color_second  detections: second colour class, 0..8, or 9 when the box
 *                 has no clear second colour; 0 otherwise.
 */
typedef struct ostrel_alg_box {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
    float score;
    int32_t label;
    int32_t color_main;
    int32_t color_second;
} ostrel_alg_box;

/*
 * Pixels of a sample thumbnail (32 bytes): the first five fields of the
 * image record. The engine owns data.
 *   width, height  size of the cut-out in pixels (0 x 0 for a box that lay
 *                  outside the picture; data is then an empty buffer).
 *   channels       3.
 *   data           width * height * 3 bytes, interleaved BGR, owned by the
 *                  engine.
 *   image_key      0.
 */
typedef struct ostrel_alg_thumb_image {
    int32_t width;
    int32_t height;
    int32_t channels;
    uint8_t *data;
    int64_t image_key;
} ostrel_alg_thumb_image;

/*
 * Sample thumbnail record (48 bytes): one marked box, cut out of the
 * training picture so that the host can show what the detector was taught.
 *   label      label of the marked box (1).
 *   reserved0  0.
 *   image      the cut-out pixels, owned by the engine.
 *   reserved1  0.
 * Thumbnail i belongs to training sample i; ostrel_alg_removeSample(i)
 * removes both.
 */
typedef struct ostrel_alg_sample {
    int32_t label;
    int32_t reserved0;
    ostrel_alg_thumb_image image;
    int64_t reserved1;
} ostrel_alg_sample;

OSTREL_ALG_STATIC_ASSERT(sizeof(void *) == 8, "ostrel_alg supports 64-bit platforms only");
OSTREL_ALG_STATIC_ASSERT(sizeof(ostrel_alg_image) == 40, "image record is 40 bytes");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, width) == 0, "image.width at 0");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, height) == 4, "image.height at 4");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, channels) == 8, "image.channels at 8");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, data) == 16, "image.data at 16");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, image_key) == 24, "image.image_key at 24");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, aux) == 32, "image.aux at 32");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_image, format) == 36, "image.format at 36");

OSTREL_ALG_STATIC_ASSERT(sizeof(ostrel_alg_box) == 32, "box record is 32 bytes");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, x) == 0, "box.x at 0");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, y) == 4, "box.y at 4");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, width) == 8, "box.width at 8");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, height) == 12, "box.height at 12");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, score) == 16, "box.score at 16");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, label) == 20, "box.label at 20");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, color_main) == 24, "box.color_main at 24");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_box, color_second) == 28, "box.color_second at 28");

OSTREL_ALG_STATIC_ASSERT(sizeof(ostrel_alg_thumb_image) == 32, "thumbnail pixels are 32 bytes");
OSTREL_ALG_STATIC_ASSERT(sizeof(ostrel_alg_sample) == 48, "sample thumbnail record is 48 bytes");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, label) == 0, "sample.label at 0");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, reserved0) == 4, "sample.reserved0 at 4");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image) == 8, "sample.image at 8");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image.width) == 8, "sample.image.width at 8");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image.height) == 12, "sample.image.height at 12");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image.channels) == 16, "sample.image.channels at 16");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image.data) == 24, "sample.image.data at 24");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, image.image_key) == 32, "sample.image.image_key at 32");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_sample, reserved1) == 40, "sample.reserved1 at 40");

/* ------------------------------------------------------------------------
 * Life cycle
 * ---------------------------------------------------------------------- */

/*
 * Creates and initialises an engine. On 0, *handle holds the new engine,
 * owned by the host until ostrel_alg_destroy(). On 1, *handle is left null
 * (or, if initialisation threw, the half-made engine). handle must not be
 * null.
 */
OSTREL_ALG_API int32_t ostrel_alg_create(ostrel_alg **handle);

/*
 * Writes the version of the library that is loaded (which may differ from
 * the OSTREL_ALG_VERSION_* macros a host was compiled with) to *major,
 * *minor and *patch; any of them may be null and is then skipped. Needs no
 * engine, logs nothing, may be called from any thread at any time. Returns
 * 0.
 */
OSTREL_ALG_API int32_t ostrel_alg_getVersion(int32_t *major, int32_t *minor, int32_t *patch);

/* Tears the engine down and frees it. Every buffer it handed out dies with
 * it. Returns 0; 1 for a null handle. */
OSTREL_ALG_API int32_t ostrel_alg_destroy(ostrel_alg *handle);

/*
 * Re-initialises the engine: discards training samples, thumbnails, the
 * feature extractor and the result buffer, and unsets the model id. A
 * trained model, its false-positive filter and threshold are kept: the
 * engine still detects. What counted the discarded samples goes with them,
 * so the next set-up trains as on a new engine (with random background
 * samples, and taking a picture key it saw before as a new picture).
 * An engine of several classes (see "Classes") keeps every class, its name
 * and its model, and lets every class's samples go.
 */
OSTREL_ALG_API int32_t ostrel_alg_init(ostrel_alg *handle);

/* ------------------------------------------------------------------------
 * Parameters
 * ---------------------------------------------------------------------- */

/* Sensitivities a host may set, both inclusive. */
#define OSTREL_ALG_MIN_SENSITIVITY 0
#define OSTREL_ALG_MAX_SENSITIVITY 100

/*
 * Sets how readily the detector reports a box, 0..100 (higher finds more).
 * The confidence threshold becomes 90 at 0, 50 at 79 and 80, 30 at 100
 * (ostrel_alg_getConfidenceOfSensitivity gives every value).
 * Values above OSTREL_ALG_MAX_SENSITIVITY return 1 and change nothing.
 */
OSTREL_ALG_API int32_t ostrel_alg_setSensitivity(ostrel_alg *handle, uint32_t sensitivity);

/*
 * Writes to *percent the confidence threshold, 30..90, that
 * ostrel_alg_setSensitivity sets for a sensitivity of 0..100: a box is
 * reported when its score reaches it. For hosts that show a person what a
 * sensitivity means before (or without) setting it. Needs no engine, may be
 * called from any thread at any time. Returns 0; 1 with a log line and
 * *percent untouched for a sensitivity above 100 or a null percent (the
 * calling thread's failure record then says which, code
 * OSTREL_ALG_ERR_BAD_ARGUMENT).
 */
OSTREL_ALG_API int32_t ostrel_alg_getConfidenceOfSensitivity(uint32_t sensitivity, uint32_t *percent);

/*
 * Sets the object size the detector is trained for (width, height, in
 * pixels of the training picture) and that picture's size. Training also
 * sets them from the first marked box, so hosts rarely need this call.
 */
OSTREL_ALG_API int32_t ostrel_alg_setTrainingSize(ostrel_alg *handle, uint32_t object_width, uint32_t object_height,
                                                  uint32_t picture_width, uint32_t picture_height);

/* Writes 1 to *trained when the engine holds a trained or imported model,
 * else 0. trained must not be null. */
OSTREL_ALG_API int32_t ostrel_alg_istraied(ostrel_alg *handle, uint8_t *trained);

/* Stores a host-chosen model id (0 or more). A negative id returns 1
 * silently and keeps the old one. */
OSTREL_ALG_API int32_t ostrel_alg_setModelId(ostrel_alg *handle, int32_t model_id);

/* Writes the model id to *model_id. Returns 1 silently, leaving *model_id
 * untouched, while no id is set (after create, init or a failed set). */
OSTREL_ALG_API int32_t ostrel_alg_getModelId(ostrel_alg *handle, uint32_t *model_id);

/* ------------------------------------------------------------------------
 * Options
 *
 * Settings of one engine, chosen by number. They belong to the engine:
 * ostrel_alg_init keeps them. Every option has a range and a default,
 * listed below; numbers are never reused (5 is not assigned).
 *
 * Model files and options: a model file says which profile made it, and
 * importing one sets the engine's profile to the file's (see "Model files"
 * below). A classic model file records no option. An accurate model file
 * records the accurate options it was written with (cells, size steps,
 * overlap, the two heights) and the profile's fixed choices, so that an
 * imported model searches exactly as the exporting engine did: import sets
 * every accurate option the host has not set (with ostrel_alg_setOption) to
 * the file's value and leaves the ones the host set as it set them; a cells
 * option the host set to another value than the file's refuses the import
 * (the window would not fit the weights).
 * ---------------------------------------------------------------------- */

/*
 * OSTREL_ALG_OPTION_PROFILE: how the detector learns and searches.
 * Range 0..1, default OSTREL_ALG_PROFILE_CLASSIC.
 *   OSTREL_ALG_PROFILE_CLASSIC   the library's original behaviour: every
 *                                picture worked on at 242 x 136 pixels, one
 *                                window size, random and self-detected
 *                                background samples.
 *   OSTREL_ALG_PROFILE_ACCURATE  built to find the object more reliably
 *                                in real scenes: objects marked at their own
 *                                sizes; one window of the objects' median
 *                                shape, every object learnt at its own size;
 *                                background learnt from every window of the
 *                                training picture at every searched size;
 *                                mirrored copies of the marked boxes; a
 *                                search over object sizes in pixels on
 *                                pictures of any size; a default threshold
 *                                calibrated on the training pictures.
 * A model trained (or imported) under one profile is only used under that
 * profile: after a change of profile, detection fails with a log line until
 * the profile is set back or a model is trained or imported again. Import
 * takes the profile of the file.
 *
 * Under the accurate profile:
 *   - Set-up does not auto-train: it learns from every window of the
 *     picture (and of its mirror image) at once, mining hard background in
 *     at most 3 rounds.
 *   - Marked boxes (label 1) may have any size. The window is the median
 *     shape (width / height) of the first picture's boxes, of about
 *     OSTREL_ALG_OPTION_ACCURATE_CELLS cells; each box is learnt at its own
 *     size, by resampling the picture so that the box's area fills the
 *     window. A box whose shape differs from the median (or, on later
 *     pictures, from the window's) by more than 2 times, a box more than 16
 *     times wider than high or the reverse, a box that would have to be
 *     enlarged more than 4 times to fill the window, and a picture smaller
 *     than a window at a box's size are refused with a log line, before
 *     anything changes.
 *   - Sizes are heights in pixels: a box of w x h counts as an object of
 *     height sqrt(w * h / a), a the window's shape (for boxes of that shape
 *     their own height). Training records the range of heights it was
 *     taught; detection searches that range widened by 1.5 times on each
 *     side (OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS), or the range the host
 *     sets (OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT and _MAX_HEIGHT), in
 *     pixels of every picture whatever its size: a model trained on 416 x
 *     416 pictures finds objects of the same size in pixels on 1920 x 1080
 *     frames. Sizes beyond the taught range count for less (a prior on
 *     sizes: 3 margin units per 1.5 times beyond it). Six sizes are searched
 *     per doubling; the channels are computed from the picture once per
 *     doubling and approximated for the sizes between (the fast feature
 *     pyramid). Of two detections the weaker is dropped when they overlap by
 *     OSTREL_ALG_OPTION_ACCURATE_OVERLAP or more, or when 70% of the smaller
 *     one lies inside the other (a part of an object found at a smaller
 *     size, or an object found again at a larger one).
 *   - Every search is bounded: at most 48 sizes; the finest size's working
 *     picture at most 4 194 304 pixels (2048 x 2048); no object enlarged
 *     more than 4 times; at most 8 388 608 window positions over all sizes.
 *     With the automatic range its part beyond the taught sizes gives way
 *     to the bounds; when the taught sizes themselves, or the host's range,
 *     would break a bound on a picture, detection fails with a log line
 *     naming the smallest height it could search there. Sizes whose objects
 *     would be more than twice the picture's width or height are left out:
 *     with the automatic range a picture on which no size is left gives no
 *     boxes (status 0); with the host's range it fails with a log line.
 *   - Scores are the logistic function of the classifier's margin, with 50%
 *     (the threshold of sensitivity 80) at a margin learnt at training from
 *     held-out parts of the training pictures and rescaled copies of them.
 *   - Models store the weights and the bias x 10^7 (classic: x 10^5) and
 *     carry no false-positive filter. Detection reports at most 32
 *     detections and 64 boxes below the threshold.
 */
#define OSTREL_ALG_OPTION_PROFILE 1
#define OSTREL_ALG_PROFILE_CLASSIC 0
#define OSTREL_ALG_PROFILE_ACCURATE 1

/*
 * The accurate profile's own options; the classic profile ignores them.
 *
 * OSTREL_ALG_OPTION_ACCURATE_CELLS: feature cells (of 2 x 2 working
 * pixels) that the window holds; the working scale of each size follows
 * from it. Range 36..400, default 100. More cells see more detail and cost
 * more time. It shapes the window: a model is used only with the value it
 * was trained or imported with (detection is refused with a log line
 * otherwise, and an import is refused when the host set another value).
 *
 * OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS: how far the automatic search
 * reaches beyond the taught range of object heights, in steps of 1.5 times
 * on each side. Range 0..4, default 1 (from 1.5 times below the smallest
 * taught object to 1.5 times above the largest); 0 searches the taught
 * range only. Training learns the background over the same range;
 * detection may use another value than training.
 *
 * OSTREL_ALG_OPTION_ACCURATE_OVERLAP: of two detections whose boxes
 * overlap by this much or more (intersection over union, per cent), the
 * weaker is dropped. Range 10..90, default 30. Detection only.
 *
 * OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT, OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT:
 * the range of object heights detection searches, in pixels of the
 * picture. Range 0 or 8..16384 each, default 0: automatic (the taught
 * range and the size steps' margin); one bound set, the other automatic.
 * Setting a minimum above the maximum set, or a maximum below the minimum
 * set, is refused with a log line (set the other one first or to 0).
 * Detection only; the bounds above hold.
 */
#define OSTREL_ALG_OPTION_ACCURATE_CELLS 2
#define OSTREL_ALG_OPTION_ACCURATE_SIZE_STEPS 3
#define OSTREL_ALG_OPTION_ACCURATE_OVERLAP 4
#define OSTREL_ALG_OPTION_ACCURATE_MIN_HEIGHT 6
#define OSTREL_ALG_OPTION_ACCURATE_MAX_HEIGHT 7

/*
 * Sets option number `option` to `value`. Returns 1, with one log line and
 * nothing changed, for a null handle, an unknown option, a value outside
 * the option's range or a height that would put the minimum above the
 * maximum. The engine remembers which options its host set (see "Model
 * files and options" above). Safe on the engine's own thread only, like
 * every call on an engine.
 */
OSTREL_ALG_API int32_t ostrel_alg_setOption(ostrel_alg *handle, int32_t option, int32_t value);

/*
 * The values ostrel_alg_setOption takes for option number `option`, from
 * the table setOption itself checks against: every value from *minimum to
 * *maximum (both inclusive), and *default_value, the option's default (for
 * the two heights 0, automatic, which lies below their minimum of 8). Any
 * of the three pointers may be null and is then skipped. The minimum height
 * must not lie above the maximum set (see above); that depends on the
 * engine, not on the range. Needs no engine, logs nothing on success, may
 * be called from any thread at any time. Returns 0; 1 with a log line and
 * nothing written for an unknown option (the calling thread's failure
 * record then says so, code OSTREL_ALG_ERR_BAD_ARGUMENT).
 */
OSTREL_ALG_API int32_t ostrel_alg_getOptionRange(int32_t option, int32_t *minimum, int32_t *maximum,
                                                 int32_t *default_value);

/*
 * Writes the value of option number `option` to *value (the default until
 * it is set). Returns 1, with one log line and *value untouched, for a
 * null handle, a null value or an unknown option.
 */
OSTREL_ALG_API int32_t ostrel_alg_getOption(ostrel_alg *handle, int32_t option, int32_t *value);

/* ------------------------------------------------------------------------
 * Training
 * ---------------------------------------------------------------------- */

/*
 * Sets up and trains the detector from one picture (interleaved BGR) and
 * the boxes the user marked on it (count records at boxes, count >= 1).
 * Boxes labelled 1 are the object; under the classic profile all should
 * have the same size, the first box's size is the one the detector learns
 * (what follows); under the accurate profile they may have any size (see
 * OSTREL_ALG_OPTION_PROFILE). Everything that is not
 * marked may be taken as background. The detector then tests itself on the
 * picture up to five times and learns from its mistakes.
 * Calling again with the same image_key ignores the boxes and retrains on
 * what the engine already holds (an engine that holds no samples, after
 * init or an import, takes the picture as new). The host keeps ownership of
 * image and boxes.
 *
 * The detector learns the window the first box covers on the picture's
 * feature map of 121 x 68 cells (width * 121 / picture width by height * 68
 * / picture height cells, truncated). Set-up refuses, with status 1 and
 * before anything changes: more than OSTREL_ALG_MAX_MARKED_BOXES boxes; a
 * picture above OSTREL_ALG_MAX_PICTURE_PIXELS; and, for a new picture, a
 * first box smaller than 1 x 1 pixel, whose window covers no whole cell
 * either way or is larger than the map, or whose window differs from that
 * of the samples it would be trained with (the samples the engine holds
 * from earlier pictures, or else those of the first box of this picture
 * that lies inside it). So every picture of one engine is marked at a size
 * that gives one window, and a set-up that returns 0 always leaves a model
 * that detects.
 */
OSTREL_ALG_API int32_t ostrel_alg_setDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image,
                                                  const ostrel_alg_box *boxes, int32_t count);

/*
 * Says, before a person marks it, whether the detector can learn box as
 * the first box of a new picture of picture_width x picture_height pixels,
 * under the engine's rule as set-up applies it (classic profile): the box
 * is at least 1 x 1 pixel; its window on the feature map covers a whole
 * cell each way and no more than the map; it has as many features as the
 * training samples the engine already holds (a model learns one window);
 * and a model file can hold its weights (OSTREL_ALG_MIN_WINDOW_WEIGHTS to
 * OSTREL_ALG_MAX_WINDOW_WEIGHTS: set-up would train such a window, but the
 * model could not be exported). Only the box's size and the picture's size
 * count, not where the box lies. Reads only the box's width and height;
 * changes nothing in the engine but its failure record.
 *   *code receives OSTREL_ALG_ERR_OK when the box can be learnt, else the
 *   reason: BOX_NOT_LEARNABLE (too small, too large, or not the window of
 *   the samples held; the message says which and what to do, for instance
 *   "use a larger box"), BAD_PICTURE (a size below 1 x 1),
 *   PICTURE_TOO_LARGE (above OSTREL_ALG_MAX_PICTURE_PIXELS), WRONG_PROFILE
 *   (the engine is set to the accurate profile, whose set-up checks a
 *   picture's boxes together: there, call set-up and read its failure).
 *   code may be null.
 * Returns 0 when the box can be learnt; 1 when it cannot, or for a null
 * handle or box, with a log line (OSTREL_ALG_LOG_FAILURE) and the reason in
 * the engine's failure record (ostrel_alg_getLastError). The host owns box.
 * Threads: like every call on an engine.
 */
OSTREL_ALG_API int32_t ostrel_alg_checkBox(ostrel_alg *handle, int32_t picture_width, int32_t picture_height,
                                           const ostrel_alg_box *box, int32_t *code);

/*
 * Makes the random background samples of this engine reproducible: from
 * now on they are drawn from the engine's own generator seeded with seed
 * instead of with the current time. The generator gives the draws of the
 * GNU C library's srand(seed)/rand(), on every platform, so a seeded
 * training gives the same model everywhere and on any thread. Without this
 * call every training draws different background samples.
 */
OSTREL_ALG_API int32_t ostrel_alg_setRandomSeed(ostrel_alg *handle, uint32_t seed);

/*
 * Hands out the engine's sample thumbnails: *samples points to *count
 * records owned by the engine (null when count is 0). They stay valid
 * until the next training, ostrel_alg_removeSample, init or destroy.
 */
OSTREL_ALG_API int32_t ostrel_alg_getSamples_ptr(ostrel_alg *handle, ostrel_alg_sample **samples, uint32_t *count);

/*
 * Removes sample number index (its thumbnail and training samples) and
 * retrains. An index at or above the sample count (any index before
 * training) returns 1 silently and changes nothing. When the retraining
 * fails, 1 is returned with a log line and the sample stays removed; the
 * model of the last successful training stays in use.
 */
OSTREL_ALG_API int32_t ostrel_alg_removeSample(ostrel_alg *handle, uint32_t index);

/* Counts the training samples (with their shifted variants) by label. */
OSTREL_ALG_API int32_t ostrel_alg_temp_getNumofSamples(ostrel_alg *handle, uint32_t *positives, uint32_t *negatives);

/* Writes a pointer to a static, null-terminated string naming the method
 * used for negative samples ("BELOW_CONF"). The host must not free it. */
OSTREL_ALG_API int32_t ostrel_alg_temp_getAddNegativeMethod_ptr(ostrel_alg *handle, const char **method);

/* ------------------------------------------------------------------------
 * Detection
 * ---------------------------------------------------------------------- */

/*
 * Runs the detector on a picture (interleaved or planar, see
 * ostrel_alg_image). *boxes points to *count box records owned by the
 * engine, at most 256: detections by falling score (label 1, at most 32),
 * then boxes below the threshold (label -1), then boxes the user marked on
 * this same picture that nothing detected (label 1). They stay valid until
 * the next detection, init or destroy. Every detection is at least 1 x 1
 * pixel and scores 0..1.
 * Fails before any training or import; on a picture above
 * OSTREL_ALG_MAX_PICTURE_PIXELS; on a picture on which the trained box
 * (rescaled with the picture's width and height) would be less than one
 * pixel wide or high; and with a model whose parts do not agree (weights
 * that do not fit the window, a false-positive filter that cannot measure
 * it), which only a hand-made model file can hold.
 * An engine of several classes (see "Classes") computes the picture's
 * channels once and runs every class's classifier on them. Suppression
 * works within each class (boxes of two classes may overlap); each class
 * reports at most 32 detections and its own boxes below the threshold.
 * The list holds the detections of every class by falling score, then the
 * boxes below the threshold by falling score, then each class's boxes
 * marked on this same picture that none of its detections found;
 * ostrel_alg_getBoxClasses_ptr gives the class of each. The 256 records of
 * this form come first from that list. Fails too while a class has no
 * model.
 */
OSTREL_ALG_API int32_t ostrel_alg_runDetector_ptr(ostrel_alg *handle, const ostrel_alg_image *image,
                                                  ostrel_alg_box **boxes, uint32_t *count);

/*
 * Diagnostic: computes afresh the channel feature map that detection and
 * training read for this picture (no cache, no change to detection) and
 * hands it out. Channel c at map column x, map row y is the byte at
 * data[c * columns * rows + x * rows + y] (each channel stored column by
 * column). Channels 0..2 are L, a, b; 3 is gradient magnitude; 4..9 are
 * oriented-gradient histograms. The buffer is owned by the engine and
 * stays valid until the next call of this function, init or destroy.
 * Refuses a picture above OSTREL_ALG_MAX_PICTURE_PIXELS.
 * This is the classic profile's map, whatever the profile.
 */
OSTREL_ALG_API int32_t ostrel_alg_getFeatureMap_ptr(ostrel_alg *handle, const ostrel_alg_image *image,
                                                    const uint8_t **data, uint32_t *channels, uint32_t *columns,
                                                    uint32_t *rows);

/* ------------------------------------------------------------------------
 * Classes: several kinds of object in one model (accurate profile)
 *
 * An engine learns one class of object unless its host names classes. Each
 * class has its own marked pictures, samples, thumbnails and classifier;
 * all share the engine's options (one window size in cells) and its
 * sensitivity. Set-up (ostrel_alg_setDetector*), ostrel_alg_getSamples*,
 * ostrel_alg_removeSample and ostrel_alg_temp_getNumofSamples work on the
 * current class; detection runs every class; export writes every class
 * into one accurate model file, and import reads every class of one.
 *
 * Class indices count from 0 in the order the classes were added (or as the
 * model file lists them). An engine that never names a class holds at most
 * one, unnamed (index 0, name ""), exactly as it always did; naming is only
 * needed to learn more than one. Only the accurate profile holds several
 * classes: ostrel_alg_addClass refuses under the classic profile, and
 * classic set-up refuses on an engine of several classes.
 *
 * Names are 1 to OSTREL_ALG_MAX_CLASS_NAME_BYTES bytes of UTF-8 without
 * control characters, no two alike (byte for byte). At most
 * OSTREL_ALG_MAX_CLASSES classes (the model file's limit).
 *
 * Every call below returns 1, with one log line and nothing changed, for a
 * null handle or out pointer, a bad name or an index at or above the class
 * count. Threads: like every call on an engine, on the engine's own thread
 * only.
 * ---------------------------------------------------------------------- */
#define OSTREL_ALG_MAX_CLASSES 64
#define OSTREL_ALG_MAX_CLASS_NAME_BYTES 255

/*
 * Adds a class named name (null-terminated UTF-8, copied) and makes it the
 * current class; *index (may be null) receives its index. On an engine that
 * holds no class yet (new, or initialised without a model) the new class is
 * class 0; on an engine of one unnamed class that already holds samples or
 * a model, that class stays class 0 (still unnamed) and the new one is 1.
 * The new class has no samples and no model until set-up trains it.
 * Refused: the classic profile, an empty, overlong or non-UTF-8 name, a
 * name already used, and a class beyond OSTREL_ALG_MAX_CLASSES.
 */
OSTREL_ALG_API int32_t ostrel_alg_addClass(ostrel_alg *handle, const char *name, uint32_t *index);

/* Makes class index the current one (for set-up, samples and sample
 * removal). Index 0 is accepted on an engine without classes. */
OSTREL_ALG_API int32_t ostrel_alg_setClass(ostrel_alg *handle, uint32_t index);

/* Writes the current class's index to *index (0 on an engine without
 * classes). */
OSTREL_ALG_API int32_t ostrel_alg_getClass(ostrel_alg *handle, uint32_t *index);

/* Writes the number of classes to *count: 0 for an engine that has neither
 * a class nor a model, 1 for an engine of one class (named or not, or the
 * classic profile's model), else the number added or imported. */
OSTREL_ALG_API int32_t ostrel_alg_getClassCount(ostrel_alg *handle, uint32_t *count);

/* Writes a pointer to class index's name (null-terminated UTF-8, "" for an
 * unnamed class) to *name. The string is owned by the engine and stays
 * valid until the next addClass, setClass, set-up, import, init or
 * destroy. */
OSTREL_ALG_API int32_t ostrel_alg_getClassName_ptr(ostrel_alg *handle, uint32_t index, const char **name);

/*
 * The class of every box of the last detection run: *classes points to
 * *count class indices owned by the engine, the i-th the class of the i-th
 * box the run returned (the C++ form's whole list; the pointer form's
 * boxes are its first ones). All 0 on an engine of one class. Valid until
 * the next detection, init or destroy; count 0 (classes null) before any
 * run and after a failed one.
 */
OSTREL_ALG_API int32_t ostrel_alg_getBoxClasses_ptr(ostrel_alg *handle, const uint32_t **classes, uint32_t *count);

/* ------------------------------------------------------------------------
 * Log handler
 * ---------------------------------------------------------------------- */

/*
 * Receives one message of the library: a null-terminated string, exactly as
 * it would have been printed to standard output (with its line end, or
 * without one where the message has none). message is owned by the library
 * and valid only during the call; user is the pointer given to
 * ostrel_alg_setLogHandler.
 */
typedef void (*ostrel_alg_log_handler)(const char *message, void *user);

/*
 * Sends every message of the library, from every engine and thread, to
 * handler instead of standard output; a null handler sends them to standard
 * output again. The setting is process-wide, like standard output itself.
 * Returns 0.
 *
 * The handler is called on whichever thread is inside a library call and
 * logs, so it must be thread-safe: calls on several threads may run at the
 * same time. Each call delivers one whole message (never a part, never two
 * messages mixed). The handler must return normally (no exception, no
 * longjmp) and must not call the library. A handler that does anyway is
 * contained: ostrel_alg_setLogHandler called from inside a handler changes
 * nothing and returns 1, without a log line (it would go to that same
 * handler); a message the library logs while a handler runs on that thread
 * reaches the same handler, one level deep, and a message logged from
 * inside that second call is dropped, so the handler is never re-entered
 * more than once.
 *
 * Changing the handler waits until the messages being delivered to the old
 * one have been delivered: once this function has returned, the old handler
 * is never called again and its user data may be freed. May be called at
 * any time from any thread, also while other threads are inside the library.
 */
OSTREL_ALG_API int32_t ostrel_alg_setLogHandler(ostrel_alg_log_handler handler, void *user);

/*
 * Severity of a message, set by the library where it writes the message (a
 * program never needs to read the words of a message to sort it):
 *   OSTREL_ALG_LOG_DETAIL    what the library did, for a person tracing it
 *                            (the "[Debug]" lines, the channel routines'
 *                            notes).
 *   OSTREL_ALG_LOG_PROGRESS  a step of a training ended ("[Alg. Scc]"
 *                            lines); the progress records
 *                            (ostrel_alg_setProgressHandler) carry the same
 *                            steps as numbers.
 *   OSTREL_ALG_LOG_FAILURE   why a call fails: the lines logged on the way
 *                            to its status 1, from the one that says what
 *                            was wrong to the location lines ("[Alg.Fail]",
 *                            "[Alg. FAIL!]", ...).
 * Numbers are never reused; treat an unknown severity like DETAIL.
 */
#define OSTREL_ALG_LOG_DETAIL 0
#define OSTREL_ALG_LOG_PROGRESS 1
#define OSTREL_ALG_LOG_FAILURE 2

/*
 * Receives one message of the library with its severity (OSTREL_ALG_LOG_*);
 * message and user as for ostrel_alg_log_handler.
 */
typedef void (*ostrel_alg_log_record_handler)(int32_t severity, const char *message, void *user);

/*
 * Like ostrel_alg_setLogHandler, for a handler that also receives each
 * message's severity. The messages are the same, byte for byte. There is
 * one destination: installing a handler of either kind replaces the handler
 * of the other kind, and a null handler of either kind sends every message
 * to standard output again. Every rule of ostrel_alg_setLogHandler holds:
 * process-wide; called on the logging thread, so thread-safe; one whole
 * message per call; must not call the library (contained as described
 * there: from inside a handler this returns 1 and changes nothing); once it
 * returns, the old handler is never called again. May be called at any
 * time from any thread. Returns 0.
 */
OSTREL_ALG_API int32_t ostrel_alg_setLogRecordHandler(ostrel_alg_log_record_handler handler, void *user);

/* ------------------------------------------------------------------------
 * Errors
 *
 * Every failing call (status 1) also records why, as a code a program can
 * act on and a sentence a person can read. The record belongs to the engine
 * the call was given; a call without an engine (ostrel_alg_create, and any
 * call given a null handle) records into the calling thread's own record
 * instead. A call that succeeds leaves the record as it was: it always
 * holds the last failure, and OSTREL_ALG_ERR_OK only until the first one.
 * The log lines are unchanged by this: they are for people reading a log,
 * the record is what a program reads.
 *
 * Codes (numbers are never reused; a later version may add codes, so treat
 * an unknown one like OSTREL_ALG_ERR_FAILED):
 *   OK                  no failure recorded yet.
 *   FAILED              a failure without a more precise code.
 *   BAD_ARGUMENT        a null handle or out pointer, a negative or zero
 *                       count, an unknown option or a value outside its
 *                       range, a bad class name or index, a bad path, a
 *                       sample index at or above the sample count, an unset
 *                       or negative model id.
 *   BAD_PICTURE         an image record the library cannot read (size below
 *                       1 x 1, channels other than 3, null pixels, a
 *                       negative image_key at set-up).
 *   PICTURE_TOO_LARGE   a picture above OSTREL_ALG_MAX_PICTURE_PIXELS.
 *   TOO_MANY_BOXES      more than OSTREL_ALG_MAX_MARKED_BOXES boxes.
 *   BOX_NOT_LEARNABLE   marked boxes the detector cannot learn a window from
 *                       (too small, too large for the picture, shapes that
 *                       cannot share one window, no box labelled 1, a
 *                       window other than that of the samples held).
 *   PICTURE_TOO_SMALL   a picture on which the trained object cannot be
 *                       searched for (smaller than one pixel there, or
 *                       outside the search's bounds).
 *   NOT_TRAINED         detection or export without a model, or a class
 *                       without one.
 *   WRONG_PROFILE       the model or the engine's classes belong to the other
 *                       profile, or an option that shapes the window changed
 *                       since the model was made.
 *   MODEL_FILE_UNREADABLE  the model file cannot be opened or read.
 *   MODEL_INVALID       a model file, or a model in the engine, that the
 *                       checks refuse: values out of range, a file cut
 *                       short, a CRC-32 that does not match.
 *   MODEL_FILE_UNWRITABLE  the model file cannot be created or written.
 *   NOTHING_TO_LEARN    training found no samples, or samples of one label
 *                       only, or the solver refused them.
 *   OUT_OF_MEMORY       memory ran out.
 *   INTERNAL            an unexpected error inside the library (an
 *                       exception it did not foresee); the message says
 *                       what.
 * ---------------------------------------------------------------------- */
#define OSTREL_ALG_ERR_OK 0
#define OSTREL_ALG_ERR_FAILED 1
#define OSTREL_ALG_ERR_BAD_ARGUMENT 2
#define OSTREL_ALG_ERR_BAD_PICTURE 3
#define OSTREL_ALG_ERR_PICTURE_TOO_LARGE 4
#define OSTREL_ALG_ERR_TOO_MANY_BOXES 5
#define OSTREL_ALG_ERR_BOX_NOT_LEARNABLE 6
#define OSTREL_ALG_ERR_PICTURE_TOO_SMALL 7
#define OSTREL_ALG_ERR_NOT_TRAINED 8
#define OSTREL_ALG_ERR_WRONG_PROFILE 9
#define OSTREL_ALG_ERR_MODEL_FILE_UNREADABLE 10
#define OSTREL_ALG_ERR_MODEL_INVALID 11
#define OSTREL_ALG_ERR_MODEL_FILE_UNWRITABLE 12
#define OSTREL_ALG_ERR_NOTHING_TO_LEARN 13
#define OSTREL_ALG_ERR_OUT_OF_MEMORY 14
#define OSTREL_ALG_ERR_INTERNAL 15

/* Bytes of the longest message, its terminating null included: a buffer of
 * this size always receives the whole message. */
#define OSTREL_ALG_MAX_ERROR_MESSAGE_BYTES 1024

/*
 * Reads the last failure of engine handle, or with a null handle the last
 * failure of a call without an engine on the calling thread (see above).
 *   code     receives the OSTREL_ALG_ERR_* code; may be null.
 *   buffer   receives the message: UTF-8 (paths as the host gave them),
 *            null-terminated, one sentence without a line end, "" for
 *            OSTREL_ALG_ERR_OK. At most size bytes are written, the null
 *            included: a longer message is cut (at a character boundary)
 *            to fit. The host owns the buffer. May be null when size is 0.
 *   size     bytes at buffer.
 * Reading changes nothing and logs nothing. Returns 0; 1 (nothing written)
 * when buffer is null and size is not 0. Threads: an engine's record like
 * every call on that engine (its own thread only); the null handle's record
 * is the calling thread's, so any thread may read its own at any time.
 */
OSTREL_ALG_API int32_t ostrel_alg_getLastError(ostrel_alg *handle, int32_t *code, char *buffer, size_t size);

/* ------------------------------------------------------------------------
 * Progress
 *
 * A host that shows how training and detection go installs a progress
 * handler on the engine. The engine calls it at each step of set-up
 * (ostrel_alg_setDetector*, and the retraining of ostrel_alg_removeSample)
 * and at the end of each detection run (ostrel_alg_runDetector*), with one
 * record that says which step ended and what it counted. The log lines
 * report the training's steps in words, for people; a program reads these
 * records. A handler changes nothing else: the same log lines, models and
 * boxes as without one.
 *
 * Stages (numbers are never reused; ignore a stage you do not know):
 *   SAMPLES        classic: samples were cut for the marked boxes or for
 *                  the wrong detections of a pass. samples = the training
 *                  samples the engine holds now.
 *   BOX_SKIPPED    classic: a box reaching past the picture (or too small
 *                  for one cell) got no sample. boxes_skipped = 1.
 *   FILTER_REBUILT classic: the false-positive filter was rebuilt from the
 *                  new positives.
 *   TRAINED        the classifier was trained (classic: after the first
 *                  samples and after every pass; accurate: once, at the
 *                  end). samples as above (classic).
 *   PASS           classic: an auto-training pass ended. round = the pass
 *                  (1..5), false_positives and low_confidence = the wrong
 *                  and the weak detections that became background.
 *   ACCURATE_TRAINING  accurate: the first training ended.
 *                  object_windows, background_windows = what it learnt.
 *   MINING_ROUND   accurate: a round of mining ended. round = the round,
 *                  hard_windows_added of hard_windows_found were added;
 *                  object_windows, background_windows = the totals now.
 *   DETECTION      either profile: a detection run of the host's call
 *                  ended and returns its boxes. done of total pictures are
 *                  searched (a call searches one picture: 1 of 1). A run
 *                  that fails reports nothing. The detections of a
 *                  training's own passes are part of the training and are
 *                  not reported.
 * Fields a stage does not name are 0. seconds = time since the host's call
 * began.
 * ---------------------------------------------------------------------- */
#define OSTREL_ALG_STAGE_SAMPLES 1
#define OSTREL_ALG_STAGE_BOX_SKIPPED 2
#define OSTREL_ALG_STAGE_FILTER_REBUILT 3
#define OSTREL_ALG_STAGE_TRAINED 4
#define OSTREL_ALG_STAGE_PASS 5
#define OSTREL_ALG_STAGE_ACCURATE_TRAINING 6
#define OSTREL_ALG_STAGE_MINING_ROUND 7
#define OSTREL_ALG_STAGE_DETECTION 8

/* Progress record (56 bytes), owned by the library, valid during the
 * handler's call only. done and total came after the first version's 48
 * bytes; a host built against that version reads those 48 as before. */
typedef struct ostrel_alg_progress {
    int32_t stage;
    int32_t round;
    int32_t samples;
    int32_t boxes_skipped;
    int32_t false_positives;
    int32_t low_confidence;
    int32_t object_windows;
    int32_t background_windows;
    int32_t hard_windows_added;
    int32_t hard_windows_found;
    double seconds;
    int32_t done;
    int32_t total;
} ostrel_alg_progress;

OSTREL_ALG_STATIC_ASSERT(sizeof(ostrel_alg_progress) == 56, "progress record is 56 bytes");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_progress, seconds) == 40, "progress.seconds at 40");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_progress, done) == 48, "progress.done at 48");
OSTREL_ALG_STATIC_ASSERT(offsetof(ostrel_alg_progress, total) == 52, "progress.total at 52");

/* Receives one progress record; user is the pointer given with the
 * handler. */
typedef void (*ostrel_alg_progress_handler)(const ostrel_alg_progress *progress, void *user);

/*
 * Installs handler (null: none) as engine handle's progress handler, with
 * user passed back to it; replaces the one before. The handler is called on
 * the thread that runs the engine's call, inside that call, so it needs no
 * lock of its own for this engine; it must return normally and must not
 * call the library with this engine (other engines are fine). Kept by
 * init, like the options. Returns 0; 1 for a null handle.
 */
OSTREL_ALG_API int32_t ostrel_alg_setProgressHandler(ostrel_alg *handle, ostrel_alg_progress_handler handler,
                                                     void *user);

/* ------------------------------------------------------------------------
 * Model files
 * Paths are null-terminated. _ptr forms take the platform's narrow file
 * names: UTF-8 on Linux, the ANSI code page on Windows (what fopen takes).
 * _bstr forms take UTF-16 (wchar_t on Windows, char16_t elsewhere; C++
 * hosts on Windows may pass char16_t strings too) and convert it: on
 * Windows to the calling thread's ANSI code page (WideCharToMultiByte,
 * CP_THREAD_ACP), elsewhere to UTF-8. A null path, a path of more than
 * 32767 UTF-16 units, an unpaired surrogate or a failed conversion returns
 * 1 with one log line.
 * ---------------------------------------------------------------------- */

/*
 * Two formats, and the file says which (docs/model-formats.md):
 *   - the classic format, without a magic number, as it always was; every
 *     model made under the classic profile is written so, byte for byte as
 *     before, and read as before (the same lines, the same model);
 *   - the accurate format: the magic 4F 53 54 C1 0D 0A 1A 0A, a format
 *     version (1), the shared settings, one record per class (the window,
 *     the taught heights, the calibration, the weights) and the same CRC-32
 *     trailer. Its first four bytes, read as the classic format's class
 *     index, are negative, which the classic checks refuse: no file can
 *     pass as both.
 * The first bytes alone choose the reader. A file of the accurate format
 * holds one or more named classes (see "Classes"); export writes every
 * class of the engine and import reads every class of the file.
 */

/* Writes the trained model to path (overwriting), in the format of the
 * profile the model was made (or imported) under. Fails (silently) before
 * training. */
OSTREL_ALG_API int32_t ostrel_alg_exportModel_ptr(ostrel_alg *handle, const char *path);
/*
 * Loads a model file of either format into the engine and sets the engine's
 * profile to the file's (OSTREL_ALG_OPTION_PROFILE reads it back): an
 * engine set to the accurate profile that imports a classic file becomes
 * classic, and the reverse. An accurate file also sets the accurate options
 * its host has not set (see "Options"). The engine's samples, thumbnails
 * and result buffer are discarded, and the next set-up trains as on a new
 * engine. The file is read and checked before the engine changes: an import
 * that fails (the file cannot be opened or read, or holds values the checks
 * refuse) leaves the engine exactly as it was - its profile and options,
 * model, filter and threshold, samples, thumbnails and results - and none of
 * the file's values becomes active. A classic import does not check the
 * CRC: validate first. An accurate import checks everything, the CRC
 * included, and refuses with one log line that says why: a wrong format
 * version, a file cut short, counts or lengths that do not agree, a value
 * out of its range, class names that are not UTF-8 or not distinct, a CRC
 * that does not match, or a cells option the host set to another value.
 * The engine then holds the file's classes, class 0 current.
 */
OSTREL_ALG_API int32_t ostrel_alg_importModel_ptr(ostrel_alg *handle, const char *path);
/* Checks a model file of either format (records and CRC-32) without loading
 * it: 0 = valid. An accurate file that is not valid gets one log line that
 * says why. */
OSTREL_ALG_API int32_t ostrel_alg_checkModelValidation_ptr(ostrel_alg *handle, const char *path);

#if defined(_WIN32)
typedef wchar_t ostrel_alg_utf16;
#elif defined(__cplusplus)
typedef char16_t ostrel_alg_utf16;
#else
typedef uint_least16_t ostrel_alg_utf16; /* same representation as char16_t */
#endif

OSTREL_ALG_API int32_t ostrel_alg_exportModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path);
OSTREL_ALG_API int32_t ostrel_alg_importModel_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path);
OSTREL_ALG_API int32_t ostrel_alg_checkModelValidation_bstr(ostrel_alg *handle, const ostrel_alg_utf16 *path);

#ifdef __cplusplus
} /* extern "C" */

#if defined(_WIN32)
/* C++ on Windows: char16_t strings (u"...") are UTF-16 as well, so portable
 * C++ hosts can write one call for every platform. Inline, nothing is
 * exported; templates, so that a null pointer still picks the wchar_t form. */
#include <type_traits>

template <typename Char, typename = typename std::enable_if<std::is_same<Char, char16_t>::value>::type>
inline int32_t ostrel_alg_exportModel_bstr(ostrel_alg *handle, const Char *path) {
    return ostrel_alg_exportModel_bstr(handle, reinterpret_cast<const wchar_t *>(path));
}
template <typename Char, typename = typename std::enable_if<std::is_same<Char, char16_t>::value>::type>
inline int32_t ostrel_alg_importModel_bstr(ostrel_alg *handle, const Char *path) {
    return ostrel_alg_importModel_bstr(handle, reinterpret_cast<const wchar_t *>(path));
}
template <typename Char, typename = typename std::enable_if<std::is_same<Char, char16_t>::value>::type>
inline int32_t ostrel_alg_checkModelValidation_bstr(ostrel_alg *handle, const Char *path) {
    return ostrel_alg_checkModelValidation_bstr(handle, reinterpret_cast<const wchar_t *>(path));
}
#endif

/* ------------------------------------------------------------------------
 * C++ convenience forms. Unmangled like the rest; usable only when the host
 * and the library share one C++ runtime: on Linux any host built with
 * libstdc++; on Windows only hosts built with the same MinGW-w64 g++ as the
 * DLL (a Visual C++ host uses the pointer forms). Each has a pointer form
 * above.
 * ---------------------------------------------------------------------- */
#include <string>
#include <vector>

extern "C" {
/* Like ostrel_alg_setDetector_ptr with boxes.data(), boxes.size(). */
OSTREL_ALG_API int32_t ostrel_alg_setDetector(ostrel_alg *handle, const ostrel_alg_image *image,
                                              const std::vector<ostrel_alg_box> &boxes);
/* Appends every box of the run to out (no 256 limit); the engine's own
 * copy (see the _ptr form) is refreshed too. out is the host's. */
OSTREL_ALG_API int32_t ostrel_alg_runDetector(ostrel_alg *handle, const ostrel_alg_image *image,
                                              std::vector<ostrel_alg_box> &out);
/* Replaces the contents of out with copies of the thumbnail records. The
 * copies point at the engine's pixel buffers: do not free them. */
OSTREL_ALG_API int32_t ostrel_alg_getSamples(ostrel_alg *handle, std::vector<ostrel_alg_sample> &out);
/* Assigns "BELOW_CONF" to method. */
OSTREL_ALG_API int32_t ostrel_alg_temp_getAddNegativeMethod(ostrel_alg *handle, std::string &method);
OSTREL_ALG_API int32_t ostrel_alg_exportModel(ostrel_alg *handle, std::string path);
OSTREL_ALG_API int32_t ostrel_alg_importModel(ostrel_alg *handle, std::string path);
OSTREL_ALG_API int32_t ostrel_alg_checkModelValidation(ostrel_alg *handle, std::string path);
} /* extern "C" */
#endif /* __cplusplus */

#endif /* OSTREL_ALG_H */
