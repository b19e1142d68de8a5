// A preview order on arbitrary input: the first line is the pack name, the rest is the platform's
// answer to the configuration request (signatures accepted, so that its content is read). Every
// later request of the run (the zip) is answered 404. Nothing may crash, the callback is called
// exactly once, and a record that the preview merges has status 3.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Environment.h"
#include "base/Proxy.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "update/Preview.h"
#include "update/UpdateQueue.h"

using namespace FerritCore;

namespace {

class FuzzProxy : public Proxy {
  public:
    void sendRequest(const ProxyRequest& request, ProxyCompletion completion) override {
        ProxyResponse response;
        if (request.url.find("packConfig") != std::string::npos) {
            response.statusCode = 200;
            response.content = body;
        } else {
            response.statusCode = 404;
        }
        completion(std::move(response), Error());
    }
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
    std::string body;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::shared_ptr<FuzzProxy> proxy = std::make_shared<FuzzProxy>();
    static const bool ready = [] {
        MarlLogger::Log::setLevel(0);
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        Environment::instance().setProxy(proxy);
        Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
        Preview::setRandomSource([] { return 7u; });
        return true;
    }();
    (void)ready;
    static MarlLogger::ScopedManualClock clock;
    SCache::publish(std::make_shared<FConfig>());
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    const std::string name(input.substr(0, newline));
    proxy->body =
        newline == std::string_view::npos ? std::string() : std::string(input.substr(newline + 1));
    int calls = 0;
    Preview::install(name, 77, [&calls](bool, const MarlLogger::json::JSON&) { ++calls; });
    for (int round = 0; round < 100 && TaskRunner::runDue() > 0; ++round) {
    }
    TaskRunner::clear();
    if (calls > 1) __builtin_trap();
    if (PackPtr pack = SCache::current()->find(name)) {
        if (pack->status != kPackStatusPreview) __builtin_trap();
    }
    return 0;
}
