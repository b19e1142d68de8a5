// ProcessState: the one reset of everything process-wide, for tests. Each piece of process-wide
// state (a singleton, a slot that the composition root fills, a registry) registers at its
// creation how it goes back to what a fresh process has; resetForTesting() runs every registered
// reset, the latest first, so that a test of any layer puts back all that exists with one call.
//
// Any thread may register; resetForTesting() must not run while another thread uses the system.
#pragma once

#include <functional>

namespace FerritCore::ProcessState {

// Adds a reset. Called once per piece, when the piece is created.
void onReset(std::function<void()> reset);
// Runs every reset, the most recently registered first.
void resetForTesting();

// Creates a process-wide `T` that is never destroyed (a late user during process exit still finds
// it) and registers `reset`, which puts it back as a fresh process has it.
template <typename T>
T* create(void (*reset)(T&)) {
    T* made = new T();
    onReset([made, reset] { reset(*made); });
    return made;
}

}  // namespace FerritCore::ProcessState
