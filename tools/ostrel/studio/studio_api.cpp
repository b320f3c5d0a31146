#include "studio/studio_api.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <exception>

#include <opencv2/imgcodecs.hpp>

#include "boxes/box_io.h"
#include "cli/cli.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "files/picture.h"
#include "labels/coco_labels.h"
#include "labels/label_formats.h"
#include "studio/api_error.h"
#include "studio/api_requests.h"
#include "studio/media_type.h"
#include "studio/safe_names.h"
#include "studio/zip_archive.h"

namespace ostrel_tool {
namespace studio {

namespace {

std::vector<std::string> split_path(const std::string &path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        const size_t slash = path.find('/', start);
        const size_t end = slash == std::string::npos ? path.size() : slash;
        parts.push_back(path.substr(start, end - start));
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    return parts;  // "/api/x" -> "", "api", "x"
}

double tenths(double ms) { return std::round(ms * 10.0) / 10.0; }

ApiResponse json_response(const nlohmann::ordered_json &value, int status = http_status::ok) {
    ApiResponse r;
    r.status = status;
    r.body = json_text(value);
    return r;
}

// A page of another site can send only "simple" requests without asking
// first (text/plain, form encodings); the studio accepts JSON and files in
// no such form, so other sites cannot drive it from a visitor's browser
// (the session token is the first guard; this is the second). Types are
// parsed, never compared as text, and only the ones named are accepted.
void require_json(const ApiRequest &request) {
    const auto type = parse_media_type(request.content_type);
    if (!type || type->essence() != "application/json") {
        throw ApiError(http_status::unsupported_media_type, "send the request as application/json");
    }
}

enum class FileKind { picture, model };

// application/octet-stream, or for a picture also its own image/... type.
void require_file_body(const ApiRequest &request, FileKind kind) {
    const auto type = parse_media_type(request.content_type);
    const bool accepted =
        type && !is_sent_without_preflight(*type) &&
        (type->essence() == "application/octet-stream" || (kind == FileKind::picture && type->type == "image"));
    if (!accepted) {
        throw ApiError(http_status::unsupported_media_type,
                       "send the file's bytes as the request body, as application/octet-stream");
    }
}

std::string query_value(const ApiRequest &request, const std::string &name, bool *present = nullptr) {
    const auto it = request.query.find(name);
    if (present != nullptr) {
        *present = it != request.query.end();
    }
    return it == request.query.end() ? std::string() : it->second;
}

nlohmann::ordered_json label_json(const StudioLabel &l) {
    nlohmann::ordered_json j;
    j["class"] = l.class_name;
    j["x"] = l.box.x;
    j["y"] = l.box.y;
    j["w"] = l.box.w;
    j["h"] = l.box.h;
    return j;
}

nlohmann::ordered_json labels_json(const std::vector<StudioLabel> &labels) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const StudioLabel &l : labels) {
        list.push_back(label_json(l));
    }
    return list;
}

nlohmann::ordered_json picture_json(const PictureEntry &e, const std::vector<TaughtPicture> &taught,
                                    const std::vector<StudioLabel> &labels) {
    nlohmann::ordered_json j;
    j["name"] = e.name;
    j["width"] = e.width;
    j["height"] = e.height;
    j["uploaded"] = e.uploaded;
    nlohmann::ordered_json boxes = nlohmann::ordered_json::array();
    for (const TaughtPicture &t : taught) {
        if (t.name == e.name) {
            for (const Rect &b : t.boxes) {
                boxes.push_back({b.x, b.y, b.w, b.h});
            }
        }
    }
    j["taught"] = boxes;
    j["labels"] = labels_json(labels);
    return j;
}

nlohmann::ordered_json train_json(const std::string &picture, const TrainOutcome &o) {
    nlohmann::ordered_json j;
    if (!picture.empty()) {
        j["picture"] = picture;
    }
    j["trained"] = o.trained;
    j["samples"] = o.samples;
    j["passes"] = o.passes;
    j["ms"] = tenths(o.ms);
    j["rebuilt"] = o.rebuilt;
    nlohmann::ordered_json steps = nlohmann::ordered_json::array();
    for (const TrainingStep &s : o.steps) {
        steps.push_back(TrainingMonitor::step_json(s));
    }
    j["steps"] = steps;
    if (!o.classes.empty()) {
        nlohmann::ordered_json classes = nlohmann::ordered_json::array();
        for (const TrainOutcome::ClassResult &c : o.classes) {
            nlohmann::ordered_json boxes = nlohmann::ordered_json::array();
            for (const Rect &b : c.boxes) boxes.push_back({b.x, b.y, b.w, b.h});
            classes.push_back({{"class", c.name}, {"samples", c.samples}, {"resized", c.resized}, {"boxes", boxes}});
        }
        j["classes"] = classes;
    }
    return j;
}

// The part of a detection that lies on the picture, as a label.
bool label_of_detection(const ostrel_alg_box &box, const std::string &class_name, int width, int height,
                        StudioLabel &out) {
    const Rect b = rect_of(box);
    const int x0 = std::max(0, b.x), y0 = std::max(0, b.y);
    const int x1 = static_cast<int>(std::min<int64_t>(width, int64_t(b.x) + b.w));
    const int y1 = static_cast<int>(std::min<int64_t>(height, int64_t(b.y) + b.h));
    if (x1 <= x0 || y1 <= y0) return false;
    out = {class_name, {x0, y0, x1 - x0, y1 - y0}};
    return true;
}

// A box the detector reports as the object (label 1) with a score above 0:
// the library also lists the marked boxes of its training picture that it
// did not find, with score 0, and weak boxes below the threshold (label -1).
bool is_found(const ostrel_alg_box &b) { return b.label == 1 && b.score > 0.0f; }

std::string download_name(const std::string &what, LabelFormat f) {
    switch (f) {
        case LabelFormat::coco: return what + "-coco.json";
        case LabelFormat::labelstudio: return what + "-labelstudio.json";
        case LabelFormat::cvat: return what + "-cvat.xml";
        case LabelFormat::imglab: return what + "-imglab.xml";
        case LabelFormat::voc: return what + "-voc.zip";
        case LabelFormat::yolo: return what + "-yolo.zip";
    }
    return what;
}

ApiResponse file_response(const std::string &body, const std::string &type, const std::string &name) {
    ApiResponse r;
    r.body = body;
    r.content_type = type;
    r.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + name + "\"");
    return r;
}

// A label set as a download: one file, or a ZIP of a file a picture.
ApiResponse label_set_download(const LabelSet &set, LabelFormat f, const std::string &what,
                               const LabelWriteOptions &options) {
    if (!writes_file_per_picture(f)) {
        const bool json = f == LabelFormat::coco || f == LabelFormat::labelstudio;
        return file_response(label_set_text(set, f, options), json ? "application/json" : "application/xml",
                             download_name(what, f));
    }
    ZipArchive zip;
    std::map<std::string, int> used;
    for (const LabelledPicture &p : set.pictures) {
        const std::string stem = stem_of(p.name);
        const int n = ++used[stem];
        zip.add((n == 1 ? stem : stem + "-" + std::to_string(n)) + per_picture_extension(f),
                picture_label_text(p, f, set.classes, options));
    }
    if (f == LabelFormat::yolo) {
        std::string names;
        for (const std::string &c : set.classes) names += c + "\n";
        zip.add("classes.txt", names);
    }
    return file_response(zip.bytes(), "application/zip", download_name(what, f));
}

LabelFormat export_format(const std::string &name) {
    const auto f = format_of_name(name);
    if (!f) {
        throw ApiError(http_status::bad_request, "format must be one of " + format_names() + ", not '" + name + "'");
    }
    return *f;
}

ApiResponse method_not_allowed(const ApiRequest &request, const char *allowed) {
    ApiResponse r = error_response(http_status::method_not_allowed,
                                   request.method + " is not used on " + request.path + " (use " + allowed + ")");
    r.headers.emplace_back("Allow", allowed);
    return r;
}

}  // namespace

std::string json_text(const nlohmann::ordered_json &value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

ApiResponse error_response(int status, const std::string &message) {
    nlohmann::ordered_json j;
    j["error"] = message;
    return json_response(j, status);
}

size_t StudioApi::max_body_bytes(const std::string &path) const {
    if (path == "/api/pictures") {
        return store_.limits().max_file_bytes;
    }
    if (path == "/api/model") {
        return workspace_.max_model_bytes();
    }
    return kMaxJsonBytes;
}

ApiResponse StudioApi::handle(const ApiRequest &request) {
    try {
        return route(request);
    } catch (const ApiError &e) {
        return error_response(e.status(), e.what());
    } catch (const std::exception &e) {
        return error_response(http_status::internal_error, std::string("unexpected failure: ") + e.what());
    } catch (...) {
        return error_response(http_status::internal_error, "unexpected failure");
    }
}

ApiResponse StudioApi::route(const ApiRequest &request) {
    const std::vector<std::string> p = split_path(request.path);
    // HEAD is GET without the body (the server leaves the body out), so a
    // client that checks a picture or a reply's size first is answered as
    // GET is, never with 405.
    const std::string m = request.method == "HEAD" ? std::string("GET") : request.method;
    if (p.size() < 3 || p[0] != "" || p[1] != "api") {
        throw ApiError(http_status::not_found, "no such address: " + request.path);
    }
    const std::string &what = p[2];
    const size_t n = p.size();

    if (what == "status" && n == 3) {
        if (m != "GET") return method_not_allowed(request, "GET");
        nlohmann::ordered_json j = workspace_.status();
        j["pictures"] = store_.list().size();
        j["folder"] = store_.folder();
        j["classes"] = classes_json();
        j["labels"] = labels_.where();
        const PictureLimits &limits = store_.limits();
        j["limits"] = {{"megapixels", limits.max_pixels / 1000000},
                       {"side", limits.max_side},
                       {"file_bytes", limits.max_file_bytes},
                       {"json_bytes", kMaxJsonBytes}};
        // The page shows what each slider position asks of a box from this
        // table rather than deriving it (index = sensitivity).
        static const std::vector<uint32_t> confidence = confidence_by_sensitivity();
        j["confidence_by_sensitivity"] = confidence;
        j["version"] = tool_version();
        return json_response(j);
    }

    if (what == "pictures" && n == 3) {
        if (m == "GET") {
            const auto taught = workspace_.taught();
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const PictureEntry &e : store_.list()) {
                list.push_back(picture_json(e, taught, labels_.labels(e.name)));
            }
            return json_response(list);
        }
        if (m == "POST") {
            require_file_body(request, FileKind::picture);
            const PictureEntry e = store_.add_upload(request.body, query_value(request, "name"));
            return json_response(picture_json(e, {}, {}), http_status::created);
        }
        return method_not_allowed(request, "GET, POST");
    }
    if (what == "pictures" && n == 4) {
        if (m != "GET") return method_not_allowed(request, "GET");
        const PictureEntry e = store_.find(p[3]);
        ApiResponse r;
        r.file = store_.open_file(p[3]);
        r.content_type = media_type(e.format);
        return r;
    }

    if (what == "train" && n == 3) {
        if (m != "POST") return method_not_allowed(request, "POST");
        require_json(request);
        const TrainRequest t = parse_train_request(request.body);
        const std::string class_name = t.class_name.empty() ? default_class() : t.class_name;
        LabelStore::check_class_name(class_name);
        return json_response(train_json(t.picture, workspace_.train(class_name, t.picture, t.boxes)));
    }
    if (what == "train" && n == 4 && p[3] == "progress") {
        if (m != "GET") return method_not_allowed(request, "GET");
        return json_response(workspace_.monitor().to_json());
    }

    if (what == "detect" && n == 3) {
        if (m != "GET") return method_not_allowed(request, "GET");
        bool has_picture = false, has_sensitivity = false;
        const std::string picture = query_value(request, "picture", &has_picture);
        if (!has_picture || picture.empty()) {
            throw ApiError(http_status::bad_request, "name the picture: /api/detect?picture=NAME&sensitivity=N");
        }
        const std::string sensitivity_text = query_value(request, "sensitivity", &has_sensitivity);
        const uint32_t sensitivity = parse_sensitivity(sensitivity_text, has_sensitivity, kDefaultSensitivity);
        const DetectOutcome d = workspace_.detect(picture, sensitivity);
        nlohmann::ordered_json j;
        j["picture"] = picture;
        j["width"] = d.width;
        j["height"] = d.height;
        j["sensitivity"] = sensitivity;
        j["boxes"] = boxes_to_json(d.boxes);
        j["box_classes"] = d.box_classes;
        j["ms"] = tenths(d.ms);
        return json_response(j);
    }

    if (what == "samples" && n == 3) {
        if (m != "GET") return method_not_allowed(request, "GET");
        uint64_t generation = 0;
        const auto samples = workspace_.samples(generation);
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const SampleInfo &s : samples) {
            nlohmann::ordered_json j;
            j["index"] = s.index;
            j["label"] = s.label;
            j["width"] = s.width;
            j["height"] = s.height;
            j["picture"] = s.picture;
            j["box"] = {s.box.x, s.box.y, s.box.w, s.box.h};
            j["class"] = s.class_name;
            j["thumbnail"] = strformat("/api/samples/%zu/thumbnail?generation=%llu", s.index,
                                       static_cast<unsigned long long>(generation));
            list.push_back(j);
        }
        nlohmann::ordered_json j;
        j["generation"] = generation;
        j["samples"] = list;
        return json_response(j);
    }
    if (what == "samples" && n == 4) {
        if (m != "DELETE") return method_not_allowed(request, "DELETE");
        const TrainOutcome o = workspace_.remove_sample(parse_sample_index(p[3]));
        return json_response(train_json("", o));
    }
    if (what == "samples" && n == 5 && p[4] == "thumbnail") {
        if (m != "GET") return method_not_allowed(request, "GET");
        const cv::Mat thumb = workspace_.thumbnail(parse_sample_index(p[3]));
        if (thumb.empty()) {
            throw ApiError(http_status::not_found,
                           "sample " + p[3] + " has no pixels (its box lay outside the picture)");
        }
        std::vector<uint8_t> png;
        if (!cv::imencode(".png", thumb, png)) {
            throw ApiError(http_status::internal_error, "cannot encode the thumbnail");
        }
        ApiResponse r;
        r.content_type = "image/png";
        r.body.assign(png.begin(), png.end());
        return r;
    }

    if (what == "model" && n == 3) {
        if (m == "GET") {
            bool named = false;
            const std::string class_name = query_value(request, "class", &named);
            ApiResponse r;
            r.body = workspace_.model_bytes(class_name);
            r.content_type = "application/octet-stream";
            const std::string file =
                named ? upload_file_name(class_name, ".model") : std::string("ostrel-studio.model");
            r.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + file + "\"");
            return r;
        }
        if (m == "POST") {
            require_file_body(request, FileKind::model);
            bool named = false;
            std::string class_name = query_value(request, "class", &named);
            if (named) {
                LabelStore::check_class_name(class_name);
            } else {
                class_name = default_class();
            }
            // Without a class the model replaces the whole detector, as it
            // did when the studio had one class. A new class joins the list
            // once its model is taken: a refused file changes nothing.
            // The file's classes (a file of several names its own) join the list.
            const std::vector<std::string> loaded =
                workspace_.load_model(request.body, query_value(request, "name"), class_name, !named);
            for (const std::string &c : loaded) {
                bool listed = false;
                for (const StudioClass &k : labels_.classes()) listed = listed || k.name == c;
                if (!listed) labels_.add_class(c, "");
            }
            nlohmann::ordered_json j = workspace_.status();
            return json_response(j);
        }
        return method_not_allowed(request, "GET, POST");
    }

    if (what == "profile" && n == 3) {
        if (m == "GET") {
            return json_response({{"profile", workspace_.profile()}, {"profiles", {"accurate", "classic"}}});
        }
        if (m != "POST") return method_not_allowed(request, "GET, POST");
        require_json(request);
        const ProfileRequest r = parse_profile_request(request.body);
        const ProfileChange change = workspace_.set_profile(r.profile, r.model);
        nlohmann::ordered_json j;
        j["profile"] = change.to;
        j["from"] = change.from;
        j["model"] = change.model;
        if (change.model == "retrained") {
            j["retrained"] = train_json("", change.retrained);
        }
        j["status"] = workspace_.status();
        return json_response(j);
    }

    if (what == "reset" && n == 3) {
        if (m != "POST") return method_not_allowed(request, "POST");
        require_json(request);
        workspace_.reset();
        return json_response(workspace_.status());
    }

    if (what == "labels" || what == "classes" || what == "accept" || what == "export" ||
        (what == "train" && n == 4 && p[3] == "labels")) {
        return labelling_route(request, p);
    }

    throw ApiError(http_status::not_found, "no such address: " + request.path);
}

namespace {
LabelStoreSettings in_memory_labels() {
    LabelStoreSettings s;
    s.in_memory = true;
    return s;
}
}  // namespace

StudioApi::StudioApi(PictureStore &store, Workspace &workspace)
    : own_labels_(std::make_unique<LabelStore>(store, in_memory_labels())),
      store_(store),
      workspace_(workspace),
      labels_(*own_labels_) {}

std::string StudioApi::default_class() {
    const auto classes = labels_.classes();
    return classes.empty() ? std::string("object") : classes.front().name;
}

nlohmann::ordered_json StudioApi::classes_json() {
    const auto counts = labels_.class_box_counts();
    const nlohmann::ordered_json status = workspace_.status();
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const StudioClass &c : labels_.classes()) {
        bool trained = false;
        for (const auto &d : status["detectors"]) {
            trained = trained || (d["name"] == c.name && d["trained"].get<bool>());
        }
        const auto count = counts.find(c.name);
        list.push_back({{"name", c.name},
                        {"color", c.color},
                        {"boxes", count == counts.end() ? 0 : count->second},
                        {"trained", trained}});
    }
    return list;
}

nlohmann::ordered_json StudioApi::accept(const AcceptRequest &request) {
    std::vector<std::string> names;
    if (!request.unlabelled) {
        store_.find(request.picture);
        names.push_back(request.picture);
    } else {
        for (const PictureEntry &e : store_.list()) {
            if (!labels_.has_labels(e.name)) names.push_back(e.name);
        }
    }
    if (!workspace_.trained()) {
        throw ApiError(http_status::conflict, "nothing is trained yet: train on a picture first");
    }
    const auto start = std::chrono::steady_clock::now();
    nlohmann::ordered_json pictures = nlohmann::ordered_json::array();
    size_t added_total = 0;
    for (const std::string &name : names) {
        const PictureEntry entry = store_.find(name);
        const DetectOutcome d = workspace_.detect(name, request.sensitivity);
        std::vector<StudioLabel> labels = labels_.labels(name);
        const size_t before = labels.size();
        for (size_t i = 0; i < d.boxes.size(); ++i) {
            StudioLabel found;
            if (!is_found(d.boxes[i]) ||
                !label_of_detection(d.boxes[i], d.box_classes[i], entry.width, entry.height, found)) {
                continue;
            }
            // A box already labelled (the same class, mostly overlapping) is not added twice.
            const bool known = std::any_of(labels.begin(), labels.end(), [&](const StudioLabel &l) {
                return l.class_name == found.class_name && intersection_over_union(l.box, found.box) >= 0.5;
            });
            if (!known) labels.push_back(found);
        }
        if (labels.size() != before) {
            try {
                labels_.save(name, labels);
            } catch (const ApiError &e) {
                // Over the folder, a picture whose labels may not be written
                // is passed over and named; the others are done.
                if (!request.unlabelled) throw;
                pictures.push_back({{"picture", name},
                                    {"added", 0},
                                    {"labels", labels_json(labels_.labels(name))},
                                    {"error", e.what()}});
                continue;
            }
        }
        added_total += labels.size() - before;
        pictures.push_back({{"picture", name}, {"added", labels.size() - before}, {"labels", labels_json(labels)}});
    }
    nlohmann::ordered_json j;
    j["added"] = added_total;
    j["pictures"] = pictures;
    j["ms"] = tenths(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    j["classes"] = classes_json();
    return j;
}

ApiResponse StudioApi::export_labels(const std::string &format) {
    const LabelFormat f = export_format(format);
    LabelWriteOptions options;
    return label_set_download(labels_.label_set(), f, "labels", options);
}

ApiResponse StudioApi::export_detections(const std::string &format, uint32_t sensitivity) {
    const LabelFormat f = export_format(format);
    LabelSet set;
    set.format = f;
    for (const StudioClass &c : labels_.classes()) set.classes.push_back(c.name);
    int64_t id = 0;
    for (const PictureEntry &e : store_.list()) {
        const DetectOutcome d = workspace_.detect(e.name, sensitivity);
        LabelledPicture p;
        p.name = e.name;
        p.width = e.width;
        p.height = e.height;
        p.id = ++id;
        for (size_t i = 0; i < d.boxes.size(); ++i) {
            StudioLabel l;
            if (!is_found(d.boxes[i]) || !label_of_detection(d.boxes[i], d.box_classes[i], e.width, e.height, l)) {
                continue;
            }
            LabelBox b = label_box_of(l.box, l.class_name);
            // Two decimals, as the tool's detections give them.
            b.score = std::round(static_cast<double>(d.boxes[i].score) * 100.0) / 100.0;
            p.boxes.push_back(b);
        }
        set.pictures.push_back(p);
    }
    if (f == LabelFormat::coco) {
        return file_response(write_coco_results(set, nullptr), "application/json", "detections-coco-results.json");
    }
    LabelWriteOptions options;
    options.predictions = true;
    options.model_version = "ostrel studio";
    return label_set_download(set, f, "detections", options);
}

ApiResponse StudioApi::labelling_route(const ApiRequest &request, const std::vector<std::string> &p) {
    const std::string &m = request.method;
    const std::string &what = p[2];
    const size_t n = p.size();

    if (what == "train") {
        if (m != "POST") return method_not_allowed(request, "POST");
        require_json(request);
        const std::string picture = parse_picture_request(request.body);
        store_.find(picture);
        std::map<std::string, std::vector<Rect>> groups;
        for (const StudioLabel &l : labels_.labels(picture)) {
            groups[l.class_name].push_back(l.box);
        }
        if (groups.empty()) {
            throw ApiError(http_status::unprocessable, "'" + picture + "' has no labels to train on: mark boxes first");
        }
        return json_response(train_json(picture, workspace_.train_labels(picture, groups)));
    }

    if (what == "labels" && n == 4) {
        const PictureEntry entry = store_.find(p[3]);
        if (m == "GET") {
            nlohmann::ordered_json j;
            j["picture"] = entry.name;
            j["boxes"] = labels_json(labels_.labels(entry.name));
            return json_response(j);
        }
        if (m == "PUT") {
            require_json(request);
            const std::string fallback = default_class();
            std::vector<StudioLabel> labels;
            for (const LabelRequestBox &b : parse_labels_request(request.body, LabelStoreSettings().max_boxes)) {
                labels.push_back({b.class_given ? b.class_name : fallback, b.box});
            }
            const std::string file = labels_.save(entry.name, labels);
            nlohmann::ordered_json j;
            j["picture"] = entry.name;
            j["boxes"] = labels_json(labels_.labels(entry.name));
            j["file"] = file;
            j["classes"] = classes_json();
            return json_response(j);
        }
        return method_not_allowed(request, "GET, PUT");
    }

    if (what == "classes" && n == 3) {
        if (m == "GET") {
            return json_response({{"classes", classes_json()}});
        }
        if (m == "POST") {
            require_json(request);
            const ClassRequest c = parse_class_request(request.body);
            if (!c.name) throw ApiError(http_status::bad_request, "name the class: {\"name\": NAME}");
            labels_.add_class(*c.name, c.color.value_or(""));
            return json_response({{"classes", classes_json()}}, http_status::created);
        }
        return method_not_allowed(request, "GET, POST");
    }
    if (what == "classes" && n == 4) {
        if (m != "PUT") return method_not_allowed(request, "PUT");
        require_json(request);
        const ClassRequest c = parse_class_request(request.body);
        if (c.name) LabelStore::check_class_name(*c.name);
        bool known = false;
        for (const StudioClass &k : labels_.classes()) known = known || k.name == p[3];
        if (!known) throw ApiError(http_status::not_found, "no class named '" + p[3] + "'");
        if (c.name && *c.name != p[3]) {
            for (const StudioClass &k : labels_.classes()) {
                if (k.name == *c.name)
                    throw ApiError(http_status::conflict, "there is a class named '" + *c.name + "' already");
            }
            workspace_.rename_class(p[3], *c.name);
        }
        labels_.update_class(p[3], c.name, c.color);
        return json_response({{"classes", classes_json()}});
    }

    if (what == "accept" && n == 3) {
        if (m != "POST") return method_not_allowed(request, "POST");
        require_json(request);
        return json_response(accept(parse_accept_request(request.body)));
    }

    if (what == "export" && n == 4 && (p[3] == "labels" || p[3] == "detections")) {
        if (m != "GET") return method_not_allowed(request, "GET");
        bool has_format = false;
        const std::string format = query_value(request, "format", &has_format);
        if (!has_format) throw ApiError(http_status::bad_request, "name the format: ?format=" + format_names());
        if (p[3] == "labels") return export_labels(format);
        bool has_sensitivity = false;
        const std::string sensitivity_text = query_value(request, "sensitivity", &has_sensitivity);
        return export_detections(format, parse_sensitivity(sensitivity_text, has_sensitivity, kDefaultSensitivity));
    }

    throw ApiError(http_status::not_found, "no such address: " + request.path);
}

}  // namespace studio
}  // namespace ostrel_tool
