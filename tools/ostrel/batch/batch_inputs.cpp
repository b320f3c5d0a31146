#include "batch/batch_inputs.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "cli/tool_output.h"

namespace ostrel_tool {

namespace fs = std::filesystem;

namespace {

std::string lower_extension(const std::string &path) {
    std::string e = fs::path(path).extension().string();
    std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return e;
}

bool one_of(const std::string &value, std::initializer_list<const char *> list) {
    return std::any_of(list.begin(), list.end(), [&](const char *x) { return value == x; });
}

InputKind kind_of(const std::string &path) { return has_video_extension(path) ? InputKind::video : InputKind::picture; }

std::string what_of(const std::string &path) { return has_video_extension(path) ? "video" : "picture"; }

// Depth-first over one folder argument, entries in name order.
class FolderWalk {
public:
    FolderWalk(bool recursive, InputExpansion &out) : recursive_(recursive), out_(out) {}

    void walk(const fs::path &folder) {
        std::error_code ec;
        const fs::path canonical = fs::canonical(folder, ec);
        if (!ec && !visited_.insert(canonical.string()).second) {
            out_.notes.push_back("'" + folder.string() +
                                 "' leads to a folder searched already (a link loop?); "
                                 "not searched again");
            return;
        }
        std::vector<fs::path> entries;
        fs::directory_iterator it(folder, ec);
        for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
            entries.push_back(it->path());
        }
        if (ec) {
            out_.problems.push_back({folder.string(), "cannot read folder '" + folder.string() + "': " + ec.message()});
            return;
        }
        std::sort(entries.begin(), entries.end(),
                  [](const fs::path &a, const fs::path &b) { return a.filename().string() < b.filename().string(); });
        for (const fs::path &entry : entries) {
            const std::string name = entry.filename().string();
            if (name.empty() || name[0] == '.') {
                continue;
            }
            const std::string path = entry.string();
            std::error_code status_error;
            const fs::file_status status = fs::status(entry, status_error);  // follows links
            if (fs::is_directory(status)) {
                if (recursive_) {
                    walk(entry);
                } else {
                    ++folders_passed_over_;
                }
                continue;
            }
            const bool wanted = has_picture_extension(path) || has_video_extension(path);
            if (!wanted) {
                ++passed_over_;
                continue;
            }
            if (status_error || !fs::exists(status)) {
                out_.problems.push_back({path, "cannot open " + what_of(path) + " '" + path + "': " +
                                                   (status_error ? status_error.message() : "a broken symbolic link")});
                continue;
            }
            if (!fs::is_regular_file(status)) {
                out_.problems.push_back({path, "cannot read " + what_of(path) + " '" + path + "': not a regular file"});
                continue;
            }
            out_.inputs.push_back({path, kind_of(path)});
        }
    }

    void report(const std::string &folder) {
        if (passed_over_ > 0) {
            out_.notes.push_back(strformat("passed over %lld file%s in '%s' that %s neither a picture nor a video",
                                           passed_over_, passed_over_ == 1 ? "" : "s", folder.c_str(),
                                           passed_over_ == 1 ? "is" : "are"));
        }
        if (folders_passed_over_ > 0) {
            out_.notes.push_back(strformat("passed over %lld sub-folder%s of '%s' (--recursive searches them)",
                                           folders_passed_over_, folders_passed_over_ == 1 ? "" : "s", folder.c_str()));
        }
    }

private:
    bool recursive_;
    InputExpansion &out_;
    std::set<std::string> visited_;
    long long passed_over_ = 0;
    long long folders_passed_over_ = 0;
};

}  // namespace

bool has_picture_extension(const std::string &path) {
    return one_of(lower_extension(path),
                  {".jpg", ".jpeg", ".jpe", ".png", ".bmp", ".dib", ".tif", ".tiff", ".webp", ".ppm",
                   ".pgm", ".pbm",  ".pnm", ".pxm", ".sr",  ".ras", ".jp2", ".exr",  ".hdr",  ".pic"});
}

bool has_video_extension(const std::string &path) {
    return one_of(lower_extension(path), {".mp4", ".m4v", ".mov", ".avi", ".mkv", ".webm", ".mpg", ".mpeg", ".ts",
                                          ".mts", ".m2ts", ".wmv", ".flv", ".ogv", ".3gp", ".mjpeg", ".mjpg", ".y4m"});
}

std::vector<std::string> read_path_list(std::istream &in, const std::string &list_name,
                                        std::vector<InputProblem> *problems) {
    std::vector<std::string> paths;
    std::string line;
    for (long long number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.find('\0') != std::string::npos) {
            if (problems != nullptr) {
                problems->push_back({list_name, strformat("cannot use line %lld of list '%s': it holds a NUL byte, "
                                                          "which no file name can; line skipped",
                                                          number, list_name.c_str())});
            }
            continue;
        }
        if (line.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        paths.push_back(line);
    }
    return paths;
}

InputExpansion expand_inputs(const std::vector<std::string> &arguments, bool recursive) {
    InputExpansion out;
    for (const std::string &argument : arguments) {
        std::error_code ec;
        const fs::file_status status = fs::status(argument, ec);
        if (fs::is_directory(status)) {
            FolderWalk walk(recursive, out);
            walk.walk(argument);
            walk.report(argument);
        } else if (!fs::exists(status)) {
            const bool missing = !ec || ec == std::errc::no_such_file_or_directory;
            out.problems.push_back({argument, "cannot open " + what_of(argument) + " '" + argument +
                                                  "': " + (missing ? "no such file" : ec.message())});
        } else if (!fs::is_regular_file(status)) {
            out.problems.push_back(
                {argument, "cannot read " + what_of(argument) + " '" + argument + "': not a regular file"});
        } else {
            out.inputs.push_back({argument, kind_of(argument)});
        }
    }
    return out;
}

}  // namespace ostrel_tool
