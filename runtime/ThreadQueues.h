// ThreadQueues<Entry>: what many threads hand to the worker, kept in one queue per producing
// thread and emptied on the worker. A producer appends to its own queue with plain stores and one
// fence: no lock, no shared cache line written, no allocation once its first block exists (blocks
// the worker has emptied come back to their producer). The worker takes every queue's entries in
// the order their thread appended them; nothing orders the entries of different threads.
//
// Threading: push() from any thread, each to the queue of the calling thread; drain() and
// dropAll() from one thread at a time (the worker, or a test driving the worker). A queue whose
// thread has ended is emptied by the next drain() and then forgotten.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "support/Mutex.h"

namespace FerritCore {

template <typename Entry>
class ThreadQueues {
  public:
    ThreadQueues() = default;
    ThreadQueues(const ThreadQueues&) = delete;
    ThreadQueues& operator=(const ThreadQueues&) = delete;

    // Appends `entry` to the calling thread's queue. Asking the worker to drain is the caller's.
    void push(Entry entry) { mine().push(std::move(entry)); }

    // Calls `deliver(Entry&&)` for every entry appended so far, each thread's in its order. Never
    // holds a lock while `deliver` runs, which may push again (onto the calling thread's queue).
    template <typename Deliver>
    size_t drain(Deliver&& deliver) {
        size_t delivered = 0;
        for (const std::shared_ptr<Queue>& queue : snapshot()) {
            delivered += queue->drain(deliver);
        }
        forgetEnded();
        return delivered;
    }

    // Drops every entry without delivering it (a process reset). Same threading as drain().
    void dropAll() {
        const auto drop = [](Entry&&) {};
        for (const std::shared_ptr<Queue>& queue : snapshot()) queue->drain(drop);
        forgetEnded();
    }

  private:
    static constexpr uint32_t kBlockEntries = 64;

    struct Block {
        Entry entries[kBlockEntries];
        // How many entries the producer has finished writing; the worker reads up to it.
        std::atomic<uint32_t> written{0};
        std::atomic<Block*> next{nullptr};
    };

    // One producer (the thread that owns it), one consumer (whoever drains, one at a time).
    class Queue {
      public:
        Queue() : head_(new Block), tail_(head_) {}
        ~Queue() {
            for (Block* block = head_; block != nullptr;) {
                Block* next = block->next.load(std::memory_order_relaxed);
                delete block;
                block = next;
            }
            delete spare_.load(std::memory_order_relaxed);
        }
        void push(Entry entry) {
            if (writeIndex_ == kBlockEntries) {
                // A block the worker gave back, when there is one: a steady flow allocates none.
                Block* fresh = spare_.exchange(nullptr, std::memory_order_acquire);
                if (fresh == nullptr) fresh = new Block;
                tail_->next.store(fresh, std::memory_order_release);
                tail_ = fresh;
                writeIndex_ = 0;
            }
            tail_->entries[writeIndex_] = std::move(entry);
            tail_->written.store(++writeIndex_, std::memory_order_release);
        }
        template <typename Deliver>
        size_t drain(const Deliver& deliver) {
            size_t delivered = 0;
            for (;;) {
                Block* block = head_;
                const uint32_t written = block->written.load(std::memory_order_acquire);
                while (readIndex_ < written) {
                    Entry entry = std::move(block->entries[readIndex_++]);
                    deliver(std::move(entry));
                    ++delivered;
                }
                if (readIndex_ < kBlockEntries) return delivered;
                Block* next = block->next.load(std::memory_order_acquire);
                if (next == nullptr) return delivered;
                head_ = next;
                readIndex_ = 0;
                // The producer has moved past it: it comes back empty, for the producer's reuse.
                block->written.store(0, std::memory_order_relaxed);
                block->next.store(nullptr, std::memory_order_relaxed);
                delete spare_.exchange(block, std::memory_order_acq_rel);
            }
        }
        bool empty() const {
            return readIndex_ == head_->written.load(std::memory_order_acquire) &&
                   head_->next.load(std::memory_order_acquire) == nullptr;
        }
        std::atomic<bool> ended{false};

      private:
        // The consumer's.
        Block* head_;
        uint32_t readIndex_ = 0;
        // The producer's.
        Block* tail_;
        uint32_t writeIndex_ = 0;
        // An emptied block on its way back to the producer.
        std::atomic<Block*> spare_{nullptr};
    };

    // The calling thread's queue, made and listed at its first push; marked ended with its thread.
    Queue& mine() {
        struct Holder {
            std::shared_ptr<Queue> queue;
            ~Holder() {
                if (queue) queue->ended.store(true, std::memory_order_release);
            }
        };
        thread_local Holder holder;
        // One holder per thread serves every ThreadQueues of the same Entry type: there is one
        // process-wide instance of each.
        if (!holder.queue) {
            holder.queue = std::make_shared<Queue>();
            MutexLock guard(lock_);
            queues_.push_back(holder.queue);
        }
        return *holder.queue;
    }

    std::vector<std::shared_ptr<Queue>> snapshot() {
        MutexLock guard(lock_);
        return queues_;
    }

    void forgetEnded() {
        MutexLock guard(lock_);
        std::erase_if(queues_, [](const std::shared_ptr<Queue>& queue) {
            return queue->ended.load(std::memory_order_acquire) && queue->empty();
        });
    }

    Mutex lock_;
    std::vector<std::shared_ptr<Queue>> queues_ GUARDED_BY(lock_);
};

}  // namespace FerritCore
