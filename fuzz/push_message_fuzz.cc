// The push handlers on arbitrary messages: the input is split at each "\n--\n" into messages,
// given to the pack-configuration handler and then to the configuration handler. Nothing may
// crash; a pack push never changes the document's version; every record that a push leaves has
// the name it is stored under.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Environment.h"
#include "base/Proxy.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "update/Push.h"

using namespace FerritCore;

namespace {

class FuzzProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const PerfRecord&) override {}
};

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> messages;
    constexpr std::string_view kSeparator = "\n--\n";
    while (true) {
        const size_t at = text.find(kSeparator);
        messages.emplace_back(text.substr(0, at));
        if (at == std::string_view::npos) break;
        text.remove_prefix(at + kSeparator.size());
    }
    return messages;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        MarlLogger::Log::setLevel(0);
        // The configuration check that a push asks for is posted and never run.
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        Environment::instance().setProxy(std::make_shared<FuzzProxy>());
        return true;
    }();
    (void)ready;
    static MarlLogger::ScopedManualClock clock;
    SCache::publish(std::make_shared<FConfig>());
    const std::vector<std::string> messages =
        split(std::string_view(reinterpret_cast<const char*>(data), size));
    const std::string version = SCache::current()->version;
    Push::onPackConfigPush(messages);
    if (SCache::current()->version != version) __builtin_trap();
    Push::onConfigPush(messages);
    for (const auto& [name, pack] : SCache::current()->packs())
        if (!pack || pack->name != name) __builtin_trap();
    TaskRunner::clear();
    return 0;
}
