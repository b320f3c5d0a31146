// The tool's version is the project's, read from the public header where it
// is set: a unit of its own, so that the studio's status (and the fuzz target
// that compiles the studio) has it without the command line.
#include "ostrel_alg.h"

#include "cli/cli.h"

#define OSTREL_TOOL_TEXT_OF(value) #value
#define OSTREL_TOOL_TEXT(value) OSTREL_TOOL_TEXT_OF(value)

namespace ostrel_tool {

const char *tool_version() {
    return OSTREL_TOOL_TEXT(OSTREL_ALG_VERSION_MAJOR) "." OSTREL_TOOL_TEXT(
        OSTREL_ALG_VERSION_MINOR) "." OSTREL_TOOL_TEXT(OSTREL_ALG_VERSION_PATCH);
}

}  // namespace ostrel_tool
