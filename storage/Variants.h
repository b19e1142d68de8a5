// Variants: which variant values ("name~value" packs) the host accepts. The host registers sets
// of values under keys; every registration is kept in the shared configuration store under
// "variant/" + key, so the accepted set survives restarts.
//
// A singleton created at first use and never destroyed. Any thread: the set and the accept text
// are swapped and read under one mutex; loading walks the store outside it, so two concurrent
// registrations end with the result of whichever load swapped last.
#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "support/Mutex.h"

namespace FerritCore {

class Variants {
  public:
    // The key prefix of registrations in the shared configuration store.
    static constexpr std::string_view kPrefix = "variant/";

    // The instance, loaded from the store at construction.
    static Variants& instance();

    // Records a registration: with `names` (values joined by ",") and `accept` both non-empty
    // it is stored as {"n": names, "a": accept}; otherwise the key's registration is removed.
    // Either way the set is loaded afresh. An empty `key` changes nothing. A failed write is
    // logged as "register" with its error; the set is still reloaded from what is stored.
    void registerAccept(const std::string& key, const std::string& names,
                        const std::string& accept);
    // Rebuilds the set and the accept text from the store and logs "load" with "variants" and
    // "accept" under "Ferrit/Variant".
    void load();

    // Whether some registration accepts `value`.
    bool accepts(std::string_view value) const;
    // A copy of every accepted value.
    std::set<std::string> list() const;
    // The "a" texts of the registrations that added a value, in key order, joined by ",".
    std::string accept() const;

  private:
    Variants();

    std::atomic<bool> stale_{false};  // set by a reset: the next instance() loads afresh

    mutable Mutex mutex_;
    std::set<std::string, std::less<>> values_ GUARDED_BY(mutex_);
    std::string accept_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
