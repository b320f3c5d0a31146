#include "batch/batch_detection.h"

#include <malloc.h>
#include <sys/stat.h>
#ifdef __linux__
#include <sched.h>
#endif

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "batch/batch_inputs.h"
#include "batch/batch_results.h"
#include "batch/batch_work.h"
#include "batch/detection_report.h"
#include "batch/ordered_pool.h"
#include "cli/exit_codes.h"
#include "cli/interrupt.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "engine/engine.h"
#include "files/atomic_file.h"
#include "files/picture.h"
#include "render/annotated_video.h"
#include "render/drawing.h"

namespace ostrel_tool {

namespace {

// The work of one thread: its own engine, the model loaded once.
class DetectWorker {
public:
    explicit DetectWorker(const BatchDetectOptions &o) : o_(o) {
        // The import sets the engine's profile to the file's.
        load_model(engine_, o.model, o.profile);
        class_names_ = named_classes(engine_);
        if (!engine_.set_sensitivity(o.sensitivity)) {
            throw ToolError(ExitCode::failed, "the library refused the sensitivity: " + engine_.last_error());
        }
    }

    // Whatever goes wrong with one input is reported with it; the run goes on.
    DetectResult operator()(DetectWork &work) {
        try {
            return process(work);
        } catch (const std::exception &e) {
            DetectResult r;
            r.kind = work.kind;
            r.video = work.video;
            r.input_problem = "unexpected failure on '" + work.path + "': " + e.what();
            return r;
        }
    }

private:
    DetectResult process(DetectWork &work) {
        DetectResult r;
        r.kind = work.kind;
        r.video = work.video;
        if (work.kind == DetectWork::Kind::failure || work.kind == DetectWork::Kind::video_start ||
            work.kind == DetectWork::Kind::video_end) {
            r.input_problem = work.message;
            return r;
        }
        Picture picture;
        if (work.kind == DetectWork::Kind::picture) {
            try {
                picture = load_picture(work.path);
            } catch (const ToolError &e) {
                r.input_problem = e.what();
                return r;
            }
        } else {
            picture = picture_from_pixels(work.frame.pixels, work.path);
            work.frame.pixels.release();
            r.time_ms = work.frame.time_ms;
        }
        DetectionReport report;
        report.file = work.path;
        report.width = picture.width();
        report.height = picture.height();
        if (work.kind == DetectWork::Kind::frame) {
            report.frame = FramePlace{work.frame.index, work.frame.time_ms};
        }
        std::vector<uint32_t> classes;
        if (!engine_.detect(picture, report.boxes, class_names_.empty() ? nullptr : &classes)) {
            const std::string reason = engine_.last_error();
            r.input_problem = "detection failed on '" + work.path + "'" +
                              (report.frame ? " frame " + std::to_string(report.frame->index) : "") +
                              (reason.empty() ? "" : ": " + reason);
            return r;
        }
        for (uint32_t k : classes) {
            report.classes.push_back(k < class_names_.size() ? class_names_[k] : std::string());
        }
        r.detections = static_cast<int>(detections_only(report.boxes).size());
        if (!work.draw_path.empty() || work.draw_frame) {
            cv::Mat canvas = picture.pixels.clone();
            draw_detections(canvas, report.boxes, report.classes);
            if (work.draw_frame) {
                r.drawn = canvas;
            } else {
                // A FIFO, device or folder in the way of the drawn copy is
                // refused and left as it is; the result is still printed.
                try {
                    write_png_atomically(work.draw_path, canvas);
                } catch (const ToolError &e) {
                    r.output_problem = e.what();
                }
            }
        }
        if (o_.take_report) {
            r.report = std::move(report);
        } else {
            r.text = report_text(report, o_.json);
        }
        return r;
    }

    const BatchDetectOptions &o_;
    Engine engine_;
    std::vector<std::string> class_names_;  // empty: one unnamed class
};

// Fails before any work when nothing can be written into the folder.
void require_writable_folder(const std::string &dir) {
    make_output_folder(dir);
    TemporaryFile probe(temporary_name_for((std::filesystem::path(dir) / "probe").string()));
    std::FILE *f = std::fopen(probe.path().c_str(), "wb");
    if (f == nullptr) {
        const int error = errno;
        throw output_error("cannot write into folder '" + dir + "': " + std::strerror(error));
    }
    std::fclose(f);
}

std::vector<std::string> all_input_paths(const BatchDetectOptions &o, std::vector<InputProblem> &problems) {
    std::vector<std::string> paths = o.inputs;
    for (const std::string &list : o.lists) {
        if (list == "-") {
            const auto lines = read_path_list(std::cin, list, &problems);
            paths.insert(paths.end(), lines.begin(), lines.end());
            continue;
        }
        std::error_code ec;
        std::ifstream in(list);
        if (!std::filesystem::is_regular_file(list, ec) || !in) {
            problems.push_back(
                {list, "cannot read list '" + list +
                           "': " + (std::filesystem::exists(list, ec) ? "not a readable file" : "no such file")});
            continue;
        }
        const auto lines = read_path_list(in, list, &problems);
        paths.insert(paths.end(), lines.begin(), lines.end());
    }
    return paths;
}

using DetectPool = OrderedPool<DetectWork, DetectResult>;

// The files of the inputs, as the file system knows them (device and inode;
// on Windows the canonical path), so that an output spelt another way (./,
// a link) is still recognised.
class InputFiles {
public:
    explicit InputFiles(const std::vector<BatchInput> &inputs) {
        for (const BatchInput &input : inputs) {
            FileId id;
            if (id_of(input.path, id)) {
                ids_.insert(id);
            }
        }
    }
    bool holds(const std::string &path) const {
        FileId id;
        return id_of(path, id) && ids_.count(id) > 0;
    }

private:
#ifndef _WIN32
    using FileId = std::pair<dev_t, ino_t>;
    static bool id_of(const std::string &path, FileId &id) {
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            return false;
        }
        id = {st.st_dev, st.st_ino};
        return true;
    }
#else
    using FileId = std::string;
    static bool id_of(const std::string &path, FileId &id) {
        std::error_code ec;
        const std::filesystem::path canonical = std::filesystem::canonical(path, ec);
        if (ec) {
            return false;
        }
        id = canonical.string();
        return true;
    }
#endif
    std::set<FileId> ids_;
};

// Hands out the work of every input in order, taking results back whenever
// the pool is full so that at most a window of items is in memory.
class WorkFeeder {
public:
    WorkFeeder(const BatchDetectOptions &o, DetectPool &pool, BatchResults &results, const InputFiles &inputs)
        : o_(o), pool_(pool), results_(results), names_(o.draw_dir), inputs_(inputs) {}

    void feed(const std::vector<BatchInput> &inputs) {
        for (const BatchInput &input : inputs) {
            if (InterruptGuard::requested()) {
                return;
            }
            if (input.kind == InputKind::video) {
                feed_video(input.path);
            } else {
                DetectWork work;
                work.path = input.path;
                if (!o_.draw_dir.empty()) {
                    work.draw_path = output_name_for(input.path, ".png");
                }
                submit(std::move(work));
            }
        }
    }

    void drain(bool wait) {
        while (auto r = pool_.next(wait)) {
            results_.take(*r);
        }
    }

private:
    // The drawn copy's name in the --draw folder; never a file the run did
    // not write: not an input of this run, and not a file that was there
    // before (another picture, an earlier run's drawing, a link to a file
    // elsewhere). Then the next free name, and a warning that says so. A
    // folder, device or FIFO in the way keeps the name: writing it is
    // refused and reported as for any output. A name handed out once is
    // never handed out again, so the run never replaces its own files.
    std::string output_name_for(const std::string &input, const std::string &extension) {
        const std::string first = names_.name_for(input, extension);
        const char *why_not_first = nullptr;
        std::string name = first;
        for (;;) {
            const char *why = inputs_.holds(name)  ? "is an input of this run"
                              : holds_a_file(name) ? "exists already and was not written by this run"
                                                   : nullptr;
            if (why == nullptr) {
                break;
            }
            why_not_first = why_not_first != nullptr ? why_not_first : why;
            name = names_.name_for(input, extension);
        }
        if (name != first) {
            results_.note("'" + first + "' " + why_not_first + ", so the drawn copy of '" + input +
                          "' is written to '" + name + "'");
        }
        return name;
    }

    // Whether writing to path would replace a file (through links).
    static bool holds_a_file(const std::string &path) {
        std::error_code ec;
        return std::filesystem::is_regular_file(std::filesystem::status(path, ec));
    }

    void submit(DetectWork work) {
        while (pool_.full()) {
            if (auto r = pool_.next(true)) {
                results_.take(*r);
            }
        }
        pool_.submit(std::move(work));
        drain(false);
    }

    void feed_video(const std::string &path) {
        VideoFrames frames(path, o_.frames);
        if (!frames.ok()) {
            DetectWork failure;
            failure.kind = DetectWork::Kind::failure;
            failure.path = path;
            failure.message = frames.problem();
            submit(std::move(failure));
            return;
        }
        const int id = next_video_++;
        std::unique_ptr<AnnotatedVideo> writer;
        if (!o_.draw_dir.empty()) {
            writer = std::make_unique<AnnotatedVideo>(output_name_for(path, annotated_video_extension()),
                                                      frames.fps() / o_.frames.every);
        }
        const int64_t declared = frames.declared_frames();
        results_.add_video(id, path, std::move(writer), frames.frames_to_take(),
                           declared > 0 ? frames.time_of(declared) : 0.0);
        // A marker in the stream of results: the progress line names the
        // video from the moment its first frame's result is printed.
        DetectWork start;
        start.kind = DetectWork::Kind::video_start;
        start.path = path;
        start.video = id;
        submit(std::move(start));
        VideoFrame frame;
        while (!InterruptGuard::requested() && frames.next(frame)) {
            DetectWork work;
            work.kind = DetectWork::Kind::frame;
            work.path = path;
            work.frame = std::move(frame);
            work.video = id;
            work.draw_frame = !o_.draw_dir.empty();
            submit(std::move(work));
        }
        if (InterruptGuard::requested()) {
            return;  // the video is closed with the frames done (finish_all_videos)
        }
        DetectWork end;
        end.kind = DetectWork::Kind::video_end;
        end.path = path;
        end.video = id;
        end.message = frames.problem();
        submit(std::move(end));
    }

    const BatchDetectOptions &o_;
    DetectPool &pool_;
    BatchResults &results_;
    OutputNames names_;
    const InputFiles &inputs_;
    int next_video_ = 0;
};

// Every picture brings buffers of a few megabytes (the decoded picture, the
// library's planes) that are freed again after it. Above glibc's mmap
// threshold each is a fresh mapping whose pages are faulted in, zeroed, for
// every picture - a fifth of the time per picture here, and page faults of
// all threads queue on one lock of the process. Kept on the heap, the same
// memory serves picture after picture. (glibc raises its threshold by
// itself after the first such free, but trims the heap again below the
// trim threshold; both are set here for the whole run.)
void keep_picture_buffers_on_the_heap() {
#ifdef __GLIBC__
    ::mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);  // glibc's largest
    ::mallopt(M_TRIM_THRESHOLD, 128 * 1024 * 1024);
#endif
}

// OpenCV (4.6) builds its BGR-to-Lab tables at the first conversion of a
// process without a lock. Engines that convert their first pictures on two
// threads at once build them twice: LeakSanitizer finds the first set lost,
// and one thread may read a table while the other fills it. One conversion
// here, before any worker starts, builds them once.
void build_colour_tables_once() {
    const cv::Mat pixel(1, 1, CV_8UC3, cv::Scalar::all(128));
    cv::Mat lab;
    cv::cvtColor(pixel, lab, cv::COLOR_BGR2Lab);
}

// Video decoding messages of FFmpeg would mix with the tool's; the tool
// reports undecodable frames itself. --verbose (or the variable set by the
// user) keeps them.
void quiet_video_decoder() {
#if OSTREL_TOOL_VIDEO && !defined(_WIN32)
    if (!show_library_lines() && std::getenv("OPENCV_FFMPEG_LOGLEVEL") == nullptr) {
        ::setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);  // AV_LOG_QUIET
    }
#endif
}

}  // namespace

int resolve_jobs(int jobs) {
    if (jobs > 0) {
        return jobs;
    }
#ifdef __linux__
    // The cores this process may run on (taskset, container limits on the
    // CPU set), which can be fewer than the machine has.
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) {
        return CPU_COUNT(&set);
    }
#endif
    const unsigned cores = std::thread::hardware_concurrency();
    return cores > 0 ? static_cast<int>(cores) : 1;
}

int run_batch_detection(const BatchDetectOptions &o) {
    quiet_video_decoder();
    InterruptGuard interrupt_guard;
    InterruptGuard::reset();

    std::vector<InputProblem> list_problems;
    const std::vector<std::string> paths = all_input_paths(o, list_problems);
    InputExpansion expansion = expand_inputs(paths, o.recursive);
    expansion.problems.insert(expansion.problems.begin(), list_problems.begin(), list_problems.end());

    int64_t pictures_total = 0;
    bool any_video = false;
    for (const auto &input : expansion.inputs) {
        pictures_total += input.kind == InputKind::picture ? 1 : 0;
        any_video = any_video || input.kind == InputKind::video;
    }
    BatchResults results(o.progress, pictures_total, o.take_report);
    for (const auto &note : expansion.notes) {
        results.note(note);
    }
    for (const auto &p : expansion.problems) {
        results.skipped_input(p.reason);
    }
    const bool input_failed = !expansion.problems.empty();
    if (InterruptGuard::requested()) {
        return to_int(ExitCode::interrupted);
    }
    if (expansion.inputs.empty()) {
        if (input_failed) {
            return to_int(ExitCode::input);
        }
        throw input_error("no picture or video to work on in the inputs given");
    }
    if (!o.draw_dir.empty()) {
        require_writable_folder(o.draw_dir);
    }

    // Parallelism comes from the worker threads; OpenCV's own threads in
    // each of them would only compete for the same cores.
    cv::setNumThreads(1);
    keep_picture_buffers_on_the_heap();
    build_colour_tables_once();
    int jobs = resolve_jobs(o.jobs);
    if (!any_video && static_cast<int64_t>(jobs) > pictures_total) {
        jobs = static_cast<int>(pictures_total);
    }
    DetectPool pool(jobs, static_cast<size_t>(2 * jobs + 2), [&o](int) {
        auto worker = std::make_shared<DetectWorker>(o);
        return [worker](DetectWork &work) { return (*worker)(work); };
    });
    const InputFiles input_files(expansion.inputs);
    WorkFeeder feeder(o, pool, results, input_files);
    feeder.feed(expansion.inputs);
    const bool interrupted = InterruptGuard::requested();
    if (interrupted) {
        pool.cancel_pending();
    }
    pool.close();
    feeder.drain(true);
    results.finish_all_videos();

    if (o.summary || stderr_is_terminal()) {
        results.summary(interrupted);
    }
    if (interrupted) {
        std::string done = strformat("%lld of %lld pictures", static_cast<long long>(results.pictures_done()),
                                     static_cast<long long>(pictures_total));
        if (any_video) {
            done += strformat(" and %lld video frames", results.frames());
        }
        results.problem(strformat("interrupted by %s: %s done; every file written is complete",
                                  InterruptGuard::signal_number() == SIGTERM ? "SIGTERM" : "SIGINT", done.c_str()));
        return to_int(ExitCode::interrupted);
    }
    if (results.failed_outputs() > 0) {
        return to_int(ExitCode::output);
    }
    if (input_failed || results.failed_inputs() > 0) {
        return to_int(ExitCode::input);
    }
    return to_int(ExitCode::ok);
}

}  // namespace ostrel_tool
