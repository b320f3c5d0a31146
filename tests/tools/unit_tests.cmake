# The unit tests of the ostrel tool, one folder per folder of tools/ostrel/
# (tests/tools/cli/ tests tools/ostrel/cli/, ...). Included by
# tests/CMakeLists.txt when the tool is built.

# Helpers the tool's tests share (tests/tools/support/).
add_library(ostrel_tool_test_support STATIC ${CMAKE_CURRENT_SOURCE_DIR}/tools/support/tool_test_support.cpp)
target_link_libraries(ostrel_tool_test_support PUBLIC ostrel_tool_lib ostrel_test_support)
ostrel_light_test_build(ostrel_tool_test_support)

set(OSTREL_TOOL_TEST_DIR ${CMAKE_CURRENT_SOURCE_DIR}/tools)
set(OSTREL_TOOL_TEST_SOURCES
  ${OSTREL_TOOL_TEST_DIR}/batch/test_batch_inputs.cpp
  ${OSTREL_TOOL_TEST_DIR}/batch/test_detection_output.cpp
  ${OSTREL_TOOL_TEST_DIR}/batch/test_detection_report.cpp
  ${OSTREL_TOOL_TEST_DIR}/batch/test_ordered_pool.cpp
  ${OSTREL_TOOL_TEST_DIR}/boxes/test_box_geometry.cpp
  ${OSTREL_TOOL_TEST_DIR}/boxes/test_box_io.cpp
  ${OSTREL_TOOL_TEST_DIR}/boxes/test_box_limits.cpp
  ${OSTREL_TOOL_TEST_DIR}/cli/test_cli.cpp
  ${OSTREL_TOOL_TEST_DIR}/cli/test_interrupt.cpp
  ${OSTREL_TOOL_TEST_DIR}/cli/test_progress_line.cpp
  ${OSTREL_TOOL_TEST_DIR}/cli/test_tool_output.cpp
  ${OSTREL_TOOL_TEST_DIR}/cli/test_training_progress.cpp
  ${OSTREL_TOOL_TEST_DIR}/commands/test_command_support.cpp
  ${OSTREL_TOOL_TEST_DIR}/engine/test_engine.cpp
  ${OSTREL_TOOL_TEST_DIR}/engine/test_engine_threads.cpp
  ${OSTREL_TOOL_TEST_DIR}/engine/test_model_info.cpp
  ${OSTREL_TOOL_TEST_DIR}/engine/test_model_usability.cpp
  ${OSTREL_TOOL_TEST_DIR}/evaluation/test_detection_files.cpp
  ${OSTREL_TOOL_TEST_DIR}/evaluation/test_detection_quality.cpp
  ${OSTREL_TOOL_TEST_DIR}/evaluation/test_measured_classes.cpp
  ${OSTREL_TOOL_TEST_DIR}/evaluation/test_metrics.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_atomic_file.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_output_targets.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_picture_file.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_picture_header.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_training_set.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_video_frames.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_voc_annotations.cpp
  ${OSTREL_TOOL_TEST_DIR}/files/test_voc_files.cpp
  ${OSTREL_TOOL_TEST_DIR}/labels/test_coco_labels.cpp
  ${OSTREL_TOOL_TEST_DIR}/labels/test_labelstudio_labels.cpp
  ${OSTREL_TOOL_TEST_DIR}/labels/test_xml_labels.cpp
  ${OSTREL_TOOL_TEST_DIR}/labels/test_yolo_labels.cpp
  ${OSTREL_TOOL_TEST_DIR}/render/test_channel_mosaic.cpp
  ${OSTREL_TOOL_TEST_DIR}/render/test_color_names.cpp
  ${OSTREL_TOOL_TEST_DIR}/render/test_drawing.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_api_media_types.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_api_requests.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_api_status.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_label_store.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_media_type.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_picture_orientation.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_picture_store.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_random_requests.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_request_guard.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_safe_names.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_training_monitor.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_workspace.cpp
  ${OSTREL_TOOL_TEST_DIR}/studio/test_studio_zip_archive.cpp)
add_executable(ostrel_tool_tests ${OSTREL_TOOL_TEST_SOURCES})
target_link_libraries(ostrel_tool_tests PRIVATE ostrel_tool_test_support GTest::gtest_main)
ostrel_light_test_build(ostrel_tool_tests)
gtest_discover_tests(ostrel_tool_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS tools)

# The tool's threaded parts alone (ordered pool, engines on threads), for
# the ThreadSanitizer run of scripts/test-batch.sh, which need not build
# every other test of the tool under that sanitizer.
add_executable(ostrel_batch_tests EXCLUDE_FROM_ALL ${OSTREL_TOOL_TEST_DIR}/batch/test_ordered_pool.cpp
               ${OSTREL_TOOL_TEST_DIR}/engine/test_engine.cpp ${OSTREL_TOOL_TEST_DIR}/engine/test_engine_threads.cpp)
target_link_libraries(ostrel_batch_tests PRIVATE ostrel_tool_test_support GTest::gtest_main)
ostrel_light_test_build(ostrel_batch_tests)
