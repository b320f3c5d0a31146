// The studio's JSON interface under /api/, apart from HTTP itself: a request
// (method, decoded path, query values, headers that matter, body) goes in,
// a response (status, media type, body) comes out. The server hands every
// /api/ request here; tests and the random-request test call it directly.
//
// Every failure becomes a 4xx (or, when the library itself fails, 500)
// response with {"error": "..."}; handle() never throws.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "studio/api_requests.h"
#include "studio/label_store.h"
#include "studio/picture_store.h"
#include "studio/read_only_file.h"
#include "studio/workspace.h"

namespace ostrel_tool {
namespace studio {

struct ApiRequest {
    std::string method;                        // "GET", "POST", "DELETE", ...
    std::string path;                          // decoded, starting with "/api/"
    std::map<std::string, std::string> query;  // decoded; the first value of each name
    std::string content_type;                  // the Content-Type header, "" when absent (see media_type.h)
    std::string body;
};

struct ApiResponse {
    int status = 200;
    std::string content_type = "application/json";
    std::string body;
    // A file to send instead of body (a picture): the server streams it from
    // the open file rather than holding it in memory.
    std::shared_ptr<const ReadOnlyFile> file;
    std::vector<std::pair<std::string, std::string>> headers;
};

class StudioApi {
public:
    StudioApi(PictureStore &store, Workspace &workspace, LabelStore &labels)
        : store_(store), workspace_(workspace), labels_(labels) {}
    // Labels kept in memory only (nothing is written next to the pictures).
    StudioApi(PictureStore &store, Workspace &workspace);

    ApiResponse handle(const ApiRequest &request);

    // The largest body a request to path may have: a picture file for
    // /api/pictures, a model file for /api/model, a JSON request elsewhere.
    // The server refuses longer bodies before reading them.
    size_t max_body_bytes(const std::string &path) const;

private:
    ApiResponse route(const ApiRequest &request);
    ApiResponse labelling_route(const ApiRequest &request, const std::vector<std::string> &path);
    nlohmann::ordered_json classes_json();
    nlohmann::ordered_json accept(const AcceptRequest &request);
    ApiResponse export_labels(const std::string &format);
    ApiResponse export_detections(const std::string &format, uint32_t sensitivity);
    // The class a request without one means: the first of the list.
    std::string default_class();

    std::unique_ptr<LabelStore> own_labels_;  // when made without a label store
    PictureStore &store_;
    Workspace &workspace_;
    LabelStore &labels_;
};

// {"error": message} with the status.
ApiResponse error_response(int status, const std::string &message);
// Serialises JSON; bytes that are not UTF-8 (from a file name, say) are
// replaced rather than failing.
std::string json_text(const nlohmann::ordered_json &value);

}  // namespace studio
}  // namespace ostrel_tool
