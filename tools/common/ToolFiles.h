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
// As writeFileAtomically, but never over an existing file: the finished file gets its name by a
// link, which fails (reason "File exists") when `path` exists, even when another process made it
// a moment before. The link is made durable as the rename is.
bool writeNewFile(const std::string& path, const std::string& content,
                  std::string* reason = nullptr);
// Gives the finished file `temporary` the name `path` (by a rename over what `path` held when
// `replace`, else by a link that never replaces), removes the temporary name and makes the new
// name durable by syncing its folder. 0, or the errno of the step that failed (EEXIST: `path`
// exists and `replace` is false).
int placeFile(const std::string& temporary, const std::string& path, bool replace);
// "cannot write PATH", followed by ": REASON" when there is one.
std::string cannotWrite(const std::string& path, const std::string& reason);

}  // namespace FerritTools
