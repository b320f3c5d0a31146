# Command-line cases of `ostrel detect` over folders, lists and videos (on
# several threads, interrupted, with bad inputs) and of `ostrel train` on
# several pictures: tests/tools/batch_cli.sh, one CTest case each. Included
# by tests/CMakeLists.txt inside its ostrel-tool block (CLI_* variables and
# the cli_model fixture come from there).
if(NOT TARGET opencv_videoio)
  return()  # these cases need videos
endif()
add_executable(ostrel_make_test_video ${CMAKE_CURRENT_SOURCE_DIR}/tools/make_test_video.cpp)
target_include_directories(ostrel_make_test_video SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
target_link_libraries(ostrel_make_test_video PRIVATE opencv_core opencv_imgproc opencv_imgcodecs opencv_videoio)

foreach(batch_case folder_with_unreadable_file list_from_stdin video jobs_identical interrupt many_other_files
                   symlink_loops damaged_video unwritable_draw progress_and_summary train_two_pictures)
  add_test(NAME cli_batch_${batch_case}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/batch_cli.sh ${batch_case} $<TARGET_FILE:ostrel> ${CLI_MODEL}
            ${CLI_DATA} ${CLI_OUT}/batch/${batch_case} $<TARGET_FILE:ostrel_make_test_video>)
  set_tests_properties(cli_batch_${batch_case} PROPERTIES LABELS cli FIXTURES_REQUIRED cli_model TIMEOUT 300)
endforeach()
