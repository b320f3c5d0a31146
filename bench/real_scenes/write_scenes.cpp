// Writes the pictures of the real-scene timings and few-shot task files for
// them, so that the kit's dlib runner times the same pictures
// (bench/real_scenes_timing.sh):
//   DIR/street_train.png, DIR/street_test.png    1920 x 1080 (scenes.h)
//   DIR/street.json    train on the twenty cells, detect on the test canvas
//   DIR/cells.json     train on BloodImage_00000's cells, detect on _00001
//
//   write_scenes DATA_DIR DIR
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "real_scenes/scenes.h"

namespace {

nlohmann::json task(const std::string &train, const std::vector<ostrel_alg_box> &boxes, const std::string &test) {
    nlohmann::json t;
    t["dataset"] = "real scenes";
    t["voc"] = "";
    t["class"] = "cell";
    t["train_image"] = train.substr(train.rfind('/') + 1);
    t["train_path"] = train;
    t["train_boxes"] = nlohmann::json::array();
    for (const ostrel_alg_box &b : boxes) t["train_boxes"].push_back({b.x, b.y, b.width, b.height});
    t["box_size"] = {boxes.front().width, boxes.front().height};
    t["iou_threshold"] = 0.4;
    t["test_images"] = {{{"image", test.substr(test.rfind('/') + 1)}, {"path", test}, {"annotation", ""}}};
    return t;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: write_scenes DATA_DIR DIR\n");
        return 2;
    }
    const std::string data = argv[1];
    const std::string dir = argv[2];
    const std::string train = dir + "/street_train.png";
    const std::string test = dir + "/street_test.png";
    if (!cv::imwrite(train, real_scenes::street_training_canvas(data)) ||
        !cv::imwrite(test, real_scenes::street_canvas(data, 1))) {
        std::fprintf(stderr, "write_scenes: cannot write the pictures into %s\n", dir.c_str());
        return 1;
    }
    std::ofstream(dir + "/street.json") << task(train, real_scenes::street_boxes(), test).dump(1) << "\n";
    std::ofstream(dir + "/cells.json") << task(real_scenes::picture_path(data, 0), real_scenes::cell_boxes(),
                                               real_scenes::picture_path(data, 1))
                                              .dump(1)
                                       << "\n";
    return 0;
}
