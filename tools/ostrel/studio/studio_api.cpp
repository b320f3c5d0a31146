#include "studio_api.h"

#include <cmath>
#include <exception>

#include <opencv2/imgcodecs.hpp>

#include "api_error.h"
#include "api_requests.h"
#include "box_io.h"
#include "media_type.h"
#include "command_support.h"
#include "tool_output.h"

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
    const bool accepted = type && !is_sent_without_preflight(*type) &&
                          (type->essence() == "application/octet-stream" ||
                           (kind == FileKind::picture && type->type == "image"));
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

nlohmann::ordered_json picture_json(const PictureEntry &e, const std::vector<TaughtPicture> &taught) {
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
    return j;
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
    const std::string &m = request.method;
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
        const PictureLimits &limits = store_.limits();
        j["limits"] = {{"megapixels", limits.max_pixels / 1000000}, {"side", limits.max_side},
                       {"file_bytes", limits.max_file_bytes}, {"json_bytes", kMaxJsonBytes}};
        return json_response(j);
    }

    if (what == "pictures" && n == 3) {
        if (m == "GET") {
            const auto taught = workspace_.taught();
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const PictureEntry &e : store_.list()) {
                list.push_back(picture_json(e, taught));
            }
            return json_response(list);
        }
        if (m == "POST") {
            require_file_body(request, FileKind::picture);
            const PictureEntry e = store_.add_upload(request.body, query_value(request, "name"));
            return json_response(picture_json(e, {}), http_status::created);
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
        return json_response(train_json(t.picture, workspace_.train(t.picture, t.boxes)));
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
            throw ApiError(http_status::not_found, "sample " + p[3] + " has no pixels (its box lay outside the picture)");
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
            ApiResponse r;
            r.body = workspace_.model_bytes();
            r.content_type = "application/octet-stream";
            r.headers.emplace_back("Content-Disposition", "attachment; filename=\"ostrel-studio.model\"");
            return r;
        }
        if (m == "POST") {
            require_file_body(request, FileKind::model);
            workspace_.load_model(request.body, query_value(request, "name"));
            nlohmann::ordered_json j = workspace_.status();
            return json_response(j);
        }
        return method_not_allowed(request, "GET, POST");
    }

    if (what == "reset" && n == 3) {
        if (m != "POST") return method_not_allowed(request, "POST");
        require_json(request);
        workspace_.reset();
        return json_response(workspace_.status());
    }

    throw ApiError(http_status::not_found, "no such address: " + request.path);
}

}  // namespace studio
}  // namespace ostrel_tool
