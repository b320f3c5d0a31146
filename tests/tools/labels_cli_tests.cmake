# Command-line cases of the annotation formats (train --labels, detect
# --format, eval, labels): tests/tools/labels_cli.sh, one CTest case each.
# Included by tests/CMakeLists.txt inside its ostrel-tool block (CLI_* and
# the cli_model fixture come from there).
foreach(labels_case same_model_from_every_format detections_in_every_format_read_back eval_figures_skip_and_plot
                    malformed_labels_refused)
  add_test(NAME cli_labels_${labels_case}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/labels_cli.sh ${labels_case} $<TARGET_FILE:ostrel> ${CLI_MODEL}
            ${CLI_DATA} ${CLI_OUT}/labels/${labels_case})
  set_tests_properties(cli_labels_${labels_case} PROPERTIES LABELS cli FIXTURES_REQUIRED cli_model TIMEOUT 600)
endforeach()
