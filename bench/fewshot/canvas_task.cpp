// canvas_task: a few-shot task whose test pictures are placed, unscaled, on
// larger canvases - the same objects, the same size in pixels, on pictures
// of another size. A detector that searches sizes in pixels should find
// them as it finds them on the pictures themselves.
//
//   canvas_task --task TASK.json --width 1920 --height 1080 --out DIR
//
// Writes DIR/images/*.png (each test picture on a mid-grey canvas, at a
// place that moves from picture to picture so that objects appear
// anywhere), DIR/annotations/*.xml (the picture's annotation with every box
// moved along, difficult flags kept) and DIR/task.json (the same training
// picture and boxes, the canvases as test pictures). The kit's scorer reads
// the new annotations like any others.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <pugixml.hpp>

namespace {

[[noreturn]] void usage(const char *message) {
    std::fprintf(stderr, "canvas_task: %s\nusage: canvas_task --task TASK.json --width W --height H --out DIR\n",
                 message);
    std::exit(2);
}

}  // namespace

int main(int argc, char **argv) {
    std::string task_path, out;
    int width = 0, height = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const std::string value = argv[i + 1];
        if (key == "--task")
            task_path = value;
        else if (key == "--out")
            out = value;
        else if (key == "--width")
            width = std::stoi(value);
        else if (key == "--height")
            height = std::stoi(value);
        else
            usage(("unknown argument " + key).c_str());
    }
    if (task_path.empty() || out.empty() || width < 1 || height < 1)
        usage("--task, --width, --height and --out are required");
    nlohmann::json task;
    {
        std::ifstream in(task_path);
        if (!in) usage(("cannot read " + task_path).c_str());
        in >> task;
    }
    const std::string images = out + "/images";
    const std::string annotations = out + "/annotations";
    if (std::system(("mkdir -p '" + images + "' '" + annotations + "'").c_str()) != 0) usage("cannot make the folders");

    nlohmann::json tests = nlohmann::json::array();
    int index = 0;
    for (const auto &t : task["test_images"]) {
        const cv::Mat picture = cv::imread(t["path"].get<std::string>(), cv::IMREAD_COLOR);
        if (picture.empty() || picture.cols > width || picture.rows > height) {
            std::fprintf(stderr, "canvas_task: %s is missing or larger than the canvas\n",
                         t["path"].get<std::string>().c_str());
            return 1;
        }
        // The place moves along a fixed walk over the free room.
        const int room_x = width - picture.cols;
        const int room_y = height - picture.rows;
        const int dx = room_x > 0 ? (index * 379) % (room_x + 1) : 0;
        const int dy = room_y > 0 ? (index * 211) % (room_y + 1) : 0;
        ++index;
        cv::Mat canvas(height, width, CV_8UC3, cv::Scalar::all(128));
        picture.copyTo(canvas(cv::Rect(dx, dy, picture.cols, picture.rows)));
        const std::string stem = t["image"].get<std::string>().substr(0, t["image"].get<std::string>().rfind('.'));
        const std::string image_path = images + "/" + stem + ".png";
        if (!cv::imwrite(image_path, canvas)) usage(("cannot write " + image_path).c_str());

        pugi::xml_document xml;
        if (!xml.load_file(t["annotation"].get<std::string>().c_str())) usage("cannot read an annotation");
        pugi::xml_node root = xml.child("annotation");
        for (pugi::xml_node object : root.children("object")) {
            pugi::xml_node box = object.child("bndbox");
            for (const char *k : {"xmin", "xmax"}) box.child(k).text().set(box.child(k).text().as_double() + dx);
            for (const char *k : {"ymin", "ymax"}) box.child(k).text().set(box.child(k).text().as_double() + dy);
        }
        pugi::xml_node size = root.child("size");
        if (size) {
            size.child("width").text().set(width);
            size.child("height").text().set(height);
        }
        const std::string annotation_path = annotations + "/" + stem + ".xml";
        if (!xml.save_file(annotation_path.c_str())) usage(("cannot write " + annotation_path).c_str());
        tests.push_back({{"image", stem + ".png"}, {"path", image_path}, {"annotation", annotation_path}});
    }
    task["test_images"] = tests;
    std::ofstream(out + "/task.json") << task.dump(1) << "\n";
    std::printf("canvas_task: %zu pictures on %d x %d canvases -> %s/task.json\n", tests.size(), width, height,
                out.c_str());
    return 0;
}
