// Stores arbitrary bytes as a value and reads them back through MetaStore, the path every stored
// JSON value takes. Whatever decodes must survive a put and a get unchanged; whatever does not
// must read as the JSON null with error 1102 in the decoder's words, and stay stored. Read in
// place as events (how the content cache reads), the same bytes give the same error or none.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "base/Errors.h"
#include "base/Folder.h"
#include "marl/Json.h"
#include "marl/JsonBinaryEvents.h"
#include "marl/Log.h"
#include "storage/KeyValueStore.h"
#include "storage/MetaStore.h"

using FerritCore::Error;
using FerritCore::ErrorOr;
using FerritCore::KeyValueStore;
using FerritCore::MetaStore;
using MarlLogger::json::JSON;
namespace Errors = FerritCore::Errors;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

struct World {
    std::string root;
    std::unique_ptr<MetaStore> store;
    // A second connection that writes the raw bytes, as another process or an older version
    // of the system might have.
    std::unique_ptr<KeyValueStore> raw;
};

World& world() {
    static World* w = [] {
        auto* made = new World();
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ferrit-store-fuzz-XXXXXX").string();
        check(::mkdtemp(pattern.data()) != nullptr);
        made->root = pattern + "/";
        std::atexit([] { std::filesystem::remove_all(world().root); });
        MarlLogger::Log::setLevel(0);
        FerritCore::setRootPath(made->root);
        made->store = std::make_unique<MetaStore>("fuzz/", "Ferrit/Fuzz",
                                                  KeyValueStore::Options::forConfig());
        check(made->store->open() == 0);
        check(KeyValueStore::open(made->store->path(), KeyValueStore::Options::forConfig(),
                                  &made->raw) == 0);
        return made;
    }();
    return *w;
}

// Takes the events and keeps nothing: only the verdict matters here.
class Ignore : public MarlLogger::json::JSONEvents {
  public:
    bool startObject() override { return true; }
    bool key(std::string_view) override { return true; }
    bool endObject() override { return true; }
    bool startArray() override { return true; }
    bool endArray() override { return true; }
    bool scalar(const JSON&) override { return true; }
    bool string(std::string_view) override { return true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World& w = world();
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    check(w.raw->insert("value", bytes) == 0);

    const ErrorOr<JSON> read = w.store->get("value");
    Ignore ignore;
    const Error visited =
        w.store->visit("value", [&](std::string_view stored, std::string& reason) {
            return MarlLogger::json::parseBinaryEvents(stored, ignore, &reason);
        });
    check(visited.message() == (read.ok() ? std::string() : read.error().message()));
    check(visited.code() == (read.ok() ? Error().code() : read.error().code()));
    std::string reason;
    const JSON expected = JSON::parseBinary(bytes, &reason);
    if (!reason.empty()) {
        check(!read.ok());
        check(Errors::isFileRead(read.error()));
        check(read.error().message() == "deserialize store \"fuzz/value\" failed: " + reason);
        check(w.store->contains("value"));
        return 0;
    }
    check(read.ok());
    check(*read == expected);

    // What decoded is written back through the store and read again unchanged.
    check(!w.store->put("again", *read));
    const ErrorOr<JSON> again = w.store->get("again");
    check(again.ok());
    check(*again == *read);
    return 0;
}
