// SCache: owner of the current configuration snapshot and of the transaction through which every
// change to it passes. current() is lock-free apart from the atomic snapshot load and may be
// called on any thread; mutate() may run on any thread and is serialised by a recursive mutex.
#pragma once

#include <functional>
#include <memory>

#include "update/FConfig.h"

namespace FerritCore {

class SCache {
public:
    // The present document; never null (an empty document before anything was loaded).
    static FConfigPtr current();
    // Copies the current document, lets `change` edit the copy, rebuilds the indexes and swaps
    // the copy in atomically. When the change set `dirty` or removed records, the commit hook is
    // given the new document. Returns the new document. `change` must not block on the network.
    static FConfigPtr mutate(const std::function<void(FConfig&)>& change);

    // Receives each committed document (writes it and deletes removed folders). Set once at
    // start-up; without one, commits are only kept in memory.
    using CommitHook = std::function<void(FConfigPtr)>;
    static void setCommitHook(CommitHook hook);

    // Replaces the current document with an empty one (tests, environment change).
    static void reset();
};

}  // namespace FerritCore
