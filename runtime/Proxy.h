// Proxy: everything the system needs from the outside world goes through this interface, which
// the host provides. Implementations must be thread-safe: calls come from any thread.
#pragma once

#include <memory>
#include <string>

namespace FerritCore {

class PerfRecord;

class Proxy {
public:
    virtual ~Proxy() = default;
    // Whether `signature` (raw bytes) signs the lower-case hexadecimal MD5 `md5Hex`.
    virtual bool verifySignature(const std::string& md5Hex, const std::string& signature) = 0;
    // Delivers a performance record; the host decides where to.
    virtual void sendEvent(const PerfRecord& record) = 0;
};

// Each free function copies the proxy out of Environment first, so that a concurrent setProxy
// cannot destroy it during the call, and answers as documented when there is none.
namespace ProxyCalls {
// False without a proxy.
bool verifySignature(const std::string& md5Hex, const std::string& signature);
// Nothing without a proxy.
void sendEvent(const PerfRecord& record);
// Whether a proxy is set (lets callers skip building what would be dropped).
bool hasProxy();
}  // namespace ProxyCalls

}  // namespace FerritCore
