#include "update/TaskPool.h"

#include <array>
#include <atomic>
#include <new>

#include "base/ProcessState.h"
#include "update/UpdatePack.h"

namespace FerritCore {

namespace {

// Each slot holds the memory of one spare task or null.
struct SpareList {
    std::array<std::atomic<void*>, UpdatePack::kMaxSpareTasks> slots{};
};

void drain(SpareList& list) {
    for (std::atomic<void*>& slot : list.slots) ::operator delete(slot.exchange(nullptr));
}

SpareList& spares() {
    static SpareList* const list = ProcessState::create<SpareList>(drain);
    return *list;
}

}  // namespace

void* TaskPool::take() {
    for (std::atomic<void*>& slot : spares().slots) {
        if (void* memory = slot.exchange(nullptr, std::memory_order_acquire)) return memory;
    }
    return ::operator new(sizeof(UpdatePack));
}

void TaskPool::giveBack(void* memory) {
    for (std::atomic<void*>& slot : spares().slots) {
        void* empty = nullptr;
        if (slot.compare_exchange_strong(empty, memory, std::memory_order_release)) return;
    }
    ::operator delete(memory);
}

size_t TaskPool::spareCount() {
    size_t count = 0;
    for (const std::atomic<void*>& slot : spares().slots)
        if (slot.load(std::memory_order_acquire) != nullptr) ++count;
    return count;
}

}  // namespace FerritCore
