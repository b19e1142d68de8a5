// The release commands of `ferrit`: rollout, promote and rollback, and the help text they share
// with its overview. Each takes the arguments after the command's name and returns the exit
// status (0 success, 1 failed work, 2 wrong command line); call from the main thread.
#pragma once

#include <string>
#include <vector>

namespace FerritTools {

int rolloutCommand(const std::vector<std::string>& arguments);
int promoteCommand(const std::vector<std::string>& arguments);
int rollbackCommand(const std::vector<std::string>& arguments);

}  // namespace FerritTools
