#include "storage/Variants.h"

#include <vector>

#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "marl/Log.h"
#include "storage/ConfigStore.h"
#include "support/Mutex.h"

namespace FerritCore {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

Variants::Variants() {
    load();
}

Variants& Variants::instance() {
    static Variants* const variants = [] {
        auto* made = new Variants();
        // A fresh process loads its registrations at first use, from the store as it is then.
        ProcessState::onReset([made] { made->stale_.store(true, std::memory_order_release); });
        return made;
    }();
    if (variants->stale_.exchange(false, std::memory_order_acq_rel)) variants->load();
    return *variants;
}

void Variants::registerAccept(const std::string& key, const std::string& names,
                              const std::string& accept) {
    if (key.empty()) return;
    std::string storeKey(kPrefix);
    storeKey.append(key);
    ConfigStore& store = ConfigStore::instance();
    if (!names.empty() && !accept.empty()) {
        if (Error error =
                store.put(storeKey, JSON(JSONObject{{"n", JSON(names)}, {"a", JSON(accept)}}))) {
            auto log = MarlLogger::Log::build(MarlLogger::MRLLevelWarning, LogTag::kVariant);
            if (log.active()) log.event("register").append("key", key).error(error);
        }
    } else {
        store.remove(storeKey);
    }
    load();
}

void Variants::load() {
    std::set<std::string, std::less<>> values;
    std::string accept;
    ConfigStore& store = ConfigStore::instance();
    store.enumerate(kPrefix, [&](std::string_view key) {
        const JSON value = store.get(key).valueOr(JSON());
        // A value that does not read, or is not an object, is skipped and left where it is.
        if (!value.isObject()) return false;
        const std::string names = value["n"].stringValue();
        bool added = false;
        size_t start = 0;
        while (start <= names.size()) {
            size_t end = names.find(',', start);
            if (end == std::string::npos) end = names.size();
            // Every piece counts, an empty one (",," or a trailing ",") too.
            if (values.emplace(names, start, end - start).second) added = true;
            start = end + 1;
        }
        // Only a registration that brought a new value adds its text, so that two registrations
        // of one value name it in the accept text once, by the first in key order.
        if (added) {
            accept.push_back(',');
            accept.append(value["a"].stringValue());
        }
        return false;
    });
    if (!accept.empty()) accept.erase(0, 1);

    // The event is built before the swap and written after the lock is released: no sink runs
    // under the lock.
    auto log = MarlLogger::Log::build(MarlLogger::MRLLevelInfo, LogTag::kVariant);
    if (log.active()) {
        log.event("load")
            .append("variants", std::vector<std::string>(values.begin(), values.end()))
            .append("accept", accept);
    }
    MutexLock lock(mutex_);
    values_.swap(values);
    accept_.swap(accept);
}

bool Variants::accepts(std::string_view value) const {
    MutexLock lock(mutex_);
    return values_.find(value) != values_.end();
}

std::set<std::string> Variants::list() const {
    MutexLock lock(mutex_);
    return std::set<std::string>(values_.begin(), values_.end());
}

std::string Variants::accept() const {
    MutexLock lock(mutex_);
    return accept_;
}

}  // namespace FerritCore
