#include "runtime/Settings.h"

#include <atomic>
#include <mutex>

#include "access/Url.h"

namespace FerritCore {
namespace {

struct Store {
    std::atomic<std::shared_ptr<const Settings>> current{std::make_shared<const Settings>()};
    std::recursive_mutex writers;
};

Store& store() {
    static Store* instance = new Store();  // lives until the process ends
    return *instance;
}

}  // namespace

bool Settings::isSCacheEnabled(std::string_view packName) const {
    if (!disableSCacheList.empty() && disableSCacheList.count(std::string(packName)) != 0) return false;
    return enableSCache.value_or(true);
}

bool Settings::isSCacheFileType(std::string_view fileName) const {
    const size_t dot = fileName.rfind('.');
    if (dot == std::string_view::npos) return false;
    const std::string ext = Url::extension(fileName);
    if (scacheFileType && !scacheFileType->empty()) return scacheFileType->count(ext) != 0;
    return ext == "js" || ext == "css";
}

std::shared_ptr<const Settings> Settings::current() {
    return store().current.load(std::memory_order_acquire);
}

void Settings::change(const std::function<void(Settings&)>& change) {
    Store& s = store();
    std::lock_guard<std::recursive_mutex> lock(s.writers);
    auto copy = std::make_shared<Settings>(*s.current.load(std::memory_order_acquire));
    change(*copy);
    s.current.store(std::move(copy), std::memory_order_release);
}

void Settings::reset() {
    Store& s = store();
    std::lock_guard<std::recursive_mutex> lock(s.writers);
    s.current.store(std::make_shared<const Settings>(), std::memory_order_release);
}

}  // namespace FerritCore
