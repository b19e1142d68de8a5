#include "marl/Inspector.h"

#include <map>
#include <mutex>

#include "support/Mutex.h"

namespace MarlLogger {
namespace {

struct Registry {
    FerritCore::Mutex mutex;
    std::map<std::string, Inspector::Agent> agents GUARDED_BY(mutex);
    std::map<std::string, std::shared_ptr<InspectorAgent>> agentObjects GUARDED_BY(mutex);
    std::map<std::string, InspectorCommandHandler> commands GUARDED_BY(mutex);
    std::map<std::string, std::string> infos GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry* instance = new Registry();  // lives until the process ends
    return *instance;
}

}  // namespace

void InspectorCommandContext::answer(bool success, const json::JSON& data) {
    if (answered_.exchange(true, std::memory_order_acq_rel)) return;
    if (reply_) reply_(success, data);
}

void InspectorCommandContext::callbackSuccess() {
    answer(/*success=*/true, json::JSON(json::JSONObject()));
}

void InspectorCommandContext::callbackSuccess(json::JSON object) {
    answer(/*success=*/true, object);
}

void InspectorCommandContext::callbackFailed(int code, const std::string& message) {
    answer(/*success=*/false, json::JSON(json::JSONObject{{"code", code}, {"message", message}}));
}

void InspectorCommandContext::callbackFailed(json::JSON object) {
    answer(/*success=*/false, object);
}

void Inspector::registerAgent(const std::string& name, std::shared_ptr<InspectorAgent> agent) {
    {
        Registry& r = registry();
        FerritCore::MutexLock lock(r.mutex);
        r.agentObjects[name] = agent;
    }
    if (agent) agent->registerCommands();
}

void Inspector::registerCommand(const std::string& name, InspectorCommandHandler handler) {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    r.commands[name] = std::move(handler);
}

bool Inspector::sendCommand(const std::string& name, const json::JSON& params,
                            InspectorCommandContext::Reply reply) {
    InspectorCommandHandler handler;
    {
        Registry& r = registry();
        FerritCore::MutexLock lock(r.mutex);
        auto it = r.commands.find(name);
        if (it == r.commands.end() || !it->second) return false;
        handler = it->second;
    }
    handler(params, std::make_shared<InspectorCommandContext>(std::move(reply)));
    return true;
}

std::vector<std::string> Inspector::commands() {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    std::vector<std::string> names;
    for (const auto& [name, handler] : r.commands) names.push_back(name);
    return names;
}

void Inspector::registerAgent(const std::string& name, Agent agent) {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    r.agents[name] = std::move(agent);
}

void Inspector::registerInfo(const std::string& name, const std::string& value) {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    r.infos[name] = value;
}

std::string Inspector::info(const std::string& name) {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    auto it = r.infos.find(name);
    return it == r.infos.end() ? std::string() : it->second;
}

std::vector<std::string> Inspector::agents() {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    std::vector<std::string> names;
    for (const auto& [name, agent] : r.agents) names.push_back(name);
    for (const auto& [name, agent] : r.agentObjects) {
        if (r.agents.find(name) == r.agents.end()) names.push_back(name);
    }
    return names;
}

json::JSON Inspector::call(const std::string& agentName, const std::string& command,
                           const json::JSON& arguments) {
    Agent agent;
    {
        Registry& r = registry();
        FerritCore::MutexLock lock(r.mutex);
        auto it = r.agents.find(agentName);
        if (it == r.agents.end()) return json::JSON();
        agent = it->second;
    }
    return agent ? agent(command, arguments) : json::JSON();  // never under the lock
}

void Inspector::clear() {
    Registry& r = registry();
    FerritCore::MutexLock lock(r.mutex);
    r.agents.clear();
    r.agentObjects.clear();
    r.commands.clear();
    r.infos.clear();
}

}  // namespace MarlLogger
