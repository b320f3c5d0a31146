# Sourced by scripts/format.sh and scripts/check-format.sh: the one list of
# the C and C++ files that follow .clang-format, as paths from the root of
# the checkout. Every tracked C/C++ file except:
#   examples/minimal.c  the README shows it verbatim (a test keeps the two
#                       identical), so it keeps the layout the README has.
formatted_sources() {
  git ls-files -- '*.c' '*.cc' '*.cpp' '*.cxx' '*.h' '*.hpp' \
    | grep -v -x -F -e 'examples/minimal.c'
}
