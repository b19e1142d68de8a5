#include "marl/Inspector.h"

#include <map>
#include <mutex>

#include "support/Mutex.h"

namespace MarlLogger {
namespace {

struct Registry {
    FerritCore::Mutex mutex;
    std::map<std::string, Inspector::Agent> agents GUARDED_BY(mutex);
    std::map<std::string, std::string> infos GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry* instance = new Registry();  // lives until the process ends
    return *instance;
}

}  // namespace

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
    r.infos.clear();
}

}  // namespace MarlLogger
