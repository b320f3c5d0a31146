#include "evaluation/metrics.h"

#include <algorithm>
#include <numeric>

#include "evaluation/detection_quality.h"

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

// Scores widened to double keep their order (and their ties), so the curve
// is the one the evaluation measures.
double average_precision(std::vector<std::pair<float, bool>> ranked, int objects) {
    return all_point_average_precision(std::vector<std::pair<double, bool>>(ranked.begin(), ranked.end()), objects);
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
