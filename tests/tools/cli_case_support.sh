# Shared by the command-line case scripts (batch_cli.sh, hardening_cli.sh):
# counting failures, the expectations, and the end of a case, which shows
# out.txt and err.txt of the case's folder when anything failed. Sourced
# after the script has set case_name and entered its work folder.
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
expect_eq() {  # what expected actual
  [ "$2" == "$3" ] || fail "$1: expected '$2', got '$3'"
}
expect_match() {  # what regex text
  [[ "$3" =~ $2 ]] || fail "$1: '$3' does not match /$2/"
}
expect_no_match() {  # what regex text
  [[ "$3" =~ $2 ]] && fail "$1: '$3' should not match /$2/"
  return 0
}
finish() {
  if [ "$failures" -gt 0 ]; then
    echo "--- stdout:" >&2; cat out.txt 2>/dev/null >&2
    echo "--- stderr:" >&2; cat err.txt 2>/dev/null >&2
    exit 1
  fi
  echo "ok: $case_name"
  exit 0
}
