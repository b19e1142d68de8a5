// A store of packed files kept in an ordered map, with the ranges of the real store: a prefix
// range runs from the prefix to the prefix followed by one byte 0xFF, keys compared as bytes.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "base/Errors.h"
#include "base/PackedFiles.h"

namespace FerritTest {

class MemoryPackedFiles : public FerritCore::PackedFiles {
  public:
    bool get(std::string_view key, std::string& value, FerritCore::Error& error) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = values_.find(std::string(key));
        if (it == values_.end()) {
            error = FerritCore::Errors::storageNotExists("packs", key);
            return false;
        }
        value = it->second;
        error.clear();
        return true;
    }
    bool put(std::string_view key, std::string_view value, FerritCore::Error& error) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (failWrites) {
            error = FerritCore::Errors::storageWrite("packs", key, 5);
            return false;
        }
        values_[std::string(key)] = std::string(value);
        error.clear();
        return true;
    }
    bool contains(std::string_view key) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_.count(std::string(key)) != 0;
    }
    void removeByPrefix(std::string_view prefix) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (prefix.empty()) {
            values_.clear();
            return;
        }
        values_.erase(values_.lower_bound(std::string(prefix)), values_.upper_bound(limit(prefix)));
    }
    void enumerate(std::string_view prefix,
                   const std::function<bool(std::string_view)>& visit) override {
        std::map<std::string, std::string> copy;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            copy = values_;
        }
        auto begin = prefix.empty() ? copy.begin() : copy.lower_bound(std::string(prefix));
        auto end = prefix.empty() ? copy.end() : copy.upper_bound(limit(prefix));
        for (auto it = begin; it != end; ++it)
            if (visit(it->first)) return;
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_.size();
    }

    bool failWrites = false;

  private:
    static std::string limit(std::string_view prefix) { return std::string(prefix) + '\xff'; }

    std::mutex mutex_;
    std::map<std::string, std::string> values_;  // guarded by mutex_
};

}  // namespace FerritTest
