# The ostrel tool's sources, one list per folder (a folder is a role). The
# tool's build (tools/CMakeLists.txt) and the fuzz targets that compile some
# of its units (fuzz/CMakeLists.txt) both take them from here. Every include
# of a tool header is rooted at this folder: "commands/command_support.h".
set(OSTREL_TOOL_ROOT ${CMAKE_CURRENT_LIST_DIR})

# cli/: main(), argument parsing and exit codes, the one error type, the
# tool's standard output, Ctrl-C, and the progress lines on standard error.
# main.cpp is apart: everything else goes into the tool's library.
set(OSTREL_TOOL_MAIN ${OSTREL_TOOL_ROOT}/cli/main.cpp)
set(OSTREL_TOOL_CLI_SOURCES
  ${OSTREL_TOOL_ROOT}/cli/cli.cpp
  ${OSTREL_TOOL_ROOT}/cli/interrupt.cpp
  ${OSTREL_TOOL_ROOT}/cli/progress_line.cpp
  ${OSTREL_TOOL_ROOT}/cli/tool_output.cpp
  ${OSTREL_TOOL_ROOT}/cli/tool_version.cpp
  ${OSTREL_TOOL_ROOT}/cli/training_progress.cpp)
# commands/: one file per sub-command and the pieces they share.
set(OSTREL_TOOL_COMMANDS_SOURCES
  ${OSTREL_TOOL_ROOT}/commands/cmd_channels.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_demo.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_detect.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_eval.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_labels.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_model.cpp
  ${OSTREL_TOOL_ROOT}/commands/cmd_train.cpp
  ${OSTREL_TOOL_ROOT}/commands/command_support.cpp)
# files/: what the tool reads and writes: atomic output files, pictures and
# their headers, video frames, Pascal VOC files, the training set.
set(OSTREL_TOOL_FILES_SOURCES
  ${OSTREL_TOOL_ROOT}/files/atomic_file.cpp
  ${OSTREL_TOOL_ROOT}/files/picture.cpp
  ${OSTREL_TOOL_ROOT}/files/picture_file.cpp
  ${OSTREL_TOOL_ROOT}/files/picture_header.cpp
  ${OSTREL_TOOL_ROOT}/files/training_set.cpp
  ${OSTREL_TOOL_ROOT}/files/video_frames.cpp
  ${OSTREL_TOOL_ROOT}/files/voc_annotations.cpp)
# boxes/: the box type and its geometry, boxes as text (command line, JSON).
set(OSTREL_TOOL_BOXES_SOURCES
  ${OSTREL_TOOL_ROOT}/boxes/box_geometry.cpp
  ${OSTREL_TOOL_ROOT}/boxes/box_io.cpp)
# batch/: `detect` over many inputs on several threads, results in input
# order, and what it prints and writes per picture.
set(OSTREL_TOOL_BATCH_SOURCES
  ${OSTREL_TOOL_ROOT}/batch/batch_detection.cpp
  ${OSTREL_TOOL_ROOT}/batch/batch_inputs.cpp
  ${OSTREL_TOOL_ROOT}/batch/batch_results.cpp
  ${OSTREL_TOOL_ROOT}/batch/detection_output.cpp
  ${OSTREL_TOOL_ROOT}/batch/detection_report.cpp)
# render/: pictures and videos the tool draws.
set(OSTREL_TOOL_RENDER_SOURCES
  ${OSTREL_TOOL_ROOT}/render/annotated_video.cpp
  ${OSTREL_TOOL_ROOT}/render/channel_mosaic.cpp
  ${OSTREL_TOOL_ROOT}/render/color_names.cpp
  ${OSTREL_TOOL_ROOT}/render/drawing.cpp)
# evaluation/: detection quality against labelled boxes.
set(OSTREL_TOOL_EVALUATION_SOURCES
  ${OSTREL_TOOL_ROOT}/evaluation/coco_evaluation.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/detection_files.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/detection_quality.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/left_out_pictures.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/measured_classes.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/metrics.cpp
  ${OSTREL_TOOL_ROOT}/evaluation/pr_plot.cpp)
# engine/: the library's engine as the tool holds it, and model files read
# and judged by the tool itself.
set(OSTREL_TOOL_ENGINE_SOURCES
  ${OSTREL_TOOL_ROOT}/engine/engine.cpp
  ${OSTREL_TOOL_ROOT}/engine/model_info.cpp
  ${OSTREL_TOOL_ROOT}/engine/model_usability.cpp)
# labels/: the annotation formats, read and written through one record.
set(OSTREL_TOOL_LABELS_SOURCES
  ${OSTREL_TOOL_ROOT}/labels/coco_labels.cpp
  ${OSTREL_TOOL_ROOT}/labels/cvat_labels.cpp
  ${OSTREL_TOOL_ROOT}/labels/imglab_labels.cpp
  ${OSTREL_TOOL_ROOT}/labels/label_formats.cpp
  ${OSTREL_TOOL_ROOT}/labels/label_set.cpp
  ${OSTREL_TOOL_ROOT}/labels/label_text.cpp
  ${OSTREL_TOOL_ROOT}/labels/labelstudio_labels.cpp
  ${OSTREL_TOOL_ROOT}/labels/picture_lookup.cpp
  ${OSTREL_TOOL_ROOT}/labels/voc_labels.cpp
  ${OSTREL_TOOL_ROOT}/labels/yolo_labels.cpp)
# studio/: the web application (built only with cpp-httplib; without it,
# studio/unavailable/ gives a command that says so). cmd_studio.cpp is the
# sub-command; the rest serve it.
set(OSTREL_TOOL_STUDIO_COMMAND ${OSTREL_TOOL_ROOT}/studio/cmd_studio.cpp)
set(OSTREL_TOOL_STUDIO_UNAVAILABLE ${OSTREL_TOOL_ROOT}/studio/unavailable/cmd_studio_unavailable.cpp)
set(OSTREL_TOOL_STUDIO_SOURCES
  ${OSTREL_TOOL_ROOT}/studio/api_requests.cpp
  ${OSTREL_TOOL_ROOT}/studio/counting_gate.cpp
  ${OSTREL_TOOL_ROOT}/studio/engine_thread.cpp
  ${OSTREL_TOOL_ROOT}/studio/http_connections.cpp
  ${OSTREL_TOOL_ROOT}/studio/label_store.cpp
  ${OSTREL_TOOL_ROOT}/studio/media_type.cpp
  ${OSTREL_TOOL_ROOT}/studio/picture_store.cpp
  ${OSTREL_TOOL_ROOT}/studio/read_only_file.cpp
  ${OSTREL_TOOL_ROOT}/studio/request_guard.cpp
  ${OSTREL_TOOL_ROOT}/studio/safe_names.cpp
  ${OSTREL_TOOL_ROOT}/studio/studio_api.cpp
  ${OSTREL_TOOL_ROOT}/studio/studio_server.cpp
  ${OSTREL_TOOL_ROOT}/studio/training_monitor.cpp
  ${OSTREL_TOOL_ROOT}/studio/web_assets.cpp
  ${OSTREL_TOOL_ROOT}/studio/workspace.cpp
  ${OSTREL_TOOL_ROOT}/studio/zip_archive.cpp)
set(OSTREL_TOOL_STUDIO_WEB_DIR ${OSTREL_TOOL_ROOT}/studio/web)
