// BridgeProxy: the Proxy of a host that runs in a script engine. Network requests go to the host
// object's "sendRequest" on the script thread and come back through onSendRequestFinishedNative;
// raw files are read from the app's raw-file folder. Thread-safe: the core calls it from the
// worker and from the host's threads.
//
// The host object may also have methods that hear what the library does: onPackUpdated(name),
// onQueueFinished(count), sendEvent({name, dimensions, measures}), onStateChanged(reportText). Each
// is called on the script thread, later, when the object has it at that time; one that throws is
// logged and otherwise ignored. Records are built only while the host wants them (setWantsRecords).
//
// A request in flight on the host is a PendingRequest. Its id, the decimal text of its address,
// is what the host echoes. Live ids are remembered, so that an id that is unknown, repeated or
// invented finds nothing instead of touching freed memory; an id the host never returns keeps
// its record (and completion) for the life of the process.
#pragma once

#include <node_api.h>

#include <memory>
#include <string>
#include <unordered_set>

#include "base/Ed25519PublicKey.h"
#include "base/Proxy.h"
#include "bridge/Napi.h"
#include "support/Mutex.h"

namespace FerritCore {

class RawFileProvider;

struct PendingRequest {
    ProxyCompletion completion;
    bool wantHeaders = false;
};

class BridgeProxy : public Proxy {
  public:
    // `rawFileFolder` empty: the host gave no raw-file access, and the asset operations answer as
    // without a resource manager. `publicKey` is the publisher's key that every signature is
    // checked with; null only for a host that opened with insecureNoSignatureCheck.
    BridgeProxy(std::shared_ptr<NAPI::Bridge> bridge, const std::string& rawFileFolder,
                std::shared_ptr<const Ed25519PublicKey> publicKey);
    ~BridgeProxy() override;

    void sendRequest(const ProxyRequest& request, ProxyCompletion completion) override;
    // Whether the publisher's key signed `md5Hex`; a signature that does not verify is logged as
    // such, in those words, for the host to read. Without a key every signature is taken.
    bool verifySignature(const std::string& md5Hex, const std::string& signature) override;
    // The key the host opened with, so that a later document can retire it; null for a host that
    // opened with insecureNoSignatureCheck.
    std::shared_ptr<const Ed25519PublicKey> publicKey() const override { return publicKey_; }
    // False for a host that opened with insecureNoSignatureCheck: it checks nothing.
    bool checksSignatures() const override { return publicKey_ != nullptr; }
    // Hands the record to the host object's "sendEvent", as {name, dimensions: {text}, measures:
    // {number}}, while the host wants records.
    void sendEvent(const PerfRecord& record) override;
    // Whether the host wants records now; the request path builds none otherwise.
    bool takesEvents() const override;
    void onQueueFinished(uint32_t count) override;
    void onPackUpdated(const std::string& name) override;
    // Hands the status report ("info", as JSON text) of the new state to the host object's
    // "onStateChanged"; reports reach the host in the order the changes happened.
    void onStateChanged() override;
    bool assetExists(const std::string& path) override;
    std::vector<std::string> assetList(const std::string& path) override;
    uint64_t assetSize(const std::string& path) override;
    std::string assetRead(const std::string& path, Error& error) override;
    // The raw-file folder the host gave (its files are plain files), or empty without one.
    std::string assetDiskPath() const override;

    // Script thread: takes the record of `id` out of the live set. Null for 0, an unknown id or
    // one already finished. The caller owns the record.
    static std::unique_ptr<PendingRequest> takePending(uint64_t id);
    // How many requests wait for the host (tests).
    static size_t pendingCount();
    // Whether the host wants performance records, for the whole process (any thread, also
    // before the proxy exists). Off at start. The caller tells Environment to ask again.
    static void setWantsRecords(bool wants);

  private:
    // Calls the host object's `method` on the script thread with what `builder` makes there, when
    // the object has that method then.
    void callHost(const char* method, NAPI::ArgumentBuilder builder);

    std::shared_ptr<NAPI::Bridge> bridge_;
    // Makes building a state's report and posting it one step, so that a later state's report is
    // never delivered before an earlier one.
    Mutex stateMutex_;
    std::unique_ptr<RawFileProvider> rawFiles_;          // null without a raw-file folder
    std::shared_ptr<const Ed25519PublicKey> publicKey_;  // immutable; null checks nothing
};

// Script thread: the object "sendRequest" receives, with "url", and "timeout", "tempFilePath" and
// "header" when they are not empty. Null with the engine's error raised on failure.
napi_value encodeProxyRequest(napi_env env, const ProxyRequest& request);
// Script thread: the host's response object. "statusCode" defaults to 200; with `wantHeaders`
// every header, else only "content-length" (as "Content-Length", when non-empty); "content" as
// bytes. A value that is not an object is the empty response with status 200.
ProxyResponse decodeProxyResponse(napi_env env, napi_value value, bool wantHeaders);
// Script thread: why the host's response object cannot count as an HTTP response: its
// "statusCode" is a number that is no HTTP status (-1, 0, 1000, 200.5, NaN), which is shown as the
// host gave it (error 1004). Success when it is one, or is absent or not a number (200).
Error checkProxyStatus(napi_env env, napi_value value);
// Script thread: an error object {"code": non-zero integer, "message": string}; anything else is
// success.
Error decodeProxyError(napi_env env, napi_value value);

}  // namespace FerritCore
