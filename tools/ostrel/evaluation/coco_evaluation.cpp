#include "evaluation/coco_evaluation.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace ostrel_tool {

namespace {

// numpy.linspace(start, stop, num): start + i * step, the last one stop.
std::vector<double> linspace(double start, double stop, int num) {
    std::vector<double> values(static_cast<size_t>(num));
    const double step = (stop - start) / (num - 1);
    for (int i = 0; i < num; ++i) {
        values[static_cast<size_t>(i)] = static_cast<double>(i) * step + start;
    }
    values.back() = stop;
    return values;
}

constexpr double kAreaMin = 0.0;
constexpr double kAreaMax = 1e10;  // COCO's "all" range: 0 ** 2 .. 1e5 ** 2

double iou(const CocoBox &d, const CocoBox &g, bool crowd) {
    const double w = std::min(d.x + d.w, g.x + g.w) - std::max(d.x, g.x);
    const double h = std::min(d.y + d.h, g.y + g.h) - std::max(d.y, g.y);
    if (w <= 0 || h <= 0) {
        return 0.0;
    }
    const double inter = w * h;
    const double da = d.w * d.h;
    const double u = crowd ? da : da + g.w * g.h - inter;
    return inter / u;
}

struct PictureResult {
    std::vector<double> scores;              // kept detections, by falling score
    std::vector<std::vector<bool>> matched;  // [t][d]
    std::vector<std::vector<bool>> ignored;  // [t][d]
    int counted_labels = 0;                  // labels not ignored
};

PictureResult evaluate_picture(const CocoPicture &p, const std::vector<double> &thresholds) {
    PictureResult r;
    // Labels: ignored ones last, order kept otherwise.
    std::vector<CocoBox> gt = p.labels;
    std::vector<bool> gt_ignore;
    std::vector<size_t> gt_order(gt.size());
    std::iota(gt_order.begin(), gt_order.end(), 0);
    auto ignored_label = [&](const CocoBox &g) {
        const double area = g.area ? *g.area : g.w * g.h;
        return g.ignore || g.crowd || area < kAreaMin || area > kAreaMax;
    };
    std::stable_sort(gt_order.begin(), gt_order.end(),
                     [&](size_t a, size_t b) { return !ignored_label(gt[a]) && ignored_label(gt[b]); });
    std::vector<CocoBox> labels;
    for (size_t i : gt_order) {
        labels.push_back(gt[i]);
        gt_ignore.push_back(ignored_label(gt[i]));
        r.counted_labels += ignored_label(gt[i]) ? 0 : 1;
    }
    // Detections: falling score, stable, at most 100.
    std::vector<size_t> dt_order(p.detections.size());
    std::iota(dt_order.begin(), dt_order.end(), 0);
    std::stable_sort(dt_order.begin(), dt_order.end(),
                     [&](size_t a, size_t b) { return p.detections[a].score > p.detections[b].score; });
    if (dt_order.size() > static_cast<size_t>(kCocoMaxDetections)) {
        dt_order.resize(static_cast<size_t>(kCocoMaxDetections));
    }
    std::vector<CocoBox> dets;
    for (size_t i : dt_order) {
        dets.push_back(p.detections[i]);
        r.scores.push_back(p.detections[i].score);
    }
    const size_t T = thresholds.size(), D = dets.size(), G = labels.size();
    r.matched.assign(T, std::vector<bool>(D, false));
    r.ignored.assign(T, std::vector<bool>(D, false));
    std::vector<std::vector<double>> ious(D, std::vector<double>(G, 0.0));
    for (size_t d = 0; d < D; ++d) {
        for (size_t g = 0; g < G; ++g) {
            ious[d][g] = iou(dets[d], labels[g], labels[g].crowd);
        }
    }
    for (size_t t = 0; t < T; ++t) {
        std::vector<bool> label_taken(G, false);
        for (size_t d = 0; d < D; ++d) {
            double best = std::min(thresholds[t], 1.0 - 1e-10);
            long m = -1;
            for (size_t g = 0; g < G; ++g) {
                if (label_taken[g] && !labels[g].crowd) {
                    continue;
                }
                if (m > -1 && !gt_ignore[static_cast<size_t>(m)] && gt_ignore[g]) {
                    break;
                }
                if (ious[d][g] < best) {
                    continue;
                }
                best = ious[d][g];
                m = static_cast<long>(g);
            }
            if (m == -1) {
                continue;
            }
            r.ignored[t][d] = gt_ignore[static_cast<size_t>(m)];
            r.matched[t][d] = true;
            label_taken[static_cast<size_t>(m)] = true;
        }
        for (size_t d = 0; d < D; ++d) {
            const double area = dets[d].w * dets[d].h;
            if (!r.matched[t][d] && (area < kAreaMin || area > kAreaMax)) {
                r.ignored[t][d] = true;
            }
        }
    }
    return r;
}

}  // namespace

const std::vector<double> &coco_iou_thresholds() {
    static const std::vector<double> values = linspace(0.5, 0.95, 10);
    return values;
}

const std::vector<double> &coco_recall_points() {
    static const std::vector<double> values = linspace(0.0, 1.0, 101);
    return values;
}

CocoFigures coco_evaluate(std::vector<CocoPicture> pictures) {
    const std::vector<double> &thresholds = coco_iou_thresholds();
    const std::vector<double> &points = coco_recall_points();
    std::stable_sort(pictures.begin(), pictures.end(),
                     [](const CocoPicture &a, const CocoPicture &b) { return a.id < b.id; });
    std::vector<PictureResult> results;
    int counted = 0;
    for (const auto &p : pictures) {
        if (p.labels.empty() && p.detections.empty()) {
            continue;
        }
        results.push_back(evaluate_picture(p, thresholds));
        counted += results.back().counted_labels;
    }
    CocoFigures figures;
    if (counted == 0) {
        return figures;
    }
    figures.has_objects = true;
    // All pictures' detections, by falling score (stable: picture order, then the picture's order).
    struct Ranked {
        double score;
        size_t picture;
        size_t index;
    };
    std::vector<Ranked> ranked;
    for (size_t i = 0; i < results.size(); ++i) {
        for (size_t d = 0; d < results[i].scores.size(); ++d) {
            ranked.push_back({results[i].scores[d], i, d});
        }
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked &a, const Ranked &b) { return a.score > b.score; });
    const double eps = std::numeric_limits<double>::epsilon();  // numpy's spacing(1)
    std::vector<double> ap_of_threshold(thresholds.size(), 0.0);
    for (size_t t = 0; t < thresholds.size(); ++t) {
        std::vector<double> recall, precision;
        double tp = 0, fp = 0;
        for (const Ranked &k : ranked) {
            const PictureResult &r = results[k.picture];
            if (r.ignored[t][k.index]) {
                // An ignored detection adds to neither sum but keeps its place in the list.
            } else if (r.matched[t][k.index]) {
                tp += 1;
            } else {
                fp += 1;
            }
            recall.push_back(tp / counted);
            precision.push_back(tp / (fp + tp + eps));
        }
        for (size_t i = precision.size(); i-- > 1;) {
            if (precision[i] > precision[i - 1]) {
                precision[i - 1] = precision[i];
            }
        }
        double sum = 0.0;
        for (const double point : points) {
            const auto it = std::lower_bound(recall.begin(), recall.end(), point);
            if (it == recall.end()) {
                break;  // this point and all above it are 0
            }
            sum += precision[static_cast<size_t>(it - recall.begin())];
        }
        ap_of_threshold[t] = sum / static_cast<double>(points.size());
    }
    figures.ap =
        std::accumulate(ap_of_threshold.begin(), ap_of_threshold.end(), 0.0) / static_cast<double>(thresholds.size());
    figures.ap50 = ap_of_threshold[0];
    figures.ap75 = ap_of_threshold[5];
    return figures;
}

}  // namespace ostrel_tool
