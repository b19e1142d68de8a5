// The command-line programs' entry points, which `ferrit` runs as its subcommands. Each takes a
// main()'s arguments (argv[0] names the command, argv[1] is its first argument) and the report
// the command writes through (ToolOutput), and returns its exit status; call one per process,
// from its main thread.
#pragma once

namespace FerritTools {

class ToolOutput;

// ferrit pack: build, diff, wrap, config, preload.
int runPackTool(int argc, char** argv, ToolOutput& out);
// ferrit keygen, ferrit index sign, ferrit config sign: "keygen", "sign", "sign-document".
int runSignIndexTool(int argc, char** argv, ToolOutput& out);
// ferrit get, check, startup, status, inspect, cleanup: one request, --check, --startup,
// inspect COMMAND [JSON], status.
int runRequestTool(int argc, char** argv, ToolOutput& out);

}  // namespace FerritTools
