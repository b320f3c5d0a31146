// Exit codes of the ostrel command. They are part of the tool's interface:
// scripts test them, and every --help text lists them.
#pragma once

namespace ostrel_tool {

enum class ExitCode : int {
    ok = 0,             // done; for `check`: the model file is valid
    failed = 1,         // the library refused or failed (training, detection, export);
                        // a --profile that contradicts the model file;
                        // for `check`: the model file is not valid
    usage = 2,          // bad command line: unknown option, missing or malformed argument
    input = 3,          // an input cannot be used: missing file, unreadable picture
                        // (above the pixel limit, cut short), malformed box or
                        // annotation file, too many boxes, unusable model file
                        // (not valid, or valid but unusable);
                        // detect: one or more inputs were skipped, all others done
    output = 4,         // an output file or folder cannot be written, or is a folder,
                        // device or FIFO (refused, left as it is)
    interrupted = 130,  // detect: stopped by SIGINT or SIGTERM; what was done is written completely
};

inline int to_int(ExitCode code) { return static_cast<int>(code); }

// The table shown at the end of every --help text.
inline const char *exit_code_help() {
    return "Exit codes:\n"
           "  0  success (check: the model file is valid)\n"
           "  1  the library failed: training, detection or export did not succeed; a --profile\n"
           "     that contradicts the model file\n"
           "     (check: the model file is not valid; info: it has a problem or another CRC)\n"
           "  2  bad command line: unknown option, missing or malformed argument or box\n"
           "  3  unusable input: missing file, unreadable picture, picture above the pixel\n"
           "     limit or cut short, malformed box or annotation file, more than 1000 boxes\n"
           "     a picture, model file that cannot be read or used (a model check calls\n"
           "     not valid, or valid but unusable) (detect: every such input is\n"
           "     reported and skipped, all the others are done)\n"
           "  4  an output file or folder cannot be written, or is a folder, device or FIFO\n"
           "     (refused and left as it is; detect: the results are still printed)\n"
           "  130  detect was interrupted (SIGINT, SIGTERM): the results of the pictures\n"
           "     done are printed and written completely, the rest is not started\n"
           "Errors are reported as one line on standard error. Outputs are written to a\n"
           "temporary name and renamed when complete, so a failure leaves no half file; a\n"
           "symbolic link is written through and a replaced file keeps its mode.";
}

}  // namespace ostrel_tool
