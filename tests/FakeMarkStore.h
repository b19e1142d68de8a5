// A mark store in memory that tests can inspect and seed.
#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <mutex>
#include <string>

#include "runtime/TimeMarks.h"

namespace FerritCore {

class FakeMarkStore : public MarkStore {
  public:
    double load(const std::string& key) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = values_.find(key);
        return it == values_.end() ? 0 : it->second;
    }
    void store(const std::string& key, double value) override {
        std::lock_guard<std::mutex> lock(mutex_);
        values_[key] = value;
        ++writes_;
    }
    // Seeds a value without counting a write.
    void set(const std::string& key, double value) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_[key] = value;
    }
    // The stored value; NaN when absent.
    double value(const std::string& key) const {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = values_.find(key);
        return it == values_.end() ? std::numeric_limits<double>::quiet_NaN() : it->second;
    }
    size_t writes() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return writes_;
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, double> values_;  // guarded by mutex_
    size_t writes_ = 0;                     // guarded by mutex_
};

}  // namespace FerritCore
