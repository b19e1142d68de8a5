// The in-process inspector registry: named agents that answer a developer tool's commands, and
// named info values. Costs nothing until a tool connects. Any thread: handlers run on the thread
// that sends the command, and never under the registry's lock.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "marl/Json.h"

namespace MarlLogger {

// One command in flight. The handler answers through it exactly once, now or later from any
// thread; answers after the first are dropped. Held by shared pointer so that a handler that
// answers later keeps it alive.
class InspectorCommandContext {
  public:
    // `reply` receives the outcome and its data object; it may be empty.
    using Reply = std::function<void(bool success, const json::JSON& data)>;

    explicit InspectorCommandContext(Reply reply) : reply_(std::move(reply)) {}
    // Success with {}.
    void callbackSuccess();
    // Success with `object` as data.
    void callbackSuccess(json::JSON object);
    // Failure with {"code": code, "message": message} as data.
    void callbackFailed(int code, const std::string& message);
    // Failure with `object` as data.
    void callbackFailed(json::JSON object);
    bool answered() const { return answered_.load(std::memory_order_acquire); }

  private:
    void answer(bool success, const json::JSON& data);

    std::atomic<bool> answered_{false};
    Reply reply_;
};

// A command's handler: its parameters (an object, or null when none were given) and the context
// through which it answers.
using InspectorCommandHandler =
    std::function<void(const json::JSON& params, std::shared_ptr<InspectorCommandContext>)>;

// An agent attached with Inspector::registerAgent registers its commands from registerCommands.
// The other two notifications do nothing unless an agent wants them.
class InspectorAgent {
  public:
    virtual ~InspectorAgent() = default;
    virtual void registerCommands() {}
    virtual void connectionChanged(bool connected) { (void)connected; }
    virtual void sessionClosed(const std::string& name) { (void)name; }
};

class Inspector {
  public:
    // Answers a command with its arguments; the result goes back to the tool.
    using Agent =
        std::function<json::JSON(const std::string& command, const json::JSON& arguments)>;

    // Registers (or replaces) the agent `name`.
    static void registerAgent(const std::string& name, Agent agent);
    // Attaches (or replaces) an agent object and lets it register its commands, outside the lock.
    static void registerAgent(const std::string& name, std::shared_ptr<InspectorAgent> agent);
    // Registers (or replaces) the handler of the command `name` (such as "Agent.command").
    static void registerCommand(const std::string& name, InspectorCommandHandler handler);
    // Sends a command; false (and `reply` never called) when no such command is registered.
    static bool sendCommand(const std::string& name, const json::JSON& params,
                            InspectorCommandContext::Reply reply);
    // The names of the registered commands, in name order.
    static std::vector<std::string> commands();
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
