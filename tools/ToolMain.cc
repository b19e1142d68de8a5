// The main() of a single-purpose tool: FERRIT_TOOL_ENTRY names its entry point in ToolCommands.h.
#include "tools/ToolCommands.h"

int main(int argc, char** argv) {
    return FerritTools::FERRIT_TOOL_ENTRY(argc, argv);
}
