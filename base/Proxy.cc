#include "base/Proxy.h"

#include <cerrno>

#include "base/Ed25519PublicKey.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/ServiceSlot.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

// What the host reads in the log when a signed list or document was not signed by its key.
constexpr std::string_view kSignatureRejected = "signature does not verify";

}  // namespace

void Proxy::sendRequest(const ProxyRequest&, ProxyCompletion completion) {
    // An errno value, like a transport failure's, with its words: the caller's message names the
    // URL already.
    if (completion)
        completion(ProxyResponse(), Error(ENETUNREACH, std::string("no network access")));
}

std::shared_ptr<const Ed25519PublicKey> Proxy::publicKey() const {
    return nullptr;
}

bool verifyWithPublisherKey(const Ed25519PublicKey& key, const std::string& md5Hex,
                            const std::string& signature, std::string_view logTag) {
    if (key.verify(md5Hex, signature)) return true;
    MarlLogger::LogBuilder(MarlLogger::MRLLevelError, logTag)
        .event("verifySignature")
        .append("message", kSignatureRejected)
        .append("md5", md5Hex);
    return false;
}

void Proxy::onQueueFinished(uint32_t) {}

void Proxy::onPackUpdated(const std::string&) {}

void Proxy::onStateChanged() {}

bool Proxy::registerPushTopic(const std::string&, std::function<void(const std::string&)>) {
    return false;
}

bool Proxy::assetExists(const std::string&) {
    return false;
}

std::vector<std::string> Proxy::assetList(const std::string&) {
    return {};
}

uint64_t Proxy::assetSize(const std::string&) {
    return 0;
}

std::string Proxy::assetRead(const std::string&, Error& error) {
    error = Errors::assetNotExists();
    return {};
}

std::string Proxy::assetDiskPath() const {
    return {};
}

void Proxy::loadOnDemand(const std::string&, std::function<void(const Error&)> completion) {
    if (completion) completion(Error());
}

namespace ProxyCalls {
namespace {

// A copy of the proxy, so that a concurrent setProxy cannot destroy it during a call.
std::shared_ptr<Proxy> proxy() {
    return Environment::instance().proxy();
}

}  // namespace

bool verifySignature(const std::string& md5Hex, const std::string& signature) {
    return callOr(proxy(), &Proxy::verifySignature, /*fallback=*/false, md5Hex, signature);
}

std::shared_ptr<const Ed25519PublicKey> publicKey() {
    const std::shared_ptr<Proxy> held = proxy();
    return held ? held->publicKey() : nullptr;
}

bool checksSignatures() {
    const std::shared_ptr<Proxy> held = proxy();
    return held ? held->checksSignatures() : true;
}

void sendEvent(const PerfRecord& record) {
    // The flag that setProxy derived answers for the proxy: no virtual call per record. Every
    // request that the host sees sends records: the proxy is read through the thread's snapshot,
    // which writes nothing that other threads read.
    if (!takesEvents()) return;
    const Published<Proxy>::Reader held(Environment::instance().publishedProxy());
    if (held) held->sendEvent(record);
}

bool takesEvents() {
    return Environment::instance().takesEvents();
}

void onQueueFinished(uint32_t count) {
    callIfAny(proxy(), &Proxy::onQueueFinished, count);
}

void onPackUpdated(const std::string& name) {
    callIfAny(proxy(), &Proxy::onPackUpdated, name);
}

void onStateChanged() {
    callIfAny(proxy(), &Proxy::onStateChanged);
}

bool registerPushTopic(const std::string& topic,
                       std::function<void(const std::string& message)> handler) {
    return callOr(proxy(), &Proxy::registerPushTopic, /*fallback=*/false, topic,
                  std::move(handler));
}

bool assetExists(const std::string& path) {
    return callOr(proxy(), &Proxy::assetExists, /*fallback=*/false, path);
}

std::vector<std::string> assetList(const std::string& path) {
    return callOr(proxy(), &Proxy::assetList, std::vector<std::string>(), path);
}

uint64_t assetSize(const std::string& path) {
    return callOr(proxy(), &Proxy::assetSize, uint64_t{0}, path);
}

std::string assetRead(const std::string& path, Error& error) {
    std::shared_ptr<Proxy> held = proxy();
    if (!held) error = Errors::proxyNotInitialized();
    return callOr(held, &Proxy::assetRead, std::string(), path, error);
}

std::string assetDiskPath() {
    std::shared_ptr<Proxy> held = proxy();
    return held ? held->assetDiskPath() : std::string();
}

void loadOnDemand(const std::string& tag, std::function<void(const Error&)> completion) {
    std::shared_ptr<Proxy> held = proxy();
    if (!held) {
        if (completion) completion(Errors::proxyNotInitialized());
        return;
    }
    held->loadOnDemand(tag, std::move(completion));
}

}  // namespace ProxyCalls

}  // namespace FerritCore
