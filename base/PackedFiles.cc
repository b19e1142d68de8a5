#include "base/PackedFiles.h"

#include "base/ServiceSlot.h"

namespace FerritCore {

std::shared_ptr<PackedFiles> PackedFiles::current() {
    return ServiceSlot<PackedFiles>::instance().get();
}

bool PackedFiles::putAll(const std::vector<std::pair<std::string, std::string>>& entries,
                         Error& error) {
    for (const auto& [key, value] : entries) {
        if (!put(key, value, error)) return false;
    }
    error.clear();
    return true;
}

bool PackedFiles::putChecked(const std::vector<CheckedFile>& files, Error& error) {
    std::vector<std::pair<std::string, std::string>> entries;
    entries.reserve(files.size());
    for (const CheckedFile& file : files) entries.emplace_back(file.key, file.content);
    return putAll(entries, error);
}

bool PackedFiles::copyPrefix(std::string_view fromPrefix, std::string_view toPrefix,
                             const std::unordered_set<std::string>& skip, uint64_t& bytes,
                             Error& error) {
    bytes = 0;
    std::vector<std::string> keys;
    enumerate(fromPrefix, [&](std::string_view key) {
        keys.emplace_back(key);
        return false;
    });
    std::string value;
    for (const std::string& key : keys) {
        const std::string rest = key.substr(fromPrefix.size());
        if (skip.count(rest) != 0) continue;
        std::string target(toPrefix);
        target.append(rest);
        if (contains(target)) continue;
        if (!get(key, value, error) || !put(target, value, error)) return false;
        bytes += value.size();
    }
    error.clear();
    return true;
}

void PackedFiles::set(std::shared_ptr<PackedFiles> files) {
    ServiceSlot<PackedFiles>::instance().set(std::move(files));
}

}  // namespace FerritCore
