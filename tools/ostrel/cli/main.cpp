// ostrel: the command-line host of the ostrel_alg library.
#include "cli/cli.h"

int main(int argc, char **argv) { return ostrel_tool::run_cli(argc, argv); }
