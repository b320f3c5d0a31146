#include "support/voc.h"

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

namespace ostrel_test {

namespace {

int tag_value(const std::string &text, const std::string &tag) {
    const std::regex pattern("<" + tag + ">\\s*(-?[0-9]+)\\s*</" + tag + ">");
    std::smatch match;
    if (!std::regex_search(text, match, pattern)) {
        return 0;
    }
    return std::stoi(match[1].str());
}

int median(std::vector<int> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

}  // namespace

std::vector<voc_object> read_voc(const std::string &path) {
    std::ifstream in(path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    std::vector<voc_object> objects;
    const std::regex object_pattern("<object>([\\s\\S]*?)</object>");
    const std::regex name_pattern("<name>\\s*([^<]*?)\\s*</name>");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), object_pattern); it != std::sregex_iterator(); ++it) {
        const std::string body = (*it)[1].str();
        voc_object object;
        std::smatch name;
        if (std::regex_search(body, name, name_pattern)) {
            object.name = name[1].str();
        }
        object.xmin = tag_value(body, "xmin");
        object.ymin = tag_value(body, "ymin");
        object.xmax = tag_value(body, "xmax");
        object.ymax = tag_value(body, "ymax");
        objects.push_back(object);
    }
    return objects;
}

std::vector<ostrel_alg_box> median_size_boxes(const std::vector<voc_object> &objects, const std::string &name) {
    std::vector<int> widths;
    std::vector<int> heights;
    for (const voc_object &o : objects) {
        if (o.name == name) {
            widths.push_back(o.xmax - o.xmin);
            heights.push_back(o.ymax - o.ymin);
        }
    }
    const int w = median(widths);
    const int h = median(heights);
    std::vector<ostrel_alg_box> boxes;
    for (const voc_object &o : objects) {
        if (o.name == name) {
            const int cx = (o.xmin + o.xmax) / 2;
            const int cy = (o.ymin + o.ymax) / 2;
            boxes.push_back(ostrel_alg_box{cx - w / 2, cy - h / 2, w, h, 0.0f, 1, 0, 0});
        }
    }
    return boxes;
}

std::vector<ostrel_alg_box> annotation_boxes(const std::vector<voc_object> &objects, const std::string &name) {
    std::vector<ostrel_alg_box> boxes;
    for (const voc_object &o : objects) {
        if (o.name == name) {
            boxes.push_back(ostrel_alg_box{o.xmin, o.ymin, o.xmax - o.xmin, o.ymax - o.ymin, 0.0f, 1, 0, 0});
        }
    }
    return boxes;
}

}  // namespace ostrel_test
