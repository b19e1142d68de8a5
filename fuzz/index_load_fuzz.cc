// Loading a pack's resource list from its folder, with arbitrary bytes as the increment
// "app-res-incr.hvc" and the full list "app-res.hvc". The folder is a packed one, served from a
// store in memory, so that each run reads through Folder exactly as a disk pack does without
// touching the disk. Nothing may crash; a failed index holds nothing; a loaded one finds each of
// its paths; verifyFiles over whatever the lists name never reads outside the pack's keys.
//
// Input: one control byte (bit 0: the proxy refuses signatures; bit 1: no increment file), then
// the increment and the full list, split at the first "\n--\n" (all full list when absent).
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "model/ResourceIndex.h"

using namespace FerritCore;

namespace {

class FuzzProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return accept; }
    void sendEvent(const PerfRecord&) override {}
    bool accept = true;
};

// Every key read is recorded, so that a read outside the pack's folder is caught.
class MapFiles : public PackedFiles {
  public:
    bool get(std::string_view key, std::string& value, Error& error) override {
        if (!std::string_view(key).starts_with("p/1/")) __builtin_trap();
        auto it = values.find(std::string(key));
        if (it == values.end()) {
            error = Error(Errors::kFileNotExists, std::string("missing"));
            return false;
        }
        value = it->second;
        error.clear();
        return true;
    }
    bool put(std::string_view key, std::string_view value, Error& error) override {
        values[std::string(key)] = std::string(value);
        error.clear();
        return true;
    }
    bool contains(std::string_view key) override { return values.count(std::string(key)) != 0; }
    void removeByPrefix(std::string_view) override { values.clear(); }
    void enumerate(std::string_view, const std::function<bool(std::string_view)>& visit) override {
        for (const auto& [key, value] : values)
            if (visit(key)) return;
    }
    std::map<std::string, std::string> values;
};

struct World {
    std::shared_ptr<FuzzProxy> proxy = std::make_shared<FuzzProxy>();
    std::shared_ptr<MapFiles> files = std::make_shared<MapFiles>();
    World() {
        Environment::instance().setProxy(proxy);
        PackedFiles::set(files);
    }
};

World& world() {
    static World* instance = new World();
    return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World& w = world();
    if (size == 0) return 0;
    const uint8_t control = data[0];
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    std::string_view increment, full = rest;
    const size_t split = rest.find("\n--\n");
    if (split != std::string_view::npos) {
        increment = rest.substr(0, split);
        full = rest.substr(split + 4);
    }
    w.proxy->accept = (control & 1) == 0;
    w.files->values.clear();
    w.files->values["p/1/app-res.hvc"] = std::string(full);
    if ((control & 2) == 0) w.files->values["p/1/app-res-incr.hvc"] = std::string(increment);
    // A file that some list may name: verifyFiles must find it only under the pack's folder.
    w.files->values["p/1/res/a.js"] = "a";

    const Folder folder = Folder::packed("p/1/");
    const ResourceIndex index("p", folder);
    if (index.error()) {
        if (index.size() != 0 || !index.removed().empty()) __builtin_trap();
        return 0;
    }
    Error error;
    index.verifyFiles(folder, error);
    for (const std::string& path : index.removed()) (void)index.find(path);
    return 0;
}
