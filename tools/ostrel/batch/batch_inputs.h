// What `ostrel detect` works on: the INPUT arguments and --list files turned
// into one ordered list of pictures and videos.
//
// - A file is a video when its extension is a video one (.mp4, .avi, .mkv,
//   ...), otherwise a picture; whether it can be decoded is found out later.
// - A folder gives its pictures and videos (known extensions only), sorted
//   by name (byte order of the path); names starting with '.' are left out.
//   With recursive, sub-folders are searched too (symbolic links to folders
//   followed, each folder visited once, so a link loop ends). Other files are
//   passed over and counted, so that a folder of thousands of them costs one
//   warning line.
// - A list gives one path a line (a picture, video or folder, relative to the
//   current folder); blank lines are skipped, a trailing carriage return is
//   dropped, nothing else of a line is changed. A line that holds a NUL byte
//   names no file (the system would read the name only up to it): it is
//   refused with its line number, never cut short.
// A path that does not exist or a folder that cannot be read becomes a
// problem: reported, skipped, and the run ends with the input exit code.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace ostrel_tool {

enum class InputKind { picture, video };

struct BatchInput {
    std::string path;
    InputKind kind = InputKind::picture;
};

struct InputProblem {
    std::string path;
    std::string reason;  // "cannot open picture '<path>': no such file", ready to print
};

struct InputExpansion {
    std::vector<BatchInput> inputs;
    std::vector<InputProblem> problems;
    std::vector<std::string> notes;  // warnings: passed-over files, link loops
};

bool has_picture_extension(const std::string &path);
bool has_video_extension(const std::string &path);

// The paths of a list (see above). A line with a NUL byte is left out and,
// when problems is given, reported there with the list's name and the line
// number.
std::vector<std::string> read_path_list(std::istream &in, const std::string &list_name = "-",
                                        std::vector<InputProblem> *problems = nullptr);

// Expands the arguments in order, then the entries of each list in order.
InputExpansion expand_inputs(const std::vector<std::string> &arguments, bool recursive);

}  // namespace ostrel_tool
