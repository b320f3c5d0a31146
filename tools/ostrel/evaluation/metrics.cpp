#include "evaluation/metrics.h"

#include <algorithm>
#include <numeric>

namespace ostrel_tool {

PictureMatch match_detections(const std::vector<ScoredBox> &detections, const std::vector<LabelledBox> &labelled,
                              double iou_threshold) {
    PictureMatch m;
    m.found.assign(labelled.size(), false);
    for (const auto &l : labelled) {
        m.objects += l.difficult ? 0 : 1;
    }
    std::vector<size_t> order(detections.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return detections[a].score > detections[b].score; });
    for (size_t i : order) {
        const ScoredBox &d = detections[i];
        double best = -1.0;
        size_t best_index = labelled.size();
        for (size_t k = 0; k < labelled.size(); ++k) {
            const double iou = intersection_over_union(d.box, labelled[k].box);
            if (iou > best) {
                best = iou;
                best_index = k;
            }
        }
        bool tp = false;
        if (best_index < labelled.size() && best >= iou_threshold) {
            if (labelled[best_index].difficult) {
                continue;  // neither right nor wrong
            }
            if (!m.found[best_index]) {
                m.found[best_index] = true;
                tp = true;
            }
        }
        ++m.detections;
        if (tp) {
            ++m.true_positives;
        } else {
            ++m.false_positives;
        }
        m.ranked.emplace_back(d.score, tp);
    }
    return m;
}

double average_precision(std::vector<std::pair<float, bool>> ranked, int objects) {
    if (objects <= 0 || ranked.empty()) {
        return 0.0;
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    const size_t n = ranked.size();
    std::vector<double> precision(n), recall(n);
    int tp = 0;
    for (size_t i = 0; i < n; ++i) {
        tp += ranked[i].second ? 1 : 0;
        precision[i] = static_cast<double>(tp) / static_cast<double>(i + 1);
        recall[i] = static_cast<double>(tp) / objects;
    }
    for (size_t i = n - 1; i > 0; --i) {
        precision[i - 1] = std::max(precision[i - 1], precision[i]);
    }
    double ap = 0.0;
    double previous_recall = 0.0;
    for (size_t i = 0; i < n; ++i) {
        ap += (recall[i] - previous_recall) * precision[i];
        previous_recall = recall[i];
    }
    return ap;
}

QualitySummary summarise(const std::vector<PictureMatch> &pictures) {
    QualitySummary s;
    std::vector<std::pair<float, bool>> ranked;
    for (const auto &p : pictures) {
        ++s.pictures;
        s.objects += p.objects;
        s.detections += p.detections;
        s.true_positives += p.true_positives;
        s.false_positives += p.false_positives;
        ranked.insert(ranked.end(), p.ranked.begin(), p.ranked.end());
    }
    s.false_negatives = s.objects - s.true_positives;
    s.precision = s.detections > 0 ? static_cast<double>(s.true_positives) / s.detections : 0.0;
    s.recall = s.objects > 0 ? static_cast<double>(s.true_positives) / s.objects : 0.0;
    s.f1 = (s.precision + s.recall) > 0 ? 2.0 * s.precision * s.recall / (s.precision + s.recall) : 0.0;
    s.average_precision = average_precision(std::move(ranked), s.objects);
    return s;
}

}  // namespace ostrel_tool
