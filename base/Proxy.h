// Proxy: everything the system needs from the outside world goes through this interface, which
// the host provides. Implementations must be thread-safe: calls come from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/ProxyRequest.h"
#include "ferritcore/Error.h"

namespace FerritCore {

class Ed25519PublicKey;
class PerfRecord;

class Proxy {
  public:
    virtual ~Proxy() = default;
    // Sends an HTTP request; must return at once and call `completion` exactly once, later, on
    // any thread. The default is a host without network access: every request fails in transport.
    virtual void sendRequest(const ProxyRequest& request, ProxyCompletion completion);
    // Whether `signature` (raw bytes) signs the lower-case hexadecimal MD5 `md5Hex`.
    virtual bool verifySignature(const std::string& md5Hex, const std::string& signature) = 0;
    // The publisher's key that verifySignature checks with, when the host holds one as an
    // Ed25519 key; null (the default) for a host whose check is its own. The library needs it to
    // know whether that key was retired by a later document (a retirement outranks the host's
    // key); a host that gives none, and checks, is no longer asked once any key is retired.
    virtual std::shared_ptr<const Ed25519PublicKey> publicKey() const;
    // False for a host that checks nothing (it opened without a key, for development): its
    // verifySignature takes every signature, and the library takes every document and list as
    // it did before keys could change, whatever a document retired. True (the default) for a
    // host that checks, with publicKey() or with a check of its own.
    virtual bool checksSignatures() const { return true; }
    // Delivers a performance record; the host decides where to.
    virtual void sendEvent(const PerfRecord& record) = 0;
    // False for a host whose sendEvent would drop every record: it is then never called, and the
    // request path builds no record at all.
    virtual bool takesEvents() const { return true; }
    // The update queue ran dry after `count` packs. The default does nothing.
    virtual void onQueueFinished(uint32_t count);
    // A pack was installed. The default does nothing.
    virtual void onPackUpdated(const std::string& name);
    // The lifecycle state (set up, configured, updating) or the storage state (writable,
    // read-only) changed; called once per transition, on the thread that made it, possibly with
    // the core's own locks held: an implementation must only hand the news on. The default does
    // nothing.
    virtual void onStateChanged();
    // Subscribes `handler` to the push messages of `topic`; false when the host cannot. The
    // default is a host without push delivery.
    virtual bool registerPushTopic(const std::string& topic,
                                   std::function<void(const std::string& message)> handler);

    // The host application's raw files. A path ending in "/" names a directory. The defaults
    // answer as a host without any: nothing exists, nothing is listed, nothing can be read.
    virtual bool assetExists(const std::string& path);
    // Names of the entries of a directory, each directory with a trailing "/".
    virtual std::vector<std::string> assetList(const std::string& path);
    // 0 when the file cannot be opened.
    virtual uint64_t assetSize(const std::string& path);
    // The whole file; on failure empty, with `error` set (1101 when it does not exist).
    // Success clears `error`.
    virtual std::string assetRead(const std::string& path, Error& error);
    // The folder of the disk (ending in "/") that holds the raw files as plain files, for a host
    // whose raw files are such files; empty (the default) when they are reached only through the
    // operations above. Packs built into the app are then read as installed packs are: relative
    // to their folder, held open, one open per read.
    virtual std::string assetDiskPath() const;
    // Makes the on-demand module `tag` available, then calls `completion` exactly once, on any
    // thread. The default completes at once with success, as a host without on-demand delivery
    // does: its assets are there already.
    virtual void loadOnDemand(const std::string& tag, std::function<void(const Error&)> completion);
};

// What a host that holds the publisher's key answers from verifySignature: whether `key` signed
// `md5Hex`. A signature that does not verify is logged under `logTag` in the words the host reads
// ("signature does not verify"), with the MD5 text; the caller fails the list or document with
// its own error, which names the file or URL.
bool verifyWithPublisherKey(const Ed25519PublicKey& key, const std::string& md5Hex,
                            const std::string& signature, std::string_view logTag);

// Each free function copies the proxy out of Environment first, so that a concurrent setProxy
// cannot destroy it during the call, and answers as documented when there is none.
namespace ProxyCalls {
// False without a proxy.
bool verifySignature(const std::string& md5Hex, const std::string& signature);
// Null without a proxy.
std::shared_ptr<const Ed25519PublicKey> publicKey();
// True without a proxy: nothing is taken then.
bool checksSignatures();
// Nothing without a proxy, or with one that takes no records.
void sendEvent(const PerfRecord& record);
// Whether a proxy that takes records is set (lets callers skip building what would be dropped).
bool takesEvents();
// Nothing without a proxy.
void onQueueFinished(uint32_t count);
// Nothing without a proxy.
void onPackUpdated(const std::string& name);
// Nothing without a proxy.
void onStateChanged();
// False without a proxy.
bool registerPushTopic(const std::string& topic,
                       std::function<void(const std::string& message)> handler);
// False without a proxy.
bool assetExists(const std::string& path);
// Empty without a proxy.
std::vector<std::string> assetList(const std::string& path);
// 0 without a proxy.
uint64_t assetSize(const std::string& path);
// 9991 without a proxy.
std::string assetRead(const std::string& path, Error& error);
// Empty without a proxy.
std::string assetDiskPath();
// Without a proxy `completion` runs at once, on the calling thread, with 9991. An empty
// completion is allowed: the module is loaded and nobody is told.
void loadOnDemand(const std::string& tag, std::function<void(const Error&)> completion);
}  // namespace ProxyCalls

}  // namespace FerritCore
