# The profiles as a person meets them in the ostrel command
# (tests/tools/profile_cli.sh), one CTest case each: the accurate profile by
# default in train and demo, the model file deciding in detect, eval, check
# and info, a contradicting --profile refused, round trips under both
# profiles, pictures of any size. Included by tests/CMakeLists.txt inside its
# ostrel-tool block (CLI_* variables come from there).
foreach(profile_case defaults round_trip any_picture_size)
  add_test(NAME cli_profile_${profile_case}
    COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tools/profile_cli.sh ${profile_case} $<TARGET_FILE:ostrel>
            ${CLI_DATA} ${CLI_OUT}/profile/${profile_case})
  set_tests_properties(cli_profile_${profile_case} PROPERTIES LABELS cli TIMEOUT 300)
endforeach()
