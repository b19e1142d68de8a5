#include "base/Proxy.h"

#include "base/Environment.h"
#include "base/Errors.h"

namespace FerritCore {

void Proxy::sendRequest(const ProxyRequest& request, ProxyCompletion completion) {
    if (completion) completion(ProxyResponse(), Error(-1, "no network access: " + request.url));
}

void Proxy::onQueueFinished(uint32_t) {}

void Proxy::onPackUpdated(const std::string&) {}

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

void Proxy::loadOnDemand(const std::string&, std::function<void(const Error&)> completion) {
    if (completion) completion(Error());
}

namespace ProxyCalls {

bool verifySignature(const std::string& md5Hex, const std::string& signature) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    return proxy ? proxy->verifySignature(md5Hex, signature) : false;
}

void sendEvent(const PerfRecord& record) {
    if (std::shared_ptr<Proxy> proxy = Environment::instance().proxy()) proxy->sendEvent(record);
}

bool hasProxy() {
    return Environment::instance().hasProxy();
}

void onQueueFinished(uint32_t count) {
    if (std::shared_ptr<Proxy> proxy = Environment::instance().proxy())
        proxy->onQueueFinished(count);
}

void onPackUpdated(const std::string& name) {
    if (std::shared_ptr<Proxy> proxy = Environment::instance().proxy()) proxy->onPackUpdated(name);
}

bool registerPushTopic(const std::string& topic,
                       std::function<void(const std::string& message)> handler) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    return proxy ? proxy->registerPushTopic(topic, std::move(handler)) : false;
}

bool assetExists(const std::string& path) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    return proxy ? proxy->assetExists(path) : false;
}

std::vector<std::string> assetList(const std::string& path) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    return proxy ? proxy->assetList(path) : std::vector<std::string>();
}

uint64_t assetSize(const std::string& path) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    return proxy ? proxy->assetSize(path) : 0;
}

std::string assetRead(const std::string& path, Error& error) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    if (!proxy) {
        error = Errors::proxyNotInitialized();
        return {};
    }
    return proxy->assetRead(path, error);
}

void loadOnDemand(const std::string& tag, std::function<void(const Error&)> completion) {
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    if (!proxy) {
        if (completion) completion(Errors::proxyNotInitialized());
        return;
    }
    proxy->loadOnDemand(tag, std::move(completion));
}

}  // namespace ProxyCalls

}  // namespace FerritCore
