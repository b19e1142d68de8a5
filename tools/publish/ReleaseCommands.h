// The release commands of `ferrit`: rollout, promote and rollback. Each takes the arguments after
// the command's name (--json already taken into `out`), reports through `out` and returns the exit
// status (ExitStatus in ToolOutput.h); call from the main thread.
#pragma once

#include <string>
#include <vector>

#include "tools/common/ToolOutput.h"

namespace FerritTools {

int rolloutCommand(const std::vector<std::string>& arguments, ToolOutput& out);
int promoteCommand(const std::vector<std::string>& arguments, ToolOutput& out);
int rollbackCommand(const std::vector<std::string>& arguments, ToolOutput& out);

}  // namespace FerritTools
