# Command-line cases of models of several classes (train --class a --class
# b, --all-classes, --class a,b; check, info and detect with classes; eval of
# a model or of detections of several classes):
# tests/tools/classes_cli.sh, one CTest case each. Included by
# tests/CMakeLists.txt inside its ostrel-tool block (CLI_* come from there).
foreach(classes_case several_classes_in_one_model all_classes_and_merged refused_command_lines
                     eval_every_class_in_one_pass every_output_names_the_class
                     eval_detections_of_several_classes)
  add_test(NAME cli_classes_${classes_case}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/classes_cli.sh ${classes_case} $<TARGET_FILE:ostrel>
            ${CLI_DATA} ${CLI_OUT}/classes/${classes_case})
  set_tests_properties(cli_classes_${classes_case} PROPERTIES LABELS cli TIMEOUT 600)
endforeach()
