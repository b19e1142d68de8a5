// Whole-file reads and writes of the command-line tools. Plain functions over the named paths;
// any thread, no shared state.
#pragma once

#include <string>

namespace FerritTools {

// The whole content of a file; false when it cannot be read.
bool readWholeFile(const std::string& path, std::string& content);
// Writes beside the target and renames over it, so that a reader never sees half a file. False
// when either step fails (the temporary file is then removed).
bool writeFileAtomically(const std::string& path, const std::string& content);

}  // namespace FerritTools
