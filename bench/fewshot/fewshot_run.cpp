// fewshot_run: runs the library on a few-shot task file, as a host does.
//
// The task file (written by the evaluation kit's `fewshot.py task`) names
// one training picture with its equal-size boxes and the test pictures.
// This program trains an engine on the training picture, detects on every
// test picture and writes one JSON line per test picture,
//   {"image": NAME, "boxes": [[x, y, w, h, score], ...]}
// with every box the library reports (detections and the boxes below the
// threshold, so that the scorer sees the ranking). It uses only the public
// header, like any host. Timings (training, detection per picture; picture
// decoding is never timed) go to --timing as JSON.
//
//   fewshot_run --task TASK.json --out DETS.jsonl [--profile classic|accurate]
//               [--sensitivity 80] [--seed 1] [--timing T.json] [--repeats 1]
//               [--model OUT.model] [--option N=V ...]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <time.h>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ostrel_alg.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Arguments {
    std::string task;
    std::string out;
    std::string timing;
    std::string model;
    int32_t profile = OSTREL_ALG_PROFILE_CLASSIC;
    uint32_t sensitivity = 80;
    uint32_t seed = 1;
    int repeats = 1;
    std::vector<std::pair<int32_t, int32_t>> options;  // --option N=V
};

[[noreturn]] void usage(const char *message) {
    std::fprintf(stderr,
                 "fewshot_run: %s\nusage: fewshot_run --task TASK.json --out DETS.jsonl [--profile classic|accurate]\n"
                 "       [--sensitivity 80] [--seed 1] [--timing T.json] [--repeats 1] [--model OUT.model]\n",
                 message);
    std::exit(2);
}

Arguments parse(int argc, char **argv) {
    Arguments a;
    for (int i = 1; i < argc; ++i) {
        const std::string key = argv[i];
        if (i + 1 >= argc) usage(("missing value after " + key).c_str());
        const std::string value = argv[++i];
        if (key == "--task") {
            a.task = value;
        } else if (key == "--out") {
            a.out = value;
        } else if (key == "--timing") {
            a.timing = value;
        } else if (key == "--model") {
            a.model = value;
        } else if (key == "--profile") {
            if (value == "classic") {
                a.profile = OSTREL_ALG_PROFILE_CLASSIC;
            } else if (value == "accurate") {
                a.profile = OSTREL_ALG_PROFILE_ACCURATE;
            } else {
                usage("--profile takes classic or accurate");
            }
        } else if (key == "--sensitivity") {
            a.sensitivity = static_cast<uint32_t>(std::stoul(value));
        } else if (key == "--seed") {
            a.seed = static_cast<uint32_t>(std::stoul(value));
        } else if (key == "--option") {
            const size_t eq = value.find('=');
            if (eq == std::string::npos) usage("--option takes N=V");
            a.options.emplace_back(std::stoi(value.substr(0, eq)), std::stoi(value.substr(eq + 1)));
        } else if (key == "--repeats") {
            a.repeats = std::max(1, std::stoi(value));
        } else {
            usage(("unknown argument " + key).c_str());
        }
    }
    if (a.task.empty() || a.out.empty()) usage("--task and --out are required");
    return a;
}

// A decoded picture in the layout the library reads (interleaved BGR).
struct Picture {
    cv::Mat bgr;
    ostrel_alg_image record{};
};

bool load(const std::string &path, int64_t key, Picture *picture) {
    picture->bgr = cv::imread(path, cv::IMREAD_COLOR);
    if (picture->bgr.empty()) return false;
    if (!picture->bgr.isContinuous()) picture->bgr = picture->bgr.clone();
    picture->record = ostrel_alg_image{
        picture->bgr.cols, picture->bgr.rows, 3, picture->bgr.data, key, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    return true;
}

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// CPU time of this thread: on a busy machine it says more about the cost of
// a call than the wall clock does.
double thread_cpu_ms() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

}  // namespace

int main(int argc, char **argv) {
    const Arguments args = parse(argc, argv);
    nlohmann::json task;
    {
        std::ifstream in(args.task);
        if (!in) usage(("cannot read " + args.task).c_str());
        in >> task;
    }

    ostrel_alg *engine = nullptr;
    if (ostrel_alg_create(&engine) != 0) {
        std::fprintf(stderr, "fewshot_run: the engine cannot be created\n");
        return 1;
    }
    if (ostrel_alg_setOption(engine, OSTREL_ALG_OPTION_PROFILE, args.profile) != 0 ||
        ostrel_alg_setSensitivity(engine, args.sensitivity) != 0 || ostrel_alg_setRandomSeed(engine, args.seed) != 0) {
        std::fprintf(stderr, "fewshot_run: the engine refused a setting\n");
        return 1;
    }
    for (const auto &option : args.options) {
        if (ostrel_alg_setOption(engine, option.first, option.second) != 0) {
            std::fprintf(stderr, "fewshot_run: the engine refused option %d = %d\n", option.first, option.second);
            return 2;
        }
    }

    Picture train;
    if (!load(task["train_path"].get<std::string>(), 1, &train)) {
        std::fprintf(stderr, "fewshot_run: cannot read the training picture\n");
        return 3;
    }
    std::vector<ostrel_alg_box> marked;
    for (const auto &b : task["train_boxes"]) {
        marked.push_back(ostrel_alg_box{b[0].get<int32_t>(), b[1].get<int32_t>(), b[2].get<int32_t>(),
                                        b[3].get<int32_t>(), 0.0f, 1, 0, 0});
    }
    const auto train_start = Clock::now();
    const double train_cpu_start = thread_cpu_ms();
    const int32_t trained =
        ostrel_alg_setDetector_ptr(engine, &train.record, marked.data(), static_cast<int32_t>(marked.size()));
    const double train_ms = milliseconds(Clock::now() - train_start);
    const double train_cpu_ms = thread_cpu_ms() - train_cpu_start;
    if (trained != 0) {
        std::fprintf(stderr, "fewshot_run: training failed\n");
        return 1;
    }
    if (!args.model.empty() && ostrel_alg_exportModel_ptr(engine, args.model.c_str()) != 0) {
        std::fprintf(stderr, "fewshot_run: the model cannot be written\n");
        return 4;
    }

    std::ofstream out(args.out);
    std::vector<double> detect_ms;
    std::vector<double> detect_cpu_ms;
    int64_t key = 2;
    size_t detections = 0;
    for (const auto &t : task["test_images"]) {
        Picture picture;
        if (!load(t["path"].get<std::string>(), key, &picture)) {
            std::fprintf(stderr, "fewshot_run: cannot read %s\n", t["path"].get<std::string>().c_str());
            return 3;
        }
        ostrel_alg_box *boxes = nullptr;
        uint32_t count = 0;
        double best = 0.0;
        double best_cpu = 0.0;
        for (int r = 0; r < args.repeats; ++r) {
            // A new key every time: the features are computed afresh.
            picture.record.image_key = key++;
            const auto start = Clock::now();
            const double cpu_start = thread_cpu_ms();
            if (ostrel_alg_runDetector_ptr(engine, &picture.record, &boxes, &count) != 0) {
                std::fprintf(stderr, "fewshot_run: detection failed on %s\n", t["image"].get<std::string>().c_str());
                return 1;
            }
            const double ms = milliseconds(Clock::now() - start);
            const double cpu = thread_cpu_ms() - cpu_start;
            best = r == 0 ? ms : std::min(best, ms);
            best_cpu = r == 0 ? cpu : std::min(best_cpu, cpu);
        }
        detect_ms.push_back(best);
        detect_cpu_ms.push_back(best_cpu);
        nlohmann::json line;
        line["image"] = t["image"];
        line["boxes"] = nlohmann::json::array();
        for (uint32_t i = 0; i < count; ++i) {
            const ostrel_alg_box &b = boxes[i];
            if (b.score < 0.0f) continue;  // suppressed boxes carry -1
            line["boxes"].push_back({b.x, b.y, b.width, b.height, b.score});
            detections += b.label == 1;
        }
        out << line.dump() << "\n";
    }
    ostrel_alg_destroy(engine);

    double sum = 0.0;
    for (double v : detect_ms) sum += v;
    const double mean = detect_ms.empty() ? 0.0 : sum / static_cast<double>(detect_ms.size());
    double cpu_sum = 0.0;
    for (double v : detect_cpu_ms) cpu_sum += v;
    const double cpu_mean = detect_cpu_ms.empty() ? 0.0 : cpu_sum / static_cast<double>(detect_cpu_ms.size());
    std::fprintf(
        stderr,
        "fewshot_run: %s, training %.1f ms (cpu %.1f), detection %.2f ms a picture (cpu %.2f), %zu detections\n",
        args.profile == OSTREL_ALG_PROFILE_ACCURATE ? "accurate" : "classic", train_ms, train_cpu_ms, mean, cpu_mean,
        detections);
    if (!args.timing.empty()) {
        nlohmann::json timing = {{"profile", args.profile == OSTREL_ALG_PROFILE_ACCURATE ? "accurate" : "classic"},
                                 {"training_ms", train_ms},
                                 {"training_cpu_ms", train_cpu_ms},
                                 {"detection_cpu_ms_mean", cpu_mean},
                                 {"detection_ms_mean", mean},
                                 {"detection_ms_median", median(detect_ms)},
                                 {"pictures", detect_ms.size()}};
        std::ofstream(args.timing) << timing.dump(1) << "\n";
    }
    return 0;
}
