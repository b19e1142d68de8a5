// `ferrit key`: the publisher's side of a change of keys. The page's texts are here, beside the
// command, so that ferrit.cc only lists and dispatches it.
#pragma once

#include <string>
#include <vector>

#include "tools/common/ToolOutput.h"

namespace FerritTools {

// The help page's parts, in the form of ferrit's other commands.
extern const char* const kKeySynopsis;
extern const char* const kKeyDescription;
extern const char* const kKeyOptions;

// Runs `ferrit key SUBCOMMAND ...` with the arguments after "key" (--json already taken into
// `out`), reporting through `out`; the exit status (ExitStatus in ToolOutput.h).
int keyCommand(const std::vector<std::string>& arguments, ToolOutput& out);

}  // namespace FerritTools
