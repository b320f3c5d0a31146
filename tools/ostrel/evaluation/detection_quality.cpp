#include "evaluation/detection_quality.h"

#include <algorithm>
#include <numeric>

#include "evaluation/coco_evaluation.h"

namespace ostrel_tool {

namespace {

bool in_group(const ClassGroup &group, const std::string &name) {
    return group.contains(name) || name == group.display();
}

double intersection(const LabelBox &a, const LabelBox &b) {
    const double w = std::min(a.x + a.w, b.x + b.w) - std::max(a.x, b.x);
    const double h = std::min(a.y + a.h, b.y + b.h) - std::max(a.y, b.y);
    return w > 0 && h > 0 ? w * h : 0.0;
}

double ratio(int a, int b) { return b > 0 ? static_cast<double>(a) / b : 0.0; }

double f1_of(double precision, double recall) {
    return precision + recall > 0 ? 2.0 * precision * recall / (precision + recall) : 0.0;
}

}  // namespace

double box_iou(const LabelBox &a, const LabelBox &b) {
    const double inter = intersection(a, b);
    if (inter <= 0) {
        return 0.0;
    }
    return inter / (a.w * a.h + b.w * b.h - inter);
}

double all_point_average_precision(std::vector<std::pair<double, bool>> ranked, int objects) {
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

namespace {

struct MatchedBox {
    double score = 0.0;
    bool tp = false;
};

// One picture's boxes of a class against its labels of the class, by
// falling score: the boxes that count, each a true positive or not.
std::vector<MatchedBox> match_boxes(std::vector<const LabelBox *> boxes, const std::vector<const LabelBox *> &labels,
                                    double iou) {
    std::stable_sort(boxes.begin(), boxes.end(), [](const LabelBox *a, const LabelBox *b) {
        return a->score.value_or(0.0) > b->score.value_or(0.0);
    });
    std::vector<MatchedBox> out;
    std::vector<bool> taken(labels.size(), false);
    for (const LabelBox *f : boxes) {
        double best = -1.0;
        long best_index = -1;
        for (size_t k = 0; k < labels.size(); ++k) {
            if (labels[k]->crowd) {
                continue;
            }
            const double v = box_iou(*f, *labels[k]);
            if (v > best) {
                best = v;
                best_index = static_cast<long>(k);
            }
        }
        bool tp = false;
        if (best_index >= 0 && best >= iou) {
            if (labels[static_cast<size_t>(best_index)]->difficult) {
                continue;  // neither right nor wrong
            }
            if (!taken[static_cast<size_t>(best_index)]) {
                taken[static_cast<size_t>(best_index)] = true;
                tp = true;
            }
        } else {
            const double own = f->w * f->h;
            bool in_crowd = false;
            for (const LabelBox *l : labels) {
                in_crowd = in_crowd || (l->crowd && own > 0 && intersection(*f, *l) / own >= iou);
            }
            if (in_crowd) {
                continue;
            }
        }
        out.push_back({f->score.value_or(0.0), tp});
    }
    return out;
}

std::vector<const LabelBox *> of_class(const std::vector<LabelBox> &boxes, const ClassGroup &group) {
    std::vector<const LabelBox *> out;
    for (const LabelBox &b : boxes) {
        if (in_group(group, b.class_name)) {
            out.push_back(&b);
        }
    }
    return out;
}

CocoBox coco_box(const LabelBox &b) {
    CocoBox c;
    c.x = b.x, c.y = b.y, c.w = b.w, c.h = b.h;
    c.score = b.score.value_or(0.0);
    c.crowd = b.crowd;
    c.ignore = b.difficult;
    c.area = b.area;
    return c;
}

}  // namespace

QualityReport evaluate_detections(const std::vector<EvaluatedPicture> &pictures, const std::vector<ClassGroup> &classes,
                                  double iou) {
    QualityReport report;
    report.iou = iou;
    for (const auto &p : pictures) {
        report.pictures.push_back({p.name, 0, 0, 0, 0});
    }
    for (const ClassGroup &group : classes) {
        QualityFigures figures;
        figures.name = group.display();
        std::vector<std::pair<double, bool>> ranked;
        std::vector<CocoPicture> coco;
        for (size_t pi = 0; pi < pictures.size(); ++pi) {
            const EvaluatedPicture &p = pictures[pi];
            PictureQuality &row = report.pictures[pi];
            const std::vector<const LabelBox *> labels = of_class(p.labels, group);
            CocoPicture coco_picture;
            coco_picture.id = p.id;
            for (const LabelBox *l : labels) {
                const int counts = (l->difficult || l->crowd) ? 0 : 1;
                figures.objects += counts;
                row.objects += counts;
                coco_picture.labels.push_back(coco_box(*l));
            }
            const std::vector<const LabelBox *> ranked_boxes = of_class(p.ranked, group);
            for (const LabelBox *b : ranked_boxes) {
                coco_picture.detections.push_back(coco_box(*b));
            }
            coco.push_back(std::move(coco_picture));
            for (const MatchedBox &m : match_boxes(of_class(p.detections, group), labels, iou)) {
                ++figures.detections;
                ++row.detections;
                (m.tp ? figures.true_positives : figures.false_positives) += 1;
                (m.tp ? row.true_positives : row.false_positives) += 1;
            }
            for (const MatchedBox &m : match_boxes(ranked_boxes, labels, iou)) {
                ranked.emplace_back(m.score, m.tp);
            }
        }
        figures.false_negatives = figures.objects - figures.true_positives;
        figures.precision = ratio(figures.true_positives, figures.detections);
        figures.recall = ratio(figures.true_positives, figures.objects);
        figures.f1 = f1_of(figures.precision, figures.recall);
        figures.threshold_precision = figures.precision;
        figures.threshold_recall = figures.recall;
        figures.ranked = static_cast<int>(ranked.size());
        figures.ap = all_point_average_precision(ranked, figures.objects);
        std::vector<std::pair<double, bool>> sorted = ranked;
        std::stable_sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
        int tp = 0;
        for (size_t i = 0; i < sorted.size(); ++i) {
            tp += sorted[i].second ? 1 : 0;
            figures.curve.emplace_back(ratio(tp, figures.objects),
                                       static_cast<double>(tp) / static_cast<double>(i + 1));
        }
        const CocoFigures c = coco_evaluate(std::move(coco));
        figures.coco_ap = c.ap;
        figures.coco_ap50 = c.ap50;
        figures.coco_ap75 = c.ap75;
        report.classes.push_back(std::move(figures));
    }

    QualityFigures &all = report.overall;
    all.name = "all";
    int with_objects = 0, coco_classes = 0;
    double ap_sum = 0.0, coco_sum = 0.0, coco50_sum = 0.0, coco75_sum = 0.0;
    for (const QualityFigures &c : report.classes) {
        all.objects += c.objects;
        all.detections += c.detections;
        all.true_positives += c.true_positives;
        all.false_positives += c.false_positives;
        all.ranked += c.ranked;
        if (c.objects > 0) {
            ++with_objects;
            ap_sum += c.ap;
        }
        if (c.coco_ap >= 0.0) {
            ++coco_classes;
            coco_sum += c.coco_ap;
            coco50_sum += c.coco_ap50;
            coco75_sum += c.coco_ap75;
        }
    }
    all.false_negatives = all.objects - all.true_positives;
    all.precision = ratio(all.true_positives, all.detections);
    all.recall = ratio(all.true_positives, all.objects);
    all.f1 = f1_of(all.precision, all.recall);
    all.threshold_precision = all.precision;
    all.threshold_recall = all.recall;
    all.ap = with_objects > 0 ? ap_sum / with_objects : 0.0;
    if (coco_classes > 0) {
        all.coco_ap = coco_sum / coco_classes;
        all.coco_ap50 = coco50_sum / coco_classes;
        all.coco_ap75 = coco75_sum / coco_classes;
    }
    if (report.classes.size() == 1) {
        all.curve = report.classes.front().curve;
    }
    return report;
}

}  // namespace ostrel_tool
