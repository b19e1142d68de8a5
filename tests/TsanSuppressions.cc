// libstdc++ 12's std::atomic<std::shared_ptr>::load releases the lock bit it keeps in the control
// block pointer with relaxed order, so the thread sanitizer cannot see the read of the stored
// pointer ordered before the next store's write, and reports a race inside the library itself.
// Configuration and settings readers and writers meet exactly there; nothing of ours is hidden.
// Visible, so that the sanitizer's runtime finds it in a build that hides symbols by default.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:std::_Sp_atomic\n";
}
