# The ostrel command with --profile accurate: train, check, info, detect and
# eval take it; a model of one profile is refused when --profile names the
# other; a bad profile name is a usage error. Included from tests/CMakeLists.txt inside
# the tool block (ostrel_cli_test, CLI_* are defined there).
set(accurate_model ${CLI_OUT}/model/rbc_accurate.model)
ostrel_cli_test(accurate_train ARGS train ${train_picture} --boxes ${CLI_BCCD}/annotations/BloodImage_00000.xml
  --class RBC --median-size --profile accurate --model ${accurate_model} CLEAN ${accurate_model}
  EXIT 0 STDOUT "training: [0-9]+ object windows" STDOUT2 "model written to" STDERR_EMPTY FILES ${accurate_model}
  FIXTURES_SETUP cli_accurate_model)
# check judges a model under the profile it is given (without --profile,
# under the file's: see profile_cli_cases.cmake).
ostrel_cli_test(accurate_check ARGS check --profile accurate ${accurate_model} EXIT 0 STDOUT "valid" STDERR_EMPTY
  FIXTURES_REQUIRED cli_accurate_model)
ostrel_cli_test(accurate_info ARGS info ${accurate_model} EXIT 0 STDOUT "CRC matches: yes"
  STDOUT2 "profile: accurate \\(recorded in the file\\)" FIXTURES_REQUIRED cli_accurate_model)
ostrel_cli_test(accurate_detect ARGS detect --profile accurate --model ${accurate_model} --json
  ${CLI_BCCD}/images/BloodImage_00001.jpg EXIT 0 JSON_LINES STDERR_EMPTY FIXTURES_REQUIRED cli_accurate_model)
ostrel_cli_test(accurate_eval ARGS eval --profile accurate --model ${accurate_model} --voc ${CLI_BCCD} --class RBC
  EXIT 0 STDOUT "average precision [01]\\.[0-9]+" FIXTURES_REQUIRED cli_accurate_model)
# A model of one profile is refused when --profile names the other, with
# one line that names the profile to give (exit 1).
ostrel_cli_test(accurate_model_under_classic ARGS detect --profile classic --model ${accurate_model}
  ${CLI_BCCD}/images/BloodImage_00001.jpg EXIT 1 STDERR "--profile accurate" STDERR_ONE_LINE STDOUT_EMPTY
  FIXTURES_REQUIRED cli_accurate_model)
ostrel_cli_test(classic_model_under_accurate ARGS detect --profile accurate --model ${CLI_MODEL}
  ${CLI_BCCD}/images/BloodImage_00001.jpg EXIT 1 STDERR "accurate profile" STDERR_ONE_LINE
  FIXTURES_REQUIRED cli_model)
ostrel_cli_test(profile_unknown ARGS detect --profile fast --model m x.jpg EXIT 2 STDERR_ONE_LINE)
