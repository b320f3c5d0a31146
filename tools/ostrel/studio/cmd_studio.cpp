// ostrel studio: a local web application in which a person marks boxes on
// pictures, trains, and sees detections. See studio_server.h for the HTTP
// side, studio_api.h for the JSON interface and workspace.h for the engine.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "cli/exit_codes.h"
#include "cli/tool_error.h"
#include "cli/tool_output.h"
#include "commands/command_support.h"
#include "commands/commands.h"
#include "labels/label_set.h"
#include "studio/api_error.h"
#include "studio/label_store.h"
#include "studio/picture_store.h"
#include "studio/studio_api.h"
#include "studio/studio_server.h"
#include "studio/web_assets.h"
#include "studio/workspace.h"

namespace ostrel_tool {

namespace {

namespace fs = std::filesystem;

struct StudioOptions {
    std::string folder;
    int port = 8080;
    bool port_given = false;
    std::string host = "127.0.0.1";
    std::string model;
    // The studio is a front end for people: it trains with the profile
    // that finds objects best unless told otherwise (the C interface's own
    // default stays classic).
    std::string profile = "accurate";
    std::string labels;  // the format labels are written in; "" chooses
};

// A private folder for the session's uploads and model files, removed with
// everything in it when the studio stops.
class SessionFolder {
public:
    SessionFolder() {
        std::error_code ec;
        std::string pattern = (fs::temp_directory_path(ec) / "ostrel-studio-XXXXXX").string();
        if (ec || ::mkdtemp(&pattern[0]) == nullptr) {
            throw output_error("cannot create a temporary folder for the session");
        }
        path_ = pattern;
        fs::create_directory(fs::path(path_) / "uploads", ec);
        fs::create_directory(fs::path(path_) / "scratch", ec);
        fs::create_directory(fs::path(path_) / "labels", ec);
    }
    ~SessionFolder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    SessionFolder(const SessionFolder &) = delete;
    SessionFolder &operator=(const SessionFolder &) = delete;
    std::string uploads() const { return (fs::path(path_) / "uploads").string(); }
    std::string scratch() const { return (fs::path(path_) / "scratch").string(); }
    std::string labels() const { return (fs::path(path_) / "labels").string(); }

private:
    std::string path_;
};

// The file's size is checked before it is read: a huge (or sparse) file
// named by mistake is refused at once instead of being read whole first.
std::string read_model_file(const std::string &path, size_t max_bytes) {
    require_file(path, "model");
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (!ec && size > max_bytes) {
        throw input_error(strformat("model '%s': a model file is at most %zu KiB; this one has %llu bytes",
                                    path.c_str(), max_bytes >> 10, static_cast<unsigned long long>(size)));
    }
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in) {
        throw input_error("cannot read model '" + path + "'");
    }
    return content.str();
}

int run_studio(const StudioOptions &o) {
    // Ctrl-C, SIGTERM and SIGHUP (the terminal closed) are taken by one
    // thread that stops the server, so that the session folder is removed
    // whichever ends the studio. Every other thread must be started with
    // them blocked: the server's, the engine thread, and the worker threads
    // OpenCV starts inside the library on its first picture.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    // A browser that goes away mid-reply must not end the process.
    std::signal(SIGPIPE, SIG_IGN);

    const std::string shipped_pictures = shipped_data_folder() + "/bccd/images";
    const std::string folder = o.folder.empty() ? shipped_pictures : o.folder;
    if (o.folder.empty() && !fs::is_directory(folder)) {
        throw usage_error("the shipped pictures are not at '" + folder + "': name a folder of pictures");
    }
    const std::string web = studio::find_web_folder();
    if (web.empty()) {
        throw input_error("the studio's page files are missing (looked next to the tool and in the source tree)");
    }
    const studio::WebAssets assets(web);

    SessionFolder session;
    studio::PictureStore store(folder, session.uploads());
    for (const std::string &skipped : store.skipped()) {
        warn("studio: left out " + skipped);
    }

    // Labels go next to the pictures, except for the tool's own shipped
    // pictures (the project's data, not the person's) and a folder that
    // cannot be written: those are kept in the session's folder.
    studio::LabelStoreSettings label_settings;
    if (!o.labels.empty()) {
        label_settings.format = format_of_name(o.labels);
    }
    std::error_code ec;
    const bool shipped = fs::equivalent(folder, shipped_pictures, ec);
    const bool writable = ::access(store.folder().c_str(), W_OK) == 0;
    if (shipped || !writable) {
        label_settings.folder_labels = session.labels();
        label_settings.folder_labels_kept = false;
        if (!shipped) {
            warn("studio: '" + store.folder() + "' cannot be written: labels are kept for this session only");
        }
    }
    studio::LabelStore labels(store, label_settings);
    for (const std::string &note : labels.notes()) {
        warn("studio: labels: " + note);
    }

    studio::WorkspaceSettings settings;
    settings.seed = kDefaultSeed;
    settings.train_sensitivity = kDefaultSensitivity;
    settings.profile = o.profile;
    settings.scratch_folder = session.scratch();
    studio::Workspace workspace(store, settings);
    if (!o.model.empty()) {
        try {
            workspace.load_model(read_model_file(o.model, settings.max_model_bytes),
                                 fs::path(o.model).filename().string(), labels.classes().front().name, true);
        } catch (const studio::ApiError &e) {
            throw input_error("model '" + o.model + "': " + e.what());
        }
    }
    studio::StudioApi api(store, workspace, labels);

    studio::ServerOptions server_options;
    server_options.host = o.host;
    server_options.port = o.port;
    server_options.try_next = !o.port_given;
    studio::StudioServer server(api, assets, server_options);
    server.bind();
    if (!studio::StudioServer::is_loopback(o.host)) {
        warn("studio: listening on " + o.host +
             ", not on loopback: anyone who can reach this machine can use the studio and its pictures");
    }

    std::atomic<bool> finished{false};
    std::thread stopper([&] {
        const timespec wait{0, 200 * 1000 * 1000};
        bool signalled = false;
        while (!finished) {
            if (!signalled) {
                signalled = sigtimedwait(&stop_signals, nullptr, &wait) > 0;
            } else {
                // Asked until the server notices: stop() before it runs does nothing.
                server.stop();
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
    });

    println("ostrel studio: " + server.url());
    std::fflush(tool_out());
    const bool served = server.run();
    finished = true;
    stopper.join();
    pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);
    if (!served) {
        throw output_error("the server stopped unexpectedly on " + server.url());
    }
    std::fprintf(stderr, "ostrel studio: stopped\n");
    return to_int(ExitCode::ok);
}

}  // namespace

void add_studio_command(CLI::App &app, CommandAction &action) {
    auto o = std::make_shared<StudioOptions>();
    CLI::App *sub = app.add_subcommand("studio", "Mark boxes, train and see detections in the web browser");
    sub->add_option("FOLDER", o->folder, "the folder of pictures to work on (default: the shipped blood pictures)");
    sub->add_option("--port", o->port, "the port to listen on (default 8080 or the next free one; 0: any free port)")
        ->check(CLI::Range(0, 65535))
        ->type_name("N")
        ->each([o](const std::string &) { o->port_given = true; });
    sub->add_option("--host", o->host, "the address to listen on (default 127.0.0.1, this machine only)")
        ->type_name("ADDR");
    sub->add_option("--model", o->model, "a model file to start with (checked, CRC included, before use)")
        ->type_name("M");
    sub->add_option("--profile", o->profile,
                    "the profile training starts with: accurate (default) or classic; the page can switch it, and a "
                    "model file opened brings its own")
        ->check(CLI::IsMember({"classic", "accurate"}))
        ->type_name("NAME");
    sub->add_option("--labels", o->labels,
                    "the format labels are saved in next to the pictures: voc (default; a file a picture), coco or "
                    "yolo (default: the one the folder's labels are in)")
        ->check(CLI::IsMember({"voc", "coco", "yolo"}))
        ->type_name("FORMAT");
    sub->footer(
        "Prints `ostrel studio: http://HOST:PORT/` once it is ready; open that address in a web browser.\n"
        "Ctrl-C stops it. Every box marked in the browser is saved at once as a label file next to its picture\n"
        "(Pascal VOC unless --labels says otherwise); labels other tools left in the folder are shown too.\n"
        "Pictures added in the browser, and their labels, are kept in a temporary folder for the session.\n"
        "The JSON interface under /api/ is described in docs/studio.md.\n\n" +
        std::string(exit_code_help()));
    sub->callback([o, &action] { action = [o] { return run_studio(*o); }; });
}

}  // namespace ostrel_tool
