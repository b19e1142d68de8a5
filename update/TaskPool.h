// TaskPool: the memory of spare UpdatePack objects, so that a burst of update requests does not
// allocate a task each. Up to UpdatePack::kMaxSpareTasks blocks wait in slots; taking is one
// exchange and giving back one compare-and-exchange from null, so no block is ever handed out
// twice and no lock is taken. A reset of the process state frees the spares.
//
// Threading: any thread.
#pragma once

#include <cstddef>

namespace FerritCore {

class TaskPool {
  public:
    // A block of sizeof(UpdatePack) bytes: a spare, or a new one.
    static void* take();
    // Keeps `memory` (from take()) as a spare, or frees it when every slot is full.
    static void giveBack(void* memory);
    // Spares waiting.
    static size_t spareCount();
};

}  // namespace FerritCore
