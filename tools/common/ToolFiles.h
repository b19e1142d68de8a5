// Whole-file reads and writes of the command-line tools. Plain functions over the named paths;
// any thread, no shared state.
#pragma once

#include <string>

namespace FerritTools {

// The whole content of a file; false when it cannot be read.
bool readWholeFile(const std::string& path, std::string& content);
// Writes beside the target, makes the data durable and renames over it, then makes the rename
// durable: a reader, or a server after a power cut, finds the old file or the new one, never half
// of one. False when a step fails: the temporary file is then removed and `reason`, when given,
// says why in the system's words ("No space left on device").
bool writeFileAtomically(const std::string& path, const std::string& content,
                         std::string* reason = nullptr);
// "cannot write PATH", followed by ": REASON" when there is one.
std::string cannotWrite(const std::string& path, const std::string& reason);

}  // namespace FerritTools
