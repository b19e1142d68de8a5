// The command-line programs' entry points, so that `ferrit` runs them as its subcommands and the
// older single-purpose binaries stay the same programs. Each takes a main()'s arguments (argv[1]
// is the program's first argument) and returns its exit status; call one per process, from its
// main thread.
#pragma once

namespace FerritTools {

// ferrit-pack: build, diff, wrap, config, preload (0 success, 1 failed work, 2 wrong command line).
int runPackTool(int argc, char** argv);
// ferrit-sign-index: keygen, sign, sign-document.
int runSignIndexTool(int argc, char** argv);
// ferrit-request: one request, --check, --startup, inspect COMMAND [JSON], status.
int runRequestTool(int argc, char** argv);

}  // namespace FerritTools
