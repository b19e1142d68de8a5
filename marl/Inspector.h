// The in-process inspector registry: named agents that answer a developer tool's commands, and
// named info values. Costs nothing until a tool connects. Any thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "marl/Json.h"

namespace MarlLogger {

class Inspector {
  public:
    // Answers a command with its arguments; the result goes back to the tool.
    using Agent =
        std::function<json::JSON(const std::string& command, const json::JSON& arguments)>;

    // Registers (or replaces) the agent `name`.
    static void registerAgent(const std::string& name, Agent agent);
    // Registers (or replaces) an info value shown to a connecting tool.
    static void registerInfo(const std::string& name, const std::string& value);
    // The info value, empty when there is none.
    static std::string info(const std::string& name);
    static std::vector<std::string> agents();
    // Sends a command to an agent; null when there is no such agent.
    static json::JSON call(const std::string& agent, const std::string& command,
                           const json::JSON& arguments);
    // Forgets everything (tests).
    static void clear();
};

}  // namespace MarlLogger
