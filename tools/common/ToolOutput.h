// ToolOutput: how a command of `ferrit` reports, the same way for every command. Without --json
// the command writes lines for a reader on stdout. With --json it writes nothing else there but
// one JSON document when it ends, whatever its exit status:
//   {"command": "publish", "ok": true, "exit": 0, ...the command's members..., "error": "..."}
// ("error" only when the command failed). Messages for the user (errors, warnings, progress and
// the library's logs) go to stderr in both forms, each as "ferrit <command>: <text>", so that a
// script reads stdout alone. The exit statuses are those of ExitStatus below. One per command
// run, on the thread that runs the command.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "marl/Json.h"

namespace FerritTools {

// The exit statuses of every ferrit command.
enum ExitStatus : int {
    kExitSuccess = 0,  // the work was done
    kExitFailure = 1,  // the work failed: a file could not be read, signed, written or verified
    kExitUsage = 2,    // the command line was wrong
};

class ToolOutput {
  public:
    // `command` is what the user typed after "ferrit" to name it ("publish", "pack build").
    ToolOutput(std::string command, bool json);
    ~ToolOutput();
    ToolOutput(const ToolOutput&) = delete;
    ToolOutput& operator=(const ToolOutput&) = delete;

    // Removes every "--json" from `arguments`; true when there was one.
    static bool takeJsonFlag(std::vector<std::string>& arguments);

    bool json() const { return json_; }
    const std::string& command() const { return command_; }
    // Names the command more exactly once known ("pack" becomes "pack build").
    void setCommand(std::string command) { command_ = std::move(command); }

    // Text for a reader: stdout without --json; discarded with it, where the report's members
    // carry the same facts.
    std::ostream& text();
    // Sets a member of the report; members keep the order of their first setting.
    void set(std::string key, MarlLogger::json::JSON value);
    // Appends `value` to the array member `key`, made on first use.
    void append(const std::string& key, MarlLogger::json::JSON value);

    // A message for the user on stderr, in both forms: "ferrit <command>: <message>".
    void note(const std::string& message) const;
    // Ends the command with `status`: with --json writes the report on stdout. Returns `status`.
    // A second call writes nothing more.
    int finish(int status = kExitSuccess);
    // The work failed: notes `message`, records it as the report's "error", finishes with 1.
    int fail(const std::string& message);
    // The command line was wrong: notes `message` and where help is, records it, finishes with 2.
    int usage(const std::string& message);

  private:
    std::string command_;
    bool json_;
    bool finished_ = false;
    std::string error_;
    MarlLogger::json::JSONObject members_;
};

}  // namespace FerritTools
