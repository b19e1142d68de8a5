// A preload zip of arbitrary bytes, installed from an in-memory raw file: its configuration,
// the plan made from it and the copy of its entries. Signatures are accepted, so that the
// configuration's content reaches the plan. Nothing may crash, and every file written goes to
// "<pack>/<seq>/..." of the packed store (the disk below a private root holds app packs): a key
// outside that form, or a path that climbs, traps.
#include <stdlib.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "base/AssetProvider.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "update/Preload.h"

using namespace FerritCore;

namespace {

class FuzzProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return true; }
    void sendEvent(const PerfRecord&) override {}
};

class OneAsset : public AssetProvider {
  public:
    bool hasAsset(const std::string& path) override { return path == "p.zip"; }
    std::vector<std::string> listAsset(const std::string&) override { return {}; }
    uint64_t assetSize(const std::string&) override { return bytes.size(); }
    std::string readAsset(const std::string& path, Error& error) override {
        if (path != "p.zip") {
            error = Error(Errors::kFileNotExists, std::string("missing"));
            return std::string();
        }
        error.clear();
        return bytes;
    }
    void loadModule(const std::string&, LoadCallback callback) override { callback(Error()); }
    std::string bytes;
};

// "<name>/<digits>/<rest>" with no ".." piece: two dots inside a name are part of it.
bool insidePackFolder(std::string_view key) {
    const size_t first = key.find('/');
    if (first == std::string_view::npos || first == 0) return false;
    size_t i = first + 1;
    const size_t digits = i;
    while (i < key.size() && std::isdigit(static_cast<unsigned char>(key[i]))) ++i;
    if (i == digits || i >= key.size() || key[i] != '/') return false;
    for (size_t start = 0; start <= key.size();) {
        size_t end = key.find('/', start);
        if (end == std::string_view::npos) end = key.size();
        if (key.substr(start, end - start) == "..") return false;
        start = end + 1;
    }
    return true;
}

class MapFiles : public PackedFiles {
  public:
    bool get(std::string_view key, std::string& value, Error& error) override {
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
        if (!insidePackFolder(key)) __builtin_trap();
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::shared_ptr<OneAsset> asset = std::make_shared<OneAsset>();
    static std::shared_ptr<MapFiles> files = std::make_shared<MapFiles>();
    static const bool ready = [] {
        MarlLogger::Log::setLevel(0);
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        char root[] = "/tmp/preload_fuzz_XXXXXX";
        if (mkdtemp(root) == nullptr) abort();
        initFolders(root);
        Environment::instance().setProxy(std::make_shared<FuzzProxy>());
        AssetProvider::set(asset);
        PackedFiles::set(files);
        return true;
    }();
    (void)ready;
    static MarlLogger::ScopedManualClock clock;
    SCache::publish(std::make_shared<FConfig>());
    files->values.clear();
    asset->bytes.assign(reinterpret_cast<const char*>(data), size);
    (void)Preload::instance().install("p.zip", false);
    TaskRunner::clear();
    return 0;
}
