# Command-line cases of hostile inputs and outputs of the ostrel tool
# (tests/tools/hardening_cli.sh), one CTest case each. Included by
# tests/CMakeLists.txt inside its ostrel-tool block (CLI_* variables and the
# cli_model and cli_accurate_model fixtures come from there).
foreach(hardening_case model_to_device outputs_to_fifo model_to_folder_or_nothing outputs_through_symlinks
                       model_in_readonly_folder long_output_names draw_never_replaces_an_input too_many_boxes
                       odd_box_files pictures_too_large truncated_jpeg model_not_a_file sparse_model
                       models_the_library_accepts_but_cannot_use accurate_model_checked_and_loaded
                       option_messages box_past_the_edge json_with_invalid_utf8_name
                       draw_never_replaces_other_files text_output_escapes_names list_line_with_nul
                       exif_orientation)
  add_test(NAME cli_hardening_${hardening_case}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/hardening_cli.sh ${hardening_case} $<TARGET_FILE:ostrel>
            ${CLI_MODEL} ${CLI_OUT}/model/rbc_accurate.model ${CLI_DATA} ${CLI_OUT}/hardening/${hardening_case})
  set_tests_properties(cli_hardening_${hardening_case} PROPERTIES LABELS cli
    FIXTURES_REQUIRED "cli_model;cli_accurate_model" TIMEOUT 300)
endforeach()
