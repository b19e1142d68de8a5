// Preview: installs a pack that is not yet published on this one device, for the developer tool.
// Any thread; the callback runs on the worker (or at once for an early failure).
//
// The pack's configuration and zip come from the publishing platform by a numeric id. The record
// is merged with status "Preview" (3) so that configuration updates leave it alone, and its task
// takes the queue's fast lane with the trigger "Preview", which ignores network and periods.
// Every failure reaches the callback as an object {"message": text}; the record may stay merged
// after a failed download, and a later preview replaces it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "marl/Json.h"

namespace FerritCore {

class Preview {
  public:
    using Callback = std::function<void(bool success, const MarlLogger::json::JSON& result)>;

    // Fetches the configuration of preview `id`, merges the record of `name` in it, and queues
    // its install. A missing callback returns at once.
    static void install(const std::string& name, uint64_t id, Callback callback);

    // The platform's base URL for an environment (0 pre-release, 1 daily, any other release),
    // ending in "/".
    static std::string baseUrl(int32_t env);
    // The "v" numbers that keep the platform's answers out of caches. Null restores the default,
    // seeded at random; tests install a fixed sequence.
    using RandomSource = std::function<uint32_t()>;
    static void setRandomSource(RandomSource source);
};

}  // namespace FerritCore
