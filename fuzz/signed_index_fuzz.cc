// ResourceIndex::parseSigned on arbitrary bytes, then the table through the index built from a
// zip entry: nothing may crash, a success must be a JSON object, and no record of an index that
// loaded may name a path with a ".." piece. The proxy accepts every signature unless the first
// byte says otherwise, so that the JSON and the records behind the signature are reached.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/Proxy.h"
#include "model/ResourceIndex.h"

using namespace FerritCore;

namespace {

class FuzzProxy : public Proxy {
  public:
    bool verifySignature(const std::string& md5Hex, const std::string&) override {
        return accept && md5Hex.size() == 32;
    }
    void sendEvent(const PerfRecord&) override {}
    bool accept = true;
};

FuzzProxy& proxy() {
    static std::shared_ptr<FuzzProxy> instance = [] {
        auto made = std::make_shared<FuzzProxy>();
        Environment::instance().setProxy(made);
        return made;
    }();
    return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzProxy& p = proxy();
    p.accept = size == 0 || (data[0] & 0x0F) != 0;
    const std::string text(reinterpret_cast<const char*>(data), size);

    MarlLogger::json::JSON table;
    Error error;
    const bool parsed =
        ResourceIndex::parseSigned(Folder::disk("p/1/app-res.hvc"), text, table, error);
    if (parsed != !error) __builtin_trap();
    if (parsed && !table.isObject()) __builtin_trap();
    if (!parsed && !table.isNull()) __builtin_trap();
    if (!parsed && error.code() != Errors::kFileVerify &&
        error.code() != Errors::kFileDeserialization)
        __builtin_trap();

    for (const bool increment : {false, true}) {
        const ResourceIndex index(
            "p",
            [&](const std::string&, Error& e) {
                e.clear();
                return text;
            },
            increment);
        if (index.error() && index.size() != 0) __builtin_trap();
        if (!index.error()) {
            for (const auto& [key, record] : table.objectValue()) {
                std::string path = key;
                if (path.size() > 1 && path[0] == '/' && path[1] != '/') path.erase(0, 1);
                if (FerritCore::climbsOut(path)) __builtin_trap();
                (void)index.find(path);
                (void)index.find("/" + path);
            }
        }
    }
    return 0;
}
