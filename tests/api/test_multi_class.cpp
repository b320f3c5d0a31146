// Several kinds of object in one model, through the public header only:
//   - an engine without named classes holds at most one, as it always did;
//   - classes are added by name, trained one after the other (each from
//     its own picture and boxes), listed by count and name;
//   - one detection run searches every class and says each box's class;
//     each class finds what an engine of that class alone finds;
//   - export writes every class into one file, which validates; a fresh
//     engine imports it and detects the same boxes, scores and classes;
//   - bad names, too many classes, unknown indices, the classic profile and
//     untrained classes are refused with one log line and status 1, the
//     engine unchanged.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ostrel_alg.h"
#include "support/bccd_picture.h"
#include "support/stdout_capture.h"
#include "support/voc.h"

namespace {

using ostrel_test::image_record;
using ostrel_test::load_bccd;

int64_t fresh_key() {
    static int64_t next = 9100000;
    return next++;
}

struct taught_class {
    const char *name;
    const char *picture;
};
// RBC and WBC from one picture, Platelets from another.
const taught_class kClasses[] = {{"RBC", "BloodImage_00000"},
                                 {"WBC", "BloodImage_00000"},
                                 {"Platelets", "BloodImage_00005"}};

ostrel_alg *accurate_engine() {
    ostrel_alg *engine = nullptr;
    EXPECT_EQ(ostrel_alg_create(&engine), 0);
    EXPECT_EQ(ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, OSTREL_ALG_PROFILE_ACCURATE), 0);
    EXPECT_EQ(ostrel_alg_setRandomSeed(engine, 1), 0);
    return engine;
}

void train_current(ostrel_alg *engine, const taught_class &c) {
    const ostrel_test::bccd_picture training = load_bccd(c.picture);
    std::vector<ostrel_alg_box> marked = ostrel_test::annotation_boxes(training.objects, c.name);
    ASSERT_FALSE(marked.empty()) << c.name;
    const ostrel_alg_image image = image_record(training.pixels, fresh_key());
    ASSERT_EQ(ostrel_alg_setDetector_ptr(engine, &image, marked.data(), static_cast<int32_t>(marked.size())), 0)
        << c.name;
}

ostrel_alg *three_class_engine() {
    ostrel_alg *engine = accurate_engine();
    for (const taught_class &c : kClasses) {
        uint32_t index = 99;
        EXPECT_EQ(ostrel_alg_addClass(engine, c.name, &index), 0);
        EXPECT_EQ(index, static_cast<uint32_t>(&c - kClasses));
        train_current(engine, c);
    }
    return engine;
}

struct run_result {
    std::vector<ostrel_alg_box> boxes;
    std::vector<uint32_t> classes;
};

run_result run(ostrel_alg *engine, const char *stem) {
    const ostrel_test::bccd_picture p = load_bccd(stem);
    const ostrel_alg_image image = image_record(p.pixels, fresh_key());
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    run_result r;
    EXPECT_EQ(ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count), 0);
    r.boxes.assign(boxes, boxes + count);
    const uint32_t *classes = nullptr;
    uint32_t class_count = 0;
    EXPECT_EQ(ostrel_alg_getBoxClasses_ptr(engine, &classes, &class_count), 0);
    EXPECT_EQ(class_count, count);
    if (classes != nullptr) r.classes.assign(classes, classes + class_count);
    return r;
}

std::string name_of(ostrel_alg *engine, uint32_t index) {
    const char *name = nullptr;
    EXPECT_EQ(ostrel_alg_getClassName_ptr(engine, index, &name), 0);
    return name == nullptr ? "(null)" : name;
}

uint32_t class_count(ostrel_alg *engine) {
    uint32_t count = 999;
    EXPECT_EQ(ostrel_alg_getClassCount(engine, &count), 0);
    return count;
}

float iou(const ostrel_alg_box &a, const ostrel_alg_box &b) {
    const int ix = std::max(0, std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x));
    const int iy = std::max(0, std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y));
    const float inter = static_cast<float>(ix) * static_cast<float>(iy);
    return inter / (static_cast<float>(a.width) * a.height + static_cast<float>(b.width) * b.height - inter);
}

class MultiClass : public testing::Test {
protected:
    static void SetUpTestSuite() {
        engine_ = three_class_engine();
        path_ = testing::TempDir() + "multi_class_three.model";
        ASSERT_EQ(ostrel_alg_exportModel_ptr(engine_, path_.c_str()), 0);
    }
    static void TearDownTestSuite() {
        ostrel_alg_destroy(engine_);
        std::remove(path_.c_str());
    }
    static ostrel_alg *engine_;
    static std::string path_;
};
ostrel_alg *MultiClass::engine_ = nullptr;
std::string MultiClass::path_;

TEST(MultiClassNames, AnEngineWithoutNamesHoldsOneClassAtMost) {
    ostrel_alg *engine = accurate_engine();
    EXPECT_EQ(class_count(engine), 0u);
    uint32_t current = 99;
    EXPECT_EQ(ostrel_alg_getClass(engine, &current), 0);
    EXPECT_EQ(current, 0u);
    EXPECT_EQ(ostrel_alg_setClass(engine, 0), 0);
    const uint32_t *classes = reinterpret_cast<const uint32_t *>(1);
    uint32_t count = 99;
    EXPECT_EQ(ostrel_alg_getBoxClasses_ptr(engine, &classes, &count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(classes, nullptr);
    train_current(engine, kClasses[0]);
    EXPECT_EQ(class_count(engine), 1u);
    EXPECT_EQ(name_of(engine, 0), "");
    const run_result r = run(engine, "BloodImage_00003");
    ASSERT_FALSE(r.boxes.empty());
    EXPECT_EQ(r.classes, std::vector<uint32_t>(r.boxes.size(), 0u));
    // Naming now adds a second class; the first stays unnamed.
    uint32_t index = 99;
    ASSERT_EQ(ostrel_alg_addClass(engine, "WBC", &index), 0);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(class_count(engine), 2u);
    EXPECT_EQ(name_of(engine, 0), "");
    EXPECT_EQ(name_of(engine, 1), "WBC");
    ostrel_alg_destroy(engine);
}

TEST_F(MultiClass, ClassesAreListedByIndex) {
    ASSERT_EQ(class_count(engine_), 3u);
    for (uint32_t k = 0; k < 3; ++k) EXPECT_EQ(name_of(engine_, k), kClasses[k].name);
    uint32_t current = 99;
    EXPECT_EQ(ostrel_alg_getClass(engine_, &current), 0);
    EXPECT_EQ(current, 2u);  // the last one added
}

TEST_F(MultiClass, OneRunFindsEveryClassAndSaysWhichIsWhich) {
    const run_result r = run(engine_, "BloodImage_00003");
    ASSERT_EQ(r.classes.size(), r.boxes.size());
    std::vector<int> found(3, 0);
    float last_score = 2.0f;
    for (size_t i = 0; i < r.boxes.size(); ++i) {
        ASSERT_LT(r.classes[i], 3u);
        if (r.boxes[i].label != 1) continue;
        ++found[r.classes[i]];
        EXPECT_LE(r.boxes[i].score, last_score) << "detections come by falling score over every class";
        last_score = r.boxes[i].score;
    }
    EXPECT_GE(found[0], 5) << "red cells";
    EXPECT_GE(found[1], 1) << "the white cell";
    // The white cell is found as WBC where the annotation has it.
    const ostrel_test::bccd_picture p = load_bccd("BloodImage_00003");
    const std::vector<ostrel_alg_box> wbc = ostrel_test::annotation_boxes(p.objects, "WBC");
    ASSERT_EQ(wbc.size(), 1u);
    bool wbc_found = false;
    for (size_t i = 0; i < r.boxes.size(); ++i) {
        wbc_found = wbc_found || (r.boxes[i].label == 1 && r.classes[i] == 1 && iou(r.boxes[i], wbc[0]) >= 0.5f);
    }
    EXPECT_TRUE(wbc_found);
}

// Annotated objects of `name` on a picture that detections (label 1) of
// class k find at IoU 0.5 or more.
int objects_found(const run_result &r, uint32_t k, const char *stem, const char *name) {
    const ostrel_test::bccd_picture p = load_bccd(stem);
    int found = 0;
    for (const ostrel_alg_box &object : ostrel_test::annotation_boxes(p.objects, name)) {
        for (size_t i = 0; i < r.boxes.size(); ++i) {
            if (r.classes[i] == k && r.boxes[i].label == 1 && iou(object, r.boxes[i]) >= 0.5f) {
                ++found;
                break;
            }
        }
    }
    return found;
}

TEST_F(MultiClass, EachClassFindsWhatItsOwnEngineFinds) {
    // Each class alone, trained exactly as in the engine of three. The
    // shared pyramid's sizes are those of the class with the smallest
    // objects (Platelets), which therefore finds exactly the same boxes;
    // the other classes search sizes a fraction of a step from their own
    // and find the annotated objects as well as alone.
    const char *pictures[] = {"BloodImage_00003", "BloodImage_00004", "BloodImage_00006"};
    for (uint32_t k = 0; k < 3; ++k) {
        ostrel_alg *alone = accurate_engine();
        train_current(alone, kClasses[k]);
        int found_alone = 0, found_together = 0;
        for (const char *stem : pictures) {
            const run_result together = run(engine_, stem);
            const run_result own = run(alone, stem);
            found_alone += objects_found(own, 0, stem, kClasses[k].name);
            found_together += objects_found(together, k, stem, kClasses[k].name);
            if (k != 2) continue;
            std::vector<ostrel_alg_box> mine;
            for (size_t i = 0; i < together.boxes.size(); ++i) {
                if (together.classes[i] == k && together.boxes[i].label == 1) mine.push_back(together.boxes[i]);
            }
            std::vector<ostrel_alg_box> theirs;
            for (const ostrel_alg_box &b : own.boxes) {
                if (b.label == 1) theirs.push_back(b);
            }
            ASSERT_EQ(mine.size(), theirs.size()) << stem;
            for (size_t i = 0; i < mine.size(); ++i) {
                EXPECT_EQ(mine[i].x, theirs[i].x);
                EXPECT_EQ(mine[i].y, theirs[i].y);
                EXPECT_EQ(mine[i].width, theirs[i].width);
                EXPECT_EQ(mine[i].height, theirs[i].height);
                EXPECT_EQ(mine[i].score, theirs[i].score);
            }
        }
        std::printf("%s: %d objects found alone, %d together\n", kClasses[k].name, found_alone, found_together);
        EXPECT_GE(found_together, found_alone - 1) << kClasses[k].name;
        ostrel_alg_destroy(alone);
    }
}

TEST_F(MultiClass, AFreshEngineImportsEveryClassAndDetectsTheSame) {
    EXPECT_EQ(ostrel_alg_checkModelValidation_ptr(engine_, path_.c_str()), 0);
    ostrel_alg *fresh = nullptr;
    ASSERT_EQ(ostrel_alg_create(&fresh), 0);  // profile never set: the file decides
    ASSERT_EQ(ostrel_alg_importModel_ptr(fresh, path_.c_str()), 0);
    ASSERT_EQ(class_count(fresh), 3u);
    for (uint32_t k = 0; k < 3; ++k) EXPECT_EQ(name_of(fresh, k), kClasses[k].name);
    uint32_t current = 99;
    EXPECT_EQ(ostrel_alg_getClass(fresh, &current), 0);
    EXPECT_EQ(current, 0u);
    for (const char *stem : {"BloodImage_00003", "BloodImage_00006"}) {
        const run_result a = run(engine_, stem);
        const run_result b = run(fresh, stem);
        // The marked boxes of a training picture are reported by the
        // trained engine only; these are test pictures.
        ASSERT_EQ(a.boxes.size(), b.boxes.size()) << stem;
        EXPECT_EQ(a.classes, b.classes) << stem;
        for (size_t i = 0; i < a.boxes.size(); ++i) {
            EXPECT_EQ(a.boxes[i].x, b.boxes[i].x);
            EXPECT_EQ(a.boxes[i].y, b.boxes[i].y);
            EXPECT_EQ(a.boxes[i].width, b.boxes[i].width);
            EXPECT_EQ(a.boxes[i].height, b.boxes[i].height);
            EXPECT_EQ(a.boxes[i].score, b.boxes[i].score);
            EXPECT_EQ(a.boxes[i].label, b.boxes[i].label);
            EXPECT_EQ(a.boxes[i].color_main, b.boxes[i].color_main);
        }
    }
    // Exported again, the file is the same bytes.
    const std::string again = testing::TempDir() + "multi_class_again.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(fresh, again.c_str()), 0);
    FILE *x = std::fopen(path_.c_str(), "rb");
    FILE *y = std::fopen(again.c_str(), "rb");
    ASSERT_NE(x, nullptr);
    ASSERT_NE(y, nullptr);
    int cx = 0, cy = 0;
    size_t bytes = 0;
    do {
        cx = std::fgetc(x);
        cy = std::fgetc(y);
        ++bytes;
        ASSERT_EQ(cx, cy) << "byte " << bytes;
    } while (cx != EOF);
    std::fclose(x);
    std::fclose(y);
    std::remove(again.c_str());
    ostrel_alg_destroy(fresh);
}

TEST_F(MultiClass, InitKeepsEveryClassAndItsModel) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, path_.c_str()), 0);
    const run_result before = run(engine, "BloodImage_00003");
    ASSERT_EQ(ostrel_alg_init(engine), 0);
    EXPECT_EQ(class_count(engine), 3u);
    const run_result after = run(engine, "BloodImage_00003");
    EXPECT_EQ(before.classes, after.classes);
    ASSERT_EQ(before.boxes.size(), after.boxes.size());
    for (size_t i = 0; i < before.boxes.size(); ++i) EXPECT_EQ(before.boxes[i].score, after.boxes[i].score);
    ostrel_alg_destroy(engine);
}

TEST_F(MultiClass, RetrainingAClassReplacesItsModelOnly) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(engine, 1), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, path_.c_str()), 0);
    const run_result before = run(engine, "BloodImage_00003");
    // WBC taught again from another picture: RBC and Platelets keep theirs.
    ASSERT_EQ(ostrel_alg_setClass(engine, 1), 0);
    train_current(engine, {"WBC", "BloodImage_00002"});
    const run_result after = run(engine, "BloodImage_00003");
    for (uint32_t k : {0u, 2u}) {
        std::vector<float> a, b;
        for (size_t i = 0; i < before.boxes.size(); ++i) {
            if (before.classes[i] == k) a.push_back(before.boxes[i].score);
        }
        for (size_t i = 0; i < after.boxes.size(); ++i) {
            if (after.classes[i] == k) b.push_back(after.boxes[i].score);
        }
        EXPECT_EQ(a, b) << "class " << k;
    }
    EXPECT_EQ(class_count(engine), 3u);
    EXPECT_EQ(name_of(engine, 1), "WBC");
    ostrel_alg_destroy(engine);
}

// A call that must refuse: status 1, one log line that holds `reason`.
template <typename Call>
void expect_refused(Call call, const char *reason) {
    int32_t status = 0;
    const std::string printed = ostrel_test::capture_stdout([&] { status = call(); });
    EXPECT_EQ(status, 1) << reason;
    EXPECT_NE(printed.find(reason), std::string::npos) << printed;
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
}

TEST(MultiClassBadInput, NamesAreRefusedWithAReason) {
    ostrel_alg *engine = accurate_engine();
    ASSERT_EQ(ostrel_alg_addClass(engine, "pawn", nullptr), 0);
    expect_refused([&] { return ostrel_alg_addClass(engine, nullptr, nullptr); }, "name must not be null");
    expect_refused([&] { return ostrel_alg_addClass(engine, "", nullptr); }, "must not be empty");
    expect_refused([&] { return ostrel_alg_addClass(engine, std::string(256, 'x').c_str(), nullptr); },
                   "longer than 255 bytes");
    expect_refused([&] { return ostrel_alg_addClass(engine, "caf\xE9", nullptr); }, "not UTF-8");
    expect_refused([&] { return ostrel_alg_addClass(engine, "two\nlines", nullptr); }, "control character");
    expect_refused([&] { return ostrel_alg_addClass(engine, "pawn", nullptr); }, "class 0 is already named \"pawn\"");
    EXPECT_EQ(class_count(engine), 1u);
    EXPECT_EQ(name_of(engine, 0), "pawn");
    ASSERT_EQ(ostrel_alg_addClass(engine, std::string(255, 'x').c_str(), nullptr), 0);
    EXPECT_EQ(class_count(engine), 2u);
    ostrel_alg_destroy(engine);
}

TEST(MultiClassBadInput, AtMostTheLimitOfClasses) {
    ostrel_alg *engine = accurate_engine();
    for (int k = 0; k < OSTREL_ALG_MAX_CLASSES; ++k) {
        ASSERT_EQ(ostrel_alg_addClass(engine, ("class " + std::to_string(k)).c_str(), nullptr), 0);
    }
    expect_refused([&] { return ostrel_alg_addClass(engine, "one too many", nullptr); },
                   "holds 64 classes, the most a model holds");
    EXPECT_EQ(class_count(engine), static_cast<uint32_t>(OSTREL_ALG_MAX_CLASSES));
    uint32_t current = 0;
    EXPECT_EQ(ostrel_alg_getClass(engine, &current), 0);
    EXPECT_EQ(current, 63u);
    ostrel_alg_destroy(engine);
}

TEST(MultiClassBadInput, UnknownIndicesAreRefused) {
    ostrel_alg *engine = accurate_engine();
    ASSERT_EQ(ostrel_alg_addClass(engine, "a", nullptr), 0);
    ASSERT_EQ(ostrel_alg_addClass(engine, "b", nullptr), 0);
    expect_refused([&] { return ostrel_alg_setClass(engine, 2); }, "there is no class 2; the engine holds 2");
    const char *name = "untouched";
    expect_refused([&] { return ostrel_alg_getClassName_ptr(engine, 7, &name); }, "there is no class 7");
    EXPECT_STREQ(name, "untouched");
    uint32_t current = 0;
    EXPECT_EQ(ostrel_alg_getClass(engine, &current), 0);
    EXPECT_EQ(current, 1u);
    expect_refused([&] { return ostrel_alg_getClassName_ptr(engine, 0, nullptr); }, "name must not be null");
    expect_refused([&] { return ostrel_alg_getClassCount(engine, nullptr); }, "count must not be null");
    expect_refused([&] { return ostrel_alg_getClass(nullptr, &current); }, "ostrel_alg_getClass (ostrel_alg_lib");
    ostrel_alg_destroy(engine);
}

TEST(MultiClassBadInput, TheClassicProfileLearnsOneClass) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    expect_refused([&] { return ostrel_alg_addClass(engine, "pawn", nullptr); },
                   "only the accurate profile learns several classes");
    EXPECT_EQ(class_count(engine), 0u);
    ostrel_alg_destroy(engine);
}

TEST(MultiClassBadInput, AClassWithoutAModelStopsDetectionAndExport) {
    ostrel_alg *engine = accurate_engine();
    ASSERT_EQ(ostrel_alg_addClass(engine, "RBC", nullptr), 0);
    train_current(engine, kClasses[0]);
    ASSERT_EQ(ostrel_alg_addClass(engine, "WBC", nullptr), 0);
    ASSERT_EQ(ostrel_alg_setClass(engine, 0), 0);  // the current class is trained; WBC is not
    const ostrel_test::bccd_picture p = load_bccd("BloodImage_00003");
    const ostrel_alg_image image = image_record(p.pixels, fresh_key());
    ostrel_alg_box *boxes = nullptr;
    uint32_t count = 0;
    expect_refused([&] { return ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count); },
                   "class 1 (\"WBC\") has no model yet");
    const std::string path = testing::TempDir() + "multi_class_untrained.model";
    expect_refused([&] { return ostrel_alg_exportModel_ptr(engine, path.c_str()); },
                   "class 1 (\"WBC\") has no model yet");
    std::FILE *file = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(file, nullptr) << "nothing is written";
    if (file != nullptr) std::fclose(file);
    ostrel_alg_destroy(engine);
}

TEST_F(MultiClass, AClassicImportLeavesOneClass) {
    ostrel_alg *engine = nullptr;
    ASSERT_EQ(ostrel_alg_create(&engine), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, path_.c_str()), 0);
    ASSERT_EQ(class_count(engine), 3u);
    // A classic model of the same cells.
    ostrel_alg *classic = nullptr;
    ASSERT_EQ(ostrel_alg_create(&classic), 0);
    ASSERT_EQ(ostrel_alg_setRandomSeed(classic, 1), 0);
    const ostrel_test::bccd_picture training = load_bccd("BloodImage_00000");
    std::vector<ostrel_alg_box> marked = ostrel_test::median_size_boxes(training.objects, "RBC");
    const ostrel_alg_image image = image_record(training.pixels, fresh_key());
    ASSERT_EQ(ostrel_alg_setDetector_ptr(classic, &image, marked.data(), static_cast<int32_t>(marked.size())), 0);
    const std::string path = testing::TempDir() + "multi_class_classic.model";
    ASSERT_EQ(ostrel_alg_exportModel_ptr(classic, path.c_str()), 0);
    ASSERT_EQ(ostrel_alg_importModel_ptr(engine, path.c_str()), 0);
    EXPECT_EQ(class_count(engine), 1u);
    EXPECT_EQ(name_of(engine, 0), "");
    const run_result r = run(engine, "BloodImage_00003");
    EXPECT_EQ(r.classes, std::vector<uint32_t>(r.boxes.size(), 0u));
    std::remove(path.c_str());
    ostrel_alg_destroy(classic);
    ostrel_alg_destroy(engine);
}

}  // namespace
