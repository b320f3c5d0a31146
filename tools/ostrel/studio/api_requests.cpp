#include "studio/api_requests.h"

#include <limits>
#include <string>

#include <nlohmann/json.hpp>

#include "ostrel_alg.h"

#include "cli/tool_output.h"
#include "studio/api_error.h"

namespace ostrel_tool {
namespace studio {

namespace {

// The one wording of the sensitivity rule, from the library's range.
const std::string kSensitivityRule = "sensitivity must be a whole number from " +
                                     std::to_string(OSTREL_ALG_MIN_SENSITIVITY) + " to " +
                                     std::to_string(OSTREL_ALG_MAX_SENSITIVITY);

const char *kTrainShape = "expected {\"picture\": NAME, \"boxes\": [[x, y, w, h], ...]}";

int whole_number(const nlohmann::json &value, const std::string &where) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned()) {
            const auto v = value.get<uint64_t>();
            if (v <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
                return static_cast<int>(v);
            }
        } else {
            const auto v = value.get<int64_t>();
            if (v >= std::numeric_limits<int32_t>::min() && v <= std::numeric_limits<int32_t>::max()) {
                return static_cast<int>(v);
            }
        }
        throw ApiError(http_status::bad_request, where + " does not fit in 32 bits");
    }
    if (value.is_number_float()) {
        throw ApiError(http_status::bad_request, where + " must be a whole number of pixels");
    }
    throw ApiError(http_status::bad_request, where + " must be a number, not " + std::string(value.type_name()));
}

Rect box_of(const nlohmann::json &item, size_t i) {
    const std::string where = strformat("box %zu", i + 1);
    if (item.is_array()) {
        if (item.size() != 4) {
            throw ApiError(http_status::bad_request, where + ": expected [x, y, w, h], four numbers");
        }
        return {whole_number(item[0], where + " x"), whole_number(item[1], where + " y"),
                whole_number(item[2], where + " w"), whole_number(item[3], where + " h")};
    }
    if (item.is_object()) {
        Rect r;
        int *fields[] = {&r.x, &r.y, &r.w, &r.h};
        const char *names[] = {"x", "y", "w", "h"};
        for (int f = 0; f < 4; ++f) {
            const auto it = item.find(names[f]);
            if (it == item.end()) {
                throw ApiError(http_status::bad_request, where + ": no \"" + names[f] + "\"");
            }
            *fields[f] = whole_number(*it, where + " " + names[f]);
        }
        return r;
    }
    throw ApiError(http_status::bad_request, where + ": expected [x, y, w, h], not " + std::string(item.type_name()));
}

nlohmann::json parse_object(const std::string &body, const char *shape) {
    check_json_shape(body);
    nlohmann::json doc;
    try {
        doc = nlohmann::json::parse(body);
    } catch (const nlohmann::json::exception &e) {
        throw ApiError(http_status::bad_request, std::string("the request is not valid JSON; ") + shape);
    }
    if (!doc.is_object()) {
        throw ApiError(http_status::bad_request,
                       std::string("the request is a JSON ") + doc.type_name() + "; " + shape);
    }
    return doc;
}

std::string text_member(const nlohmann::json &doc, const char *key, const char *shape) {
    const auto it = doc.find(key);
    if (it == doc.end() || !it->is_string()) {
        throw ApiError(http_status::bad_request, std::string("\"") + key + "\" must be text; " + shape);
    }
    return it->get<std::string>();
}

}  // namespace

void check_json_shape(const std::string &body) {
    if (body.size() > kMaxJsonBytes) {
        throw ApiError(http_status::payload_too_large,
                       strformat("the request has %zu bytes: a JSON request is at most %zu KiB", body.size(),
                                 kMaxJsonBytes >> 10));
    }
    size_t depth = 0;
    size_t values = 1;
    bool in_string = false;
    for (size_t i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (in_string) {
            if (c == '\\') {
                ++i;  // the escaped character, whatever it is
            } else if (c == '"') {
                in_string = false;
            }
            continue;
        }
        switch (c) {
            case '"': in_string = true; break;
            case '[':
            case '{':
                ++values;
                if (++depth > kMaxJsonDepth) {
                    throw ApiError(http_status::bad_request,
                                   strformat("the request is nested deeper than %zu levels; %s", kMaxJsonDepth,
                                             kTrainShape));
                }
                break;
            case ']':
            case '}': depth = depth > 0 ? depth - 1 : 0; break;
            case ',': ++values; break;
            default: break;
        }
        if (values > kMaxJsonValues) {
            throw ApiError(http_status::bad_request,
                           strformat("the request holds more than %zu values; %s", kMaxJsonValues, kTrainShape));
        }
    }
}

TrainRequest parse_train_request(const std::string &body) {
    check_json_shape(body);
    nlohmann::json doc;
    try {
        doc = nlohmann::json::parse(body);
    } catch (const nlohmann::json::parse_error &e) {
        throw ApiError(http_status::bad_request,
                       strformat("the request is not valid JSON (at byte %zu); %s", e.byte, kTrainShape));
    } catch (const nlohmann::json::out_of_range &) {
        // 1e400 and the like: a number beyond any double.
        throw ApiError(http_status::bad_request,
                       std::string("the request holds a number too large to read; ") + kTrainShape);
    } catch (const nlohmann::json::exception &) {
        throw ApiError(http_status::bad_request, std::string("the request is not valid JSON; ") + kTrainShape);
    }
    if (!doc.is_object()) {
        throw ApiError(http_status::bad_request,
                       std::string("the request is a JSON ") + doc.type_name() + "; " + kTrainShape);
    }
    TrainRequest request;
    const auto picture = doc.find("picture");
    if (picture == doc.end() || !picture->is_string()) {
        throw ApiError(http_status::bad_request, std::string("\"picture\" must be a picture name; ") + kTrainShape);
    }
    request.picture = picture->get<std::string>();
    const auto boxes = doc.find("boxes");
    if (boxes == doc.end() || !boxes->is_array()) {
        throw ApiError(http_status::bad_request, std::string("\"boxes\" must be a list of boxes; ") + kTrainShape);
    }
    for (size_t i = 0; i < boxes->size(); ++i) {
        request.boxes.push_back(box_of((*boxes)[i], i));
    }
    const auto cls = doc.find("class");
    if (cls != doc.end()) {
        if (!cls->is_string()) {
            throw ApiError(http_status::bad_request, std::string("\"class\" must be a class name; ") + kTrainShape);
        }
        request.class_name = cls->get<std::string>();
    }
    return request;
}

std::vector<LabelRequestBox> parse_labels_request(const std::string &body, size_t max_boxes) {
    const char *shape = "expected {\"boxes\": [{\"class\": NAME, \"x\", \"y\", \"w\", \"h\"}, ...]}";
    const nlohmann::json doc = parse_object(body, shape);
    const auto boxes = doc.find("boxes");
    if (boxes == doc.end() || !boxes->is_array()) {
        throw ApiError(http_status::bad_request, std::string("\"boxes\" must be a list of boxes; ") + shape);
    }
    if (boxes->size() > max_boxes) {
        throw ApiError(http_status::unprocessable,
                       strformat("%zu boxes: at most %zu a picture", boxes->size(), max_boxes));
    }
    std::vector<LabelRequestBox> out;
    for (size_t i = 0; i < boxes->size(); ++i) {
        const nlohmann::json &item = (*boxes)[i];
        LabelRequestBox b;
        b.box = box_of(item, i);
        if (item.is_object()) {
            const auto cls = item.find("class");
            if (cls != item.end()) {
                if (!cls->is_string()) {
                    throw ApiError(http_status::bad_request,
                                   strformat("box %zu: \"class\" must be a class name", i + 1));
                }
                b.class_name = cls->get<std::string>();
                b.class_given = true;
            }
        }
        out.push_back(b);
    }
    return out;
}

ClassRequest parse_class_request(const std::string &body) {
    const char *shape = "expected {\"name\": NAME, \"color\": \"#rrggbb\"}";
    const nlohmann::json doc = parse_object(body, shape);
    ClassRequest r;
    if (doc.contains("name")) r.name = text_member(doc, "name", shape);
    if (doc.contains("color")) r.color = text_member(doc, "color", shape);
    return r;
}

std::string parse_picture_request(const std::string &body) {
    const char *shape = "expected {\"picture\": NAME}";
    return text_member(parse_object(body, shape), "picture", shape);
}

ProfileRequest parse_profile_request(const std::string &body) {
    const char *shape = "expected {\"profile\": \"accurate\" or \"classic\", \"model\": \"retrain\" or \"forget\"}";
    const nlohmann::json doc = parse_object(body, shape);
    ProfileRequest r;
    r.profile = text_member(doc, "profile", shape);
    if (r.profile != "accurate" && r.profile != "classic") {
        throw ApiError(http_status::bad_request, "unknown profile '" + r.profile + "'; " + shape);
    }
    if (doc.contains("model")) {
        r.model = text_member(doc, "model", shape);
        if (r.model != "retrain" && r.model != "forget") {
            throw ApiError(http_status::bad_request,
                           "\"model\" is \"retrain\" or \"forget\", not '" + r.model + "'; " + shape);
        }
    }
    return r;
}

AcceptRequest parse_accept_request(const std::string &body) {
    const char *shape =
        "expected {\"picture\": NAME, \"sensitivity\": N} or {\"unlabelled\": true, \"sensitivity\": N}";
    const nlohmann::json doc = parse_object(body, shape);
    AcceptRequest r;
    const auto unlabelled = doc.find("unlabelled");
    if (unlabelled != doc.end()) {
        if (!unlabelled->is_boolean()) {
            throw ApiError(http_status::bad_request, std::string("\"unlabelled\" must be true or false; ") + shape);
        }
        r.unlabelled = unlabelled->get<bool>();
    }
    if (doc.contains("picture")) {
        r.picture = text_member(doc, "picture", shape);
    }
    if (r.unlabelled == !r.picture.empty()) {
        throw ApiError(http_status::bad_request,
                       std::string("name one picture or ask for every unlabelled one; ") + shape);
    }
    const auto sensitivity = doc.find("sensitivity");
    if (sensitivity != doc.end()) {
        if (!sensitivity->is_number_integer() || sensitivity->get<int64_t>() < OSTREL_ALG_MIN_SENSITIVITY ||
            sensitivity->get<int64_t>() > OSTREL_ALG_MAX_SENSITIVITY) {
            throw ApiError(http_status::bad_request, kSensitivityRule);
        }
        r.sensitivity = static_cast<uint32_t>(sensitivity->get<int64_t>());
    }
    return r;
}

uint32_t parse_sensitivity(const std::string &text, bool present, uint32_t fallback) {
    if (!present) {
        return fallback;
    }
    bool digits = !text.empty() && text.size() <= 3;
    for (const char c : text) {
        digits = digits && c >= '0' && c <= '9';
    }
    const int value = digits ? std::stoi(text) : -1;
    if (value < OSTREL_ALG_MIN_SENSITIVITY || value > OSTREL_ALG_MAX_SENSITIVITY) {
        throw ApiError(http_status::bad_request, kSensitivityRule + ", not '" + text + "'");
    }
    return static_cast<uint32_t>(value);
}

size_t parse_sample_index(const std::string &text) {
    bool digits = !text.empty() && text.size() <= 9;
    for (const char c : text) {
        digits = digits && c >= '0' && c <= '9';
    }
    if (!digits) {
        throw ApiError(http_status::not_found, "no sample '" + text + "': samples are numbered from 0");
    }
    return static_cast<size_t>(std::stoul(text));
}

}  // namespace studio
}  // namespace ostrel_tool
