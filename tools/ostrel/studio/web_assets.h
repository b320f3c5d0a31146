// The page's files (HTML, CSS, JavaScript, icon), read once at start from
// the studio's web folder and served from memory. Only the files named here
// exist for the server: no request path ever reaches the file system.
#pragma once

#include <map>
#include <string>

namespace ostrel_tool {
namespace studio {

struct WebAsset {
    std::string content_type;
    std::string body;
};

class WebAssets {
public:
    // Reads index.html, studio.css, studio.js, viewer.js and icon.svg from folder.
    // Throws an input error naming the missing file.
    explicit WebAssets(const std::string &folder);

    // The asset for a request path ("/" is index.html), or null.
    const WebAsset *find(const std::string &path) const;

private:
    std::map<std::string, WebAsset> assets_;
};

// Where the page's files are: OSTREL_STUDIO_WEB when set, else
// <executable>/../share/ostrel/studio (an installed tool), else the source
// folder the tool was built from. "" when none holds index.html.
std::string find_web_folder();

}  // namespace studio
}  // namespace ostrel_tool
