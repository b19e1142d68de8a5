// DevInspector: the agent through which a developer's tool looks inside a running cache and gives
// it orders: "Ferrit.prefetch" and the "FerritDev." commands (status, settings, configuration,
// indexes, statistics, a pack's files and URLs, a match report, clearing, updating, sizes, and
// switching the whole cache off). Registered at the setup of the main process; costs nothing until
// a tool sends a command.
//
// Handlers run on the thread that delivers the command; "update" and "readDiskFileList" answer
// later, from their completion. "update" answers, once the configuration check ends, with the
// latest finished pack updates of this process, oldest first, whatever started them (the form
// each installed and why a form was given up); the pack runs the check queued may still be under
// way then, and show in a later answer. Every handler answers exactly once.
#pragma once

#include <memory>
#include <string>

#include "marl/Inspector.h"
#include "marl/Json.h"

namespace FerritCore {

class DevInspector : public MarlLogger::InspectorAgent {
  public:
    // The agent's name and the prefix of its commands.
    static constexpr const char* kAgentName = "Ferrit";
    static constexpr const char* kCommandPrefix = "FerritDev.";
    static constexpr const char* kPrefetchCommand = "Ferrit.prefetch";

    // Attaches the agent to the inspector registry, which then lets it register its commands.
    static void registerAgent();

    void registerCommands() override;

    // The pieces a tool can also reach directly.
    // Empties everything installed and records "Ferrit.CacheClear" (main process only).
    static void clear();
    // The size report: "diskSize" {"small", "large", "config", "Ferrit", "ACache"},
    // "ModuleCache", "UniApp", "Ferrit", "SCache" and "ACache" as {"count", "size"}.
    static MarlLogger::json::JSON sizeReport();
};

}  // namespace FerritCore
