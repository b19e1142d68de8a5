// Published<T>: a value held by shared pointer that writers replace whole and that readers on many
// threads take on every request (the configuration document, the settings, the host's proxy). T is
// `const` for a value that nobody changes once it is published.
//
// A std::atomic<std::shared_ptr> load writes to the atomic (it takes a lock bit) and copying the
// pointer writes to its count: two threads that read at once bounce those cache lines between
// their cores. Published keeps, per thread, the last value it gave that thread and a version
// number that only writers change, so that a reader whose value is current touches nothing shared
// but one read of the version. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace FerritCore {

template <typename T>
class Published {
  public:
    explicit Published(std::shared_ptr<T> initial) : value_(std::move(initial)) {}
    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    // The current value, as an owning pointer of its own.
    std::shared_ptr<T> load() const { return value_.load(std::memory_order_acquire); }
    // Publishes `value`; readers see it from their next read on.
    void store(std::shared_ptr<T> value) {
        value_.store(std::move(value), std::memory_order_release);
        version_.fetch_add(1, std::memory_order_acq_rel);
    }

    // A read of the current value that stays the same, and alive, for as long as the Reader
    // lives: a nested read on the same thread sees the same value. Belongs to the thread that made
    // it.
    class Reader {
      public:
        explicit Reader(const Published& published) : cache_(cache()) {
            const uint64_t version = published.version_.load(std::memory_order_acquire);
            if (cache_.owner == &published && cache_.version == version) {
                ++cache_.readers;
                value_ = &cache_.value;
            } else if (cache_.readers == 0) {
                // Taken before the value: a value newer than the version read is only refreshed
                // again at the next read, never kept in place of a newer one.
                cache_.owner = &published;
                cache_.version = version;
                cache_.value = published.load();
                ++cache_.readers;
                value_ = &cache_.value;
            } else {
                // A read of another Published of this type under a read still alive: an owning
                // copy of its own, so that the value the outer read holds stays in place.
                own_ = published.load();
                value_ = &own_;
            }
        }
        ~Reader() {
            if (value_ == &cache_.value) --cache_.readers;
        }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        T& operator*() const { return **value_; }
        T* operator->() const { return value_->get(); }
        explicit operator bool() const { return *value_ != nullptr; }
        // The value as an owning pointer, for a holder that outlives the read (copying it writes
        // to the shared count: only where ownership is needed).
        const std::shared_ptr<T>& shared() const { return *value_; }

      private:
        struct Cache {
            const Published* owner = nullptr;
            uint64_t version = 0;
            std::shared_ptr<T> value;
            int readers = 0;  // Readers alive on this thread that point at `value`
        };
        static Cache& cache() {
            thread_local Cache perThread;
            return perThread;
        }

        Cache& cache_;
        const std::shared_ptr<T>* value_ = nullptr;
        std::shared_ptr<T> own_;
    };

  private:
    std::atomic<std::shared_ptr<T>> value_;
    // Starts above the per-thread caches' 0, so that a first read always loads.
    std::atomic<uint64_t> version_{1};
};

}  // namespace FerritCore
