// The read flow end to end: a configuration document, packs on the disk and in the app's raw
// files, signed resource lists, and Access::getResource in both forms; on-demand packs with their
// backup copies; and what bad input in a pack gives.
#include <gtest/gtest.h>

#include <list>

#include "access/ModuleCacheResource.h"
#include "access/PackPart.h"
#include "access/ReadGroup.h"
#include "access/Resource.h"
#include "access/ResponseMemory.h"
#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "ferritcore/Access.h"
#include "model/BuiltinConfig.h"
#include "storage/Statistics.h"
#include "tests/MemoryPackedFiles.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

class ReadFlowTest : public AccessFixture {
  protected:
    void SetUp() override {
        AccessFixture::SetUp();
        AssetProvider::set(std::make_shared<RawFileProvider>(raw_.root()));
    }

    void writeRaw(const std::string& relative, const std::string& content) {
        const std::filesystem::path path = raw_.path() / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }

    // A pack delivered with the app (or, with `onDemand`, as an on-demand module).
    static std::shared_ptr<Pack> builtIn(const std::string& name, uint64_t seq,
                                         std::vector<std::string> prefixes,
                                         std::vector<std::string> referrers = {},
                                         bool onDemand = false) {
        auto p = pack(name, kPackTypeSCache, seq, seq, std::move(prefixes), std::move(referrers));
        p->isOnDemand = onDemand;
        return p;
    }

    // The embedded list of a built-in pack, taken from the signed "app-res.hvc" next to its files.
    void embedSignedIndex(const std::string& name, uint64_t seq, const JSON& table) {
        const std::string folder = "Ferrit_Asset_" + name + "/" + std::to_string(seq) + "/";
        writeRaw(folder + "app-res.hvc", signedIndex(table));
        auto index = std::make_shared<const ResourceIndex>(name, Folder::asset(folder));
        ASSERT_FALSE(index->error()) << index->error().message();
        ResourceIndexPool::set(name, index);
    }

    // The built-in pack "kit" at 2 below "https://cdn.shop.com/kit/", with `resources` as its
    // list, loaded from the app's raw files as the host delivers it.
    Error loadBuiltInKit(const JSON& resources) {
        JSON kit;
        kit.set("s", 2);
        kit.set("f", 96);
        kit.set("p", JSON(MarlLogger::json::JSONArray{JSON("https://cdn.shop.com/kit/")}));
        JSON document;
        document.set("v", "7");
        document.set("packs", JSON(JSONObject{{"kit", kit}}));
        document.set("resources", JSON(JSONObject{{"kit", resources}}));
        writeRaw("Ferrit_Asset.config", document.toString());
        Error loadError;
        SCache::mutate([&](FConfig& config) { loadError = BuiltinConfig::load(config); });
        return loadError;
    }

    // The app pack "app" installed at 3 below "https://h.com/app/" with the given list.
    void installApp(const JSON& list, uint64_t installed = 3, uint64_t seq = 3) {
        install({pack("app", kPackTypeFerrit, installed, seq, {"https://h.com/app/"})});
        serveIndexes({{"app", list}});
    }

    TempDir raw_;
};

const std::string kHtml = "<!doctype html><title>shop</title><script src=app.js></script>";
const std::string kScript = "document.title = 'from the pack';";
const std::string kCss = ".kit { color: teal }";

// --- End to end -------------------------------------------------------------------------------

TEST_F(ReadFlowTest, DiskPackAndBuiltInPackServeInBothForms) {
    install({pack("shop", kPackTypeFerrit, 3, 3, {"https://shop.com/app/"}),
             builtIn("kit", 2, {"https://cdn.shop.com/kit/"})});
    serveIndexes({{"shop", tableOf({{"res/index.html", "https://shop.com/app/index.html", kHtml},
                                    {"res/app.js", "https://shop.com/app/app.js", kScript}})}});
    writeFile("apps/shop/3/res/index.html", kHtml);
    writeFile("apps/shop/3/res/app.js", kScript);
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    embedSignedIndex("kit", 2,
                     tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss}}));

    struct Case {
        std::string url, body, type, info;
    };
    const Case cases[] = {
        {"https://shop.com/app/index.html?from=home", kHtml, "text/html;charset=UTF-8", "F:shop@3"},
        {"https://shop.com/app/app.js", kScript, "application/x-javascript", "F:shop@3"},
        {"https://cdn.shop.com/kit/kit.css#top", kCss, "text/css;charset=UTF-8", "S:kit@2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        const ResourceRequest request(c.url, HeaderMap{{"Accept", "*/*"}});
        std::unique_ptr<ResourceResponse> responses[] = {Access::getResource(request),
                                                         getAsync(request)};
        for (const auto& response : responses) {
            ASSERT_NE(response, nullptr);
            ASSERT_FALSE(response->error) << response->error.message();
            EXPECT_EQ(response->data, c.body);
            EXPECT_EQ(response->md5, Digest::md5Hex(c.body));
            EXPECT_FALSE(response->is404);
            EXPECT_EQ(response->header.at("Content-Type"), c.type);
            EXPECT_EQ(response->header.at("Cache-Control"), "no-store");
            EXPECT_EQ(response->header.at("Via"), "Ferrit/" FERRIT_CORE_VERSION "," + c.info);
            EXPECT_EQ(response->header.at("X-Ferrit-Info"), c.info + ",0");
            EXPECT_FALSE(response->header.at("Date").empty());
        }
    }
}

TEST_F(ReadFlowTest, BuiltInConfigurationAssetServesItsPack) {
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    const Error loadError =
        loadBuiltInKit(tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss}}));
    ASSERT_FALSE(loadError) << loadError.message();

    auto response = Access::getResource(ResourceRequest("https://cdn.shop.com/kit/kit.css", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, kCss);
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "S:kit@2,0");
}

TEST_F(ReadFlowTest, ReadEventCarriesSizeAndCrcOfTheContent) {
    installApp(tableOf({{"res/app.js", "https://h.com/app/app.js", kScript}}));
    writeFile("apps/app/3/res/app.js", kScript);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    const auto entry = logs_->last("read", "Ferrit/Access");
    EXPECT_EQ(entry.field("size").uint64Value(), kScript.size());
    EXPECT_EQ(entry.field("crc").uint64Value(), Digest::crc32(kScript));

    getAsync(ResourceRequest("https://h.com/app/app.js", ""));
    const auto async = logs_->last("read", "Ferrit/Access");
    EXPECT_EQ(async.field("crc").uint64Value(), Digest::crc32(kScript));
    EXPECT_EQ(async.field("localCount").int32Value(), 1);
}

TEST_F(ReadFlowTest, OlderInstalledSequencePostsUpdateFiveSecondsAfterAnAsyncRead) {
    installApp(tableOf({{"res/app.js", "https://h.com/app/app.js", kScript}}), 3, 4);
    writeFile("apps/app/3/res/app.js", kScript);
    auto response = getAsync(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_NE(response, nullptr);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, kScript);
    EXPECT_TRUE(updates.empty());
    clock_->advance(4999.0);
    TaskRunner::runDue();
    EXPECT_TRUE(updates.empty());
    clock_->advance(1.0);
    TaskRunner::runDue();
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].name, "app");
    EXPECT_EQ(updates[0].trigger, kTriggerVisitUpdate);
}

// --- SCache 404 -------------------------------------------------------------------------------

TEST_F(ReadFlowTest, SCacheUrlWhoseFileIsMissingGives404And3109InSyncForm) {
    install({builtIn("sc", 1, {}, {"https://h.com/own.png"})});
    embedSignedIndex("sc", 1, tableOf({{"res/own.png", "https://h.com/own.png", "png"}}));
    auto response = Access::getResource(ResourceRequest("https://h.com/own.png", ""));
    EXPECT_EQ(response->error.code(), Errors::kPackFileNotFound);
    EXPECT_EQ(response->error.message(),
              "S:sc@1 file not found: /Asset/Ferrit_Asset_sc/1/res/own.png");
    EXPECT_TRUE(response->is404);
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "S:sc@1,3109");
}

TEST_F(ReadFlowTest, SCacheMissingFileGivesNo404WhenSwitchedOff) {
    install({builtIn("sc", 1, {}, {"https://h.com/own.png"})});
    embedSignedIndex("sc", 1, tableOf({{"res/own.png", "https://h.com/own.png", "png"}}));
    Settings::change([](Settings& s) { s.scache404Enabled = false; });
    auto response = Access::getResource(ResourceRequest("https://h.com/own.png", ""));
    EXPECT_EQ(response->error.code(), Errors::kPackFileNotFound);
    EXPECT_FALSE(response->is404);
}

// --- On-demand packs --------------------------------------------------------------------------

class OnDemandTest : public ReadFlowTest {
  protected:
    void SetUp() override {
        ReadFlowTest::SetUp();
        install({builtIn("od", 1, {"https://od.com/"}, {}, true)});
        ResourceIndexPool::set("od",
                               std::make_shared<const ResourceIndex>(
                                   "od", tableOf({{"res/a.js", "https://od.com/a.js", kScript}})));
        writeRaw("Ferrit_Asset_od/1/res/a.js", kScript);
    }
    // What the fetch of the backup copy installs: the pinned copy "od@1" under "apps/".
    void installBackup(const JSON& list, const std::string& content) {
        auto copy = pack("od@1", kPackTypeSCache, 1, 1);
        copy->subType = 1;
        install({copy});
        writeFile("apps/od/1/app-res.hvc", signedIndex(list));
        writeFile("apps/od/1/res/a.js", content);
    }
};

TEST_F(OnDemandTest, SyncFormGives1108AndAsyncFormSucceeds) {
    auto sync = Access::getResource(ResourceRequest("https://od.com/a.js", ""));
    EXPECT_EQ(sync->error.code(), Errors::kReadAsyncOnly);
    EXPECT_EQ(sync->error.message(),
              "file \"/OnDemand(Ferrit_Asset_od)/Ferrit_Asset_od/1/res/a.js\" can only read "
              "asynchronous");
    EXPECT_TRUE(proxy_->loads.empty());

    auto async = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(async, nullptr);
    ASSERT_FALSE(async->error) << async->error.message();
    EXPECT_EQ(async->data, kScript);
    EXPECT_EQ(async->header.at("X-Ferrit-Info"), "S:od@1,0");
    EXPECT_EQ(proxy_->loads, std::vector<std::string>{"Ferrit_Asset_od"});
    EXPECT_EQ(logs_->count("start", "Ferrit/Read"), 1u);
    EXPECT_EQ(logs_->last("start", "Ferrit/Read").field("type").stringValue(), "OnDemandResource");
    EXPECT_EQ(logs_->count("finish", "Ferrit/Read"), 1u);
    EXPECT_NE(std::find(proxy_->events.begin(), proxy_->events.end(), "Ferrit.OnDemand"),
              proxy_->events.end());
}

TEST_F(OnDemandTest, AsyncFormCompletesOnTheThreadThatLoadsTheModule) {
    proxy_->holdLoads = true;
    std::unique_ptr<ResourceResponse> got;
    Access::getResource(ResourceRequest("https://od.com/a.js", ""),
                        [&](std::unique_ptr<ResourceResponse> r) { got = std::move(r); });
    EXPECT_EQ(got, nullptr);
    proxy_->releaseLoads();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->data, kScript);
}

TEST_F(OnDemandTest, StartEventIsWrittenOnlyWhenOnDemandIsEnabled) {
    Settings::change([](Settings& s) { s.onDemandEnabled = false; });
    auto async = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(async, nullptr);
    EXPECT_EQ(logs_->count("start", "Ferrit/Read"), 0u);
    EXPECT_EQ(logs_->count("finish", "Ferrit/Read"), 1u);
}

TEST_F(OnDemandTest, SubProcessGives2004) {
    Environment::instance().setMainProcess(false);
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), Errors::kSubProcessDisabled);
    EXPECT_TRUE(proxy_->loads.empty());
}

TEST_F(OnDemandTest, FailedModuleReadsTheBackupCopyThatIsThere) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    installBackup(tableOf({{"res/a.js", "https://od.com/a.js", "backup bytes"}}), "backup bytes");
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "backup bytes");
    EXPECT_TRUE(updates.empty());
}

TEST_F(OnDemandTest, FailedModuleFetchesTheBackupThenReadsIt) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    requester_->answer = [this](const std::string&, UpdateRequester::Completion done) {
        installBackup(tableOf({{"res/a.js", "https://od.com/a.js", "fetched"}}), "fetched");
        if (done) done(Error());
    };
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "fetched");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(updates[0].name, "od@1");
    EXPECT_EQ(updates[0].trigger, kTriggerVisit);
}

TEST_F(OnDemandTest, BackupWithoutTheUrlGives3113) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    installBackup(tableOf({{"res/other.js", "https://od.com/other.js", "x"}}), "x");
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), Errors::kBackupNotFound);
    EXPECT_EQ(response->error.message(), "S:od@1 backup resource //od.com/a.js not found");
    // Not an SCache hit by URL: the host goes to the network.
    EXPECT_FALSE(response->is404);
}

TEST_F(OnDemandTest, FailedFetchOfTheBackupPassesItsError) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    requester_->answer = [](const std::string&, UpdateRequester::Completion done) {
        if (done) done(Errors::networkNotSupported("od@1", "None"));
    };
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), Errors::kNetworkNotSupported);
}

TEST_F(OnDemandTest, FetchThatBringsNoBackupGives3113) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), Errors::kBackupNotFound);
    EXPECT_EQ(updates.size(), 1u);
}

TEST_F(OnDemandTest, BackupWhoseFileIsGoneGives1101AndAsksForItsReinstall) {
    proxy_->loadError = Error(Errors::kRequestFailed, std::string("no module"));
    installBackup(tableOf({{"res/a.js", "https://od.com/a.js", "backup bytes"}}), "backup bytes");
    std::filesystem::remove(temp_.path() / "apps/od/1/res/a.js");
    auto response = getAsync(ResourceRequest("https://od.com/a.js", ""));
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->error.code(), Errors::kFileNotExists);
    EXPECT_EQ(response->error.message(), "file \"apps/od/1/res/a.js\" not exists");
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("od@1")->status, kPackStatusNeedReinstall);
}

// --- Groups -----------------------------------------------------------------------------------

class GroupFlowTest : public OnDemandTest {
  protected:
    void SetUp() override {
        OnDemandTest::SetUp();
        auto disk = pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"});
        install({disk});
        serveIndexes({{"app", tableOf({{"res/gone.js", "https://h.com/app/gone.js", "g"},
                                       {"res/empty.js", "https://h.com/app/empty.js", "lost"}})}});
        writeFile("apps/app/3/res/gone.js", "g");
        // Matched, then failing when read: a file that lost its content is no data (1103).
        writeFile("apps/app/3/res/empty.js", "");
    }
    std::shared_ptr<PackPart> partFor(const std::string& url, const std::string& packName) {
        auto match = std::make_shared<PackMatch>(*SCache::current(),
                                                 SCache::current()->find(packName), false);
        match->requestFollowUp();
        return std::make_shared<PackPart>(context_, Url::key(url), match);
    }
    // How many "Ferrit.AppVisit" records name the pack.
    size_t visitsOf(const std::string& appName) const {
        size_t count = 0;
        for (const FakeProxy::Record& record : proxy_->named("Ferrit.AppVisit"))
            if (record.dimensions.at("appName") == appName) ++count;
        return count;
    }
    const ResourceRequest request_{"https://h.com/combo", HeaderMap{}};  // read by the context
    std::shared_ptr<RequestContext> context_ =
        std::make_shared<RequestContext>(request_, kTriggerVisit);
};

TEST_F(GroupFlowTest, FailureOfTheFirstPartStopsLaterParts) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(partFor("https://h.com/app/empty.js", "app"), kMatchNone);
    resource->addPart(partFor("https://od.com/a.js", "od"), kMatchNone);
    ASSERT_FALSE(resource->error) << resource->error.message();
    resource->makeGroup();
    int calls = 0;
    Error error;
    resource->readAsync([&](const std::string& data, const Error& e) {
        ++calls;
        error = e;
        EXPECT_TRUE(data.empty());
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(error.code(), Errors::kNoData);
    // The on-demand part after it was never read.
    EXPECT_TRUE(proxy_->loads.empty());
}

TEST_F(GroupFlowTest, PartThatFinishesAfterAFailureDoesNothing) {
    proxy_->holdLoads = true;
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(partFor("https://od.com/a.js", "od"), kMatchNone);
    resource->addPart(partFor("https://h.com/app/empty.js", "app"), kMatchNone);
    resource->makeGroup();
    int calls = 0;
    resource->readAsync([&](const std::string&, const Error& e) {
        ++calls;
        EXPECT_EQ(e.code(), Errors::kNoData);
    });
    EXPECT_EQ(calls, 1);
    ASSERT_EQ(proxy_->releaseLoads(), 1u);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(resource->group->remaining.load(), -1);
}

TEST_F(GroupFlowTest, GroupOfDiskAndOnDemandPartsDeliversBothInOrder) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(partFor("https://h.com/app/gone.js", "app"), kMatchNone);
    resource->addPart(partFor("https://od.com/a.js", "od"), kMatchNone);
    resource->makeGroup();
    std::string got;
    resource->readAsync([&](const std::string& data, const Error& e) {
        EXPECT_FALSE(e) << e.message();
        got = data;
    });
    EXPECT_EQ(got, "g" + kScript);
    EXPECT_EQ(resource->group->type, "async");
}

// The request ends while its on-demand part is still being read: that part reports its visit
// once its read is done, never while the read still writes it.
TEST_F(GroupFlowTest, PartStillReadingWhenTheRequestEndsReportsItsVisitAfterItsRead) {
    proxy_->holdLoads = true;
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(partFor("https://od.com/a.js", "od"), kMatchNone);
    resource->addPart(partFor("https://h.com/app/empty.js", "app"), kMatchNone);
    resource->makeGroup();
    resource->readAsync([&](const std::string&, const Error& e) {
        EXPECT_EQ(e.code(), Errors::kNoData);
        resource->finish();
    });
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
    EXPECT_EQ(visitsOf("app"), 1u);
    EXPECT_EQ(visitsOf("od"), 0u);
    ASSERT_EQ(proxy_->releaseLoads(), 1u);
    EXPECT_EQ(visitsOf("od"), 1u);
    resource->finish();
    EXPECT_EQ(visitsOf("od"), 1u);
    EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
}

// A fetch that fails at once answers the group while its loop still has parts to read: a part
// read after that reports its visit when the loop is done with it, not when the request ends.
TEST_F(GroupFlowTest, PartReadAfterTheAnswerReportsItsVisitOnceTheLoopIsDone) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(std::make_shared<ModuleCacheResource>(context_, "h.com/lib/none.js"),
                      kMatchNone);
    resource->addPart(partFor("https://h.com/app/gone.js", "app"), kMatchNone);
    resource->makeGroup();
    int calls = 0;
    resource->readAsync([&](const std::string&, const Error& e) {
        ++calls;
        EXPECT_TRUE(e);
        resource->finish();
        EXPECT_EQ(proxy_->named("Ferrit.VisitPerf").size(), 1u);
        EXPECT_EQ(visitsOf("app"), 0u) << "the loop has not read the part yet";
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(visitsOf("app"), 1u);
}

// --- Reading into the receiver's memory ---------------------------------------------------------

// Memory of a receiver that keeps the bytes itself: records what it gave, or gives nothing.
class FakeMemory : public ResponseMemory {
  public:
    explicit FakeMemory(bool gives = true) : gives_(gives) {}
    char* allocate(size_t size) override {
        sizes.push_back(size);
        if (!gives_) return nullptr;
        blocks.emplace_back(size, '\0');
        return blocks.back().data();
    }
    std::vector<size_t> sizes;
    std::list<std::string> blocks;

  private:
    bool gives_;
};

TEST_F(ReadFlowTest, HitIsReadIntoTheReceiversMemoryAndNotIntoTheResponse) {
    installApp(tableOf({{"res/app.js", "https://h.com/app/app.js", kScript}}));
    writeFile("apps/app/3/res/app.js", kScript);
    FakeMemory memory;
    auto response = getResourceInto(ResourceRequest("https://h.com/app/app.js", ""), memory);
    ASSERT_FALSE(response->error) << response->error.message();
    ASSERT_TRUE(memory.filled());
    EXPECT_EQ(std::string(memory.filledData(), memory.filledSize()), kScript);
    EXPECT_EQ(memory.filledData(), memory.blocks.back().data());
    EXPECT_TRUE(response->data.empty());
    EXPECT_EQ(response->md5, Digest::md5Hex(kScript));
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "F:app@3,0");
    const auto entry = logs_->last("read", "Ferrit/Access");
    EXPECT_EQ(entry.field("size").uint64Value(), kScript.size());
    EXPECT_EQ(entry.field("crc").uint64Value(), Digest::crc32(kScript));
}

TEST_F(ReadFlowTest, HitGoesToTheResponseWhenTheReceiverGivesNoMemory) {
    installApp(tableOf({{"res/app.js", "https://h.com/app/app.js", kScript}}));
    writeFile("apps/app/3/res/app.js", kScript);
    FakeMemory memory(false);
    auto response = getResourceInto(ResourceRequest("https://h.com/app/app.js", ""), memory);
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(memory.sizes, std::vector<size_t>{kScript.size()});
    EXPECT_FALSE(memory.filled());
    EXPECT_EQ(response->data, kScript);
}

// A file whose size its signed list refuses takes no memory and fails as it always did.
TEST_F(ReadFlowTest, FileOfAnotherSizeThanItsListTakesNoMemoryAndFails) {
    JSON table = tableOf({{"res/app.js", "https://h.com/app/app.js", kScript}});
    JSON entry = *table.objectValue().find("res/app.js");
    entry.set("size", static_cast<uint64_t>(kScript.size()));
    table.set("res/app.js", entry);
    installApp(table);
    writeFile("apps/app/3/res/app.js", kScript + "// appended");
    FakeMemory memory;
    auto response = getResourceInto(ResourceRequest("https://h.com/app/app.js", ""), memory);
    EXPECT_TRUE(Errors::isPackFileNotFound(response->error)) << response->error.message();
    EXPECT_TRUE(memory.sizes.empty());
    EXPECT_FALSE(memory.filled());
    EXPECT_TRUE(response->data.empty());
}

TEST_F(ReadFlowTest, EmptyFileAndMissesTakeNoMemory) {
    installApp(tableOf({{"res/empty.js", "https://h.com/app/empty.js", ""}}));
    writeFile("apps/app/3/res/empty.js", "");
    FakeMemory memory;
    auto empty = getResourceInto(ResourceRequest("https://h.com/app/empty.js", ""), memory);
    EXPECT_FALSE(empty->error) << empty->error.message();
    auto miss = getResourceInto(ResourceRequest("https://nobody.com/x.js", ""), memory);
    EXPECT_TRUE(Errors::isNotFerritResource(miss->error)) << miss->error.message();
    EXPECT_TRUE(memory.sizes.empty());
    EXPECT_FALSE(memory.filled());
}

// --- Bad input in a pack ----------------------------------------------------------------------

// An empty file is content when its list names it empty, and damage when its list names content.
TEST_F(ReadFlowTest, ZeroByteResourceThatItsListNamesEmptyIsServedEmpty) {
    installApp(tableOf({{"res/empty.js", "https://h.com/app/empty.js", ""}}));
    writeFile("apps/app/3/res/empty.js", "");
    auto response = Access::getResource(ResourceRequest("https://h.com/app/empty.js", ""));
    EXPECT_FALSE(response->error) << response->error.message();
    EXPECT_TRUE(response->data.empty());
    auto async = getAsync(ResourceRequest("https://h.com/app/empty.js", ""));
    ASSERT_NE(async, nullptr);
    EXPECT_FALSE(async->error) << async->error.message();
}

TEST_F(ReadFlowTest, ZeroByteResourceWhoseListNamesContentGives1103) {
    installApp(tableOf({{"res/empty.js", "https://h.com/app/empty.js", "lost"}}));
    writeFile("apps/app/3/res/empty.js", "");
    auto response = Access::getResource(ResourceRequest("https://h.com/app/empty.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kNoData);
    EXPECT_EQ(response->error.message(), "file \"apps/app/3/res/empty.js\" no data");
    EXPECT_TRUE(response->data.empty());
    auto async = getAsync(ResourceRequest("https://h.com/app/empty.js", ""));
    ASSERT_NE(async, nullptr);
    EXPECT_EQ(async->error.code(), Errors::kNoData);
}

TEST_F(ReadFlowTest, IndexPathThatClimbsOutGives1107AndNothingOutsideIsRead) {
    writeFile("secret.txt", "root secret");
    installApp(tableOf({{"../../../secret.txt", "https://h.com/app/s.txt", "root secret"}}));
    auto response = Access::getResource(ResourceRequest("https://h.com/app/s.txt", ""));
    EXPECT_EQ(response->error.code(), Errors::kFileDeserialization);
    EXPECT_NE(response->error.message().find("leaves the pack"), std::string::npos);
    EXPECT_TRUE(response->data.empty());
}

TEST_F(ReadFlowTest, AbsolutePathsInTheIndexStayInsideThePack) {
    writeFile("secret.txt", "root secret");
    installApp(tableOf({{"/res/abs.js", "https://h.com/app/abs.js", "inside"},
                        {"//secret.txt", "https://h.com/app/secret.txt", "root secret"}}));
    writeFile("apps/app/3/res/abs.js", "inside");
    auto inside = Access::getResource(ResourceRequest("https://h.com/app/abs.js", ""));
    ASSERT_FALSE(inside->error) << inside->error.message();
    EXPECT_EQ(inside->data, "inside");
    // Opened below the pack's held folder, "//secret.txt" would name the file system's root.
    auto secret = Access::getResource(ResourceRequest("https://h.com/app/secret.txt", ""));
    EXPECT_EQ(secret->error.code(), Errors::kFileRead);
    EXPECT_EQ(secret->error.message(),
              "read file \"//secret.txt\" refused: the name leaves its folder");
    EXPECT_TRUE(secret->data.empty());
}

TEST_F(ReadFlowTest, InstalledPackRefusesAbsoluteNamesBelowItsHeldFolder) {
    // A file outside the pack, named by its absolute path as a list could name it.
    writeFile("outside/secret.txt", "root secret");
    const std::string absolute = FerritCore::rootPath() + "outside/secret.txt";
    installApp(tableOf({{"res/app.js", "https://h.com/app/app.js", kScript},
                        {"/" + absolute, "https://h.com/app/abs.txt", "root secret"}}));
    writeFile("apps/app/3/res/app.js", kScript);
    ASSERT_NE(ResourceIndexPool::get(*SCache::current()->find("app"))->directory(), nullptr);
    for (const bool intoMemory : {false, true}) {
        SCOPED_TRACE(intoMemory ? "into the receiver's memory" : "into the response");
        FakeMemory memory;
        const ResourceRequest request("https://h.com/app/abs.txt", "");
        auto response =
            intoMemory ? getResourceInto(request, memory) : Access::getResource(request);
        EXPECT_EQ(response->error.code(), Errors::kFileRead);
        EXPECT_EQ(response->error.message(),
                  "read file \"/" + absolute + "\" refused: the name leaves its folder");
        EXPECT_TRUE(response->data.empty());
        EXPECT_FALSE(memory.filled());
        EXPECT_TRUE(memory.sizes.empty()) << "nothing was opened to be read";
    }
    auto inside = Access::getResource(ResourceRequest("https://h.com/app/app.js", ""));
    ASSERT_FALSE(inside->error) << inside->error.message();
    EXPECT_EQ(inside->data, kScript);
}

TEST_F(ReadFlowTest, BuiltInPackIsReadFromItsHeldFolderIntoTheReceiversMemory) {
    // The raw files are plain files here: the pack's folder is held open.
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    ASSERT_FALSE(
        loadBuiltInKit(tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss}})));
    const auto pack = SCache::current()->find("kit");
    ASSERT_NE(pack, nullptr);
    ASSERT_NE(ResourceIndexPool::get(*pack)->directory(), nullptr);

    FakeMemory memory;
    auto response =
        getResourceInto(ResourceRequest("https://cdn.shop.com/kit/kit.css", ""), memory);
    ASSERT_FALSE(response->error) << response->error.message();
    ASSERT_TRUE(memory.filled()) << "a built-in hit lands in the receiver's memory";
    EXPECT_EQ(std::string(memory.filledData(), memory.filledSize()), kCss);
    EXPECT_TRUE(response->data.empty());
    EXPECT_EQ(response->header.at("X-Ferrit-Info"), "S:kit@2,0");
}

TEST_F(ReadFlowTest, BuiltInFolderIsHeldOnlyForRawFilesOnDiskAndANameInsideThem) {
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    const JSON list = tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss}});
    const Folder folder = Folder::asset("Ferrit_Asset_kit/2/");
    EXPECT_NE(ResourceIndex("kit", list, folder).directory(), nullptr);
    EXPECT_EQ(ResourceIndex("kit", list).directory(), nullptr) << "no built-in folder was named";
    EXPECT_EQ(ResourceIndex("kit", list, Folder::asset("Ferrit_Asset_kit/../../")).directory(),
              nullptr)
        << "a folder that leaves the raw files is not held";
    // A host that reads its raw files itself says nothing of plain files: nothing is held, and
    // the pack is served through the host's operations as before.
    AssetProvider::set(std::make_shared<ProxyAssetProvider>());
    EXPECT_TRUE(Assets::diskPath().empty());
    EXPECT_EQ(ResourceIndex("kit", list, folder).directory(), nullptr);
}

TEST_F(ReadFlowTest, BuiltInPackRefusesNamesThatLeaveItsHeldFolder) {
    writeFile("outside/secret.txt", "root secret");
    const std::string absolute = FerritCore::rootPath() + "outside/secret.txt";
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    const JSON list = tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss},
                               {"/" + absolute, "https://cdn.shop.com/kit/abs.txt", "root secret"},
                               {"/etc/hostname", "https://cdn.shop.com/kit/etc.txt", "host"}});
    ASSERT_FALSE(loadBuiltInKit(list));
    ASSERT_NE(ResourceIndexPool::get(*SCache::current()->find("kit"))->directory(), nullptr);

    FakeMemory memory;
    auto absolutePath =
        getResourceInto(ResourceRequest("https://cdn.shop.com/kit/abs.txt", ""), memory);
    EXPECT_EQ(absolutePath->error.code(), Errors::kFileRead);
    EXPECT_EQ(absolutePath->error.message(),
              "read file \"/" + absolute + "\" refused: the name leaves its folder");
    EXPECT_FALSE(memory.filled());
    // One leading "/" is the list's own spelling of a name inside the pack: not the system's file.
    auto etc = Access::getResource(ResourceRequest("https://cdn.shop.com/kit/etc.txt", ""));
    EXPECT_TRUE(etc->error);
    EXPECT_TRUE(etc->data.empty());
    auto kitCss = Access::getResource(ResourceRequest("https://cdn.shop.com/kit/kit.css", ""));
    ASSERT_FALSE(kitCss->error) << kitCss->error.message();
    EXPECT_EQ(kitCss->data, kCss);
}

TEST_F(ReadFlowTest, BuiltInListWithAClimbingNameServesNothing) {
    writeFile("secret.txt", "root secret");
    writeRaw("Ferrit_Asset_kit/2/res/kit.css", kCss);
    const JSON list = tableOf({{"res/kit.css", "https://cdn.shop.com/kit/kit.css", kCss},
                               {"a/../../../secret.txt", "https://cdn.shop.com/kit/s.txt", "x"}});
    const auto index =
        std::make_shared<const ResourceIndex>("kit", list, Folder::asset("Ferrit_Asset_kit/2/"));
    EXPECT_EQ(index->error().code(), Errors::kFileDeserialization);
    EXPECT_NE(index->error().message().find("leaves the pack"), std::string::npos);
    EXPECT_EQ(index->directory(), nullptr) << "a failed list holds no folder";
}

TEST_F(ReadFlowTest, BackslashesInTheIndexAreSeparatorsInsideThePack) {
    installApp(tableOf({{"res\\win\\w.js", "https://h.com/app/w.js", "windows"}}));
    writeFile("apps/app/3/res/win/w.js", "windows");
    auto response = Access::getResource(ResourceRequest("https://h.com/app/w.js", ""));
    ASSERT_FALSE(response->error) << response->error.message();
    EXPECT_EQ(response->data, "windows");
}

TEST_F(ReadFlowTest, IndexWithoutSeparatorGives1107) {
    install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
    writeFile("apps/app/3/app-res.hvc",
              tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}}).toString());
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(response->error.message(),
              "file \"apps/app/3/app-res.hvc\" deserialization failed: Token || not found");
}

TEST_F(ReadFlowTest, TruncatedIndexGives1106) {
    install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
    const std::string whole = signedIndex(tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}}));
    writeFile("apps/app/3/app-res.hvc", whole.substr(0, whole.size() - 8));
    writeFile("apps/app/3/res/a.js", "a");
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kFileVerify);
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("app")->status, kPackStatusNeedReinstall);
}

TEST_F(ReadFlowTest, IndexWithInvalidJsonGives1107) {
    install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
    writeFile("apps/app/3/app-res.hvc", signedIndex(std::string("{\"res/a.js\": {\"v\": ")));
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(
        response->error.message(),
        "file \"apps/app/3/app-res.hvc\" deserialization failed: Invalid value. at offset 19");
}

TEST_F(ReadFlowTest, IndexRecordWithoutVersionGives1107) {
    JSON list;
    list.set("res/a.js", JSON(JSONObject{{"url", "https://h.com/app/a.js"}}));
    installApp(list);
    auto response = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    EXPECT_EQ(response->error.code(), Errors::kFileDeserialization);
    EXPECT_EQ(
        response->error.message(),
        "file \"apps/app/3/app-res.hvc\" deserialization failed: MD5 for \"res/a.js\" not found");
}

TEST_F(ReadFlowTest, PackedFileRemovedBetweenMatchAndReadGives1101AndAsksForReinstall) {
    auto store = std::make_shared<MemoryPackedFiles>();
    PackedFiles::set(store);
    auto p = pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"});
    p->isPacks = true;
    install({p});
    Error error;
    ASSERT_TRUE(store->put("app/3/app-res.hvc",
                           signedIndex(tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}})),
                           error));
    ASSERT_TRUE(store->put("app/3/res/a.js", "a", error));
    auto served = Access::getResource(ResourceRequest("https://h.com/app/a.js", ""));
    ASSERT_FALSE(served->error) << served->error.message();
    EXPECT_EQ(served->data, "a");

    auto resource = Access::match(ResourceRequest("https://h.com/app/a.js", ""), kPolicySync);
    ASSERT_FALSE(resource->error) << resource->error.message();
    store->removeByPrefix("app/3/res/a.js");
    EXPECT_EQ(resource->read(), "");
    EXPECT_EQ(resource->error.code(), Errors::kFileNotExists);
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("app")->status, kPackStatusNeedReinstall);
}

// The part reads its file when it is read: a file removed after the match and before the read
// fails with 1101, and on the main process the pack is marked for reinstall.
TEST_F(ReadFlowTest, FileRemovedBetweenMatchAndReadGives1101AndAsksForReinstall) {
    installApp(tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}}));
    writeFile("apps/app/3/res/a.js", "as matched");
    auto resource = Access::match(ResourceRequest("https://h.com/app/a.js", ""), kPolicySync);
    ASSERT_FALSE(resource->error) << resource->error.message();
    std::filesystem::remove(temp_.path() / "apps/app/3/res/a.js");
    EXPECT_EQ(resource->read(), "");
    EXPECT_EQ(resource->error.code(), Errors::kFileNotExists);
    EXPECT_EQ(resource->error.message(), "file \"apps/app/3/res/a.js\" not exists");
    TaskRunner::runDue();
    EXPECT_EQ(SCache::current()->find("app")->status, kPackStatusNeedReinstall);
}

// A file replaced after the match and before the read is read as it is at the read.
TEST_F(ReadFlowTest, FileReplacedBetweenMatchAndReadGivesTheNewBytes) {
    installApp(tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}}));
    writeFile("apps/app/3/res/a.js", "as matched");
    auto resource = Access::match(ResourceRequest("https://h.com/app/a.js", ""), kPolicySync);
    ASSERT_FALSE(resource->error) << resource->error.message();
    std::filesystem::remove(temp_.path() / "apps/app/3/res/a.js");
    writeFile("apps/app/3/res/a.js", "replaced");
    EXPECT_EQ(resource->read(), "replaced");
    EXPECT_FALSE(resource->error);
}

// A match opens no file: the pack's folder is held open once, with its index, and nothing more.
TEST_F(ReadFlowTest, MatchOnlyLeavesNoFileOpen) {
    installApp(tableOf({{"res/a.js", "https://h.com/app/a.js", "a"}}));
    writeFile("apps/app/3/res/a.js", "a");
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    // The statistics' store stays open once they have loaded, which the first match makes them.
    static_cast<void>(FerritCore::Statistics::hasEntry("app"));
    const auto before = openFiles();
    Access::match(ResourceRequest("https://h.com/app/a.js", ""), kPolicyProbe);
    EXPECT_EQ(openFiles(), before + 1) << "the pack's folder, held by its index";
    for (int i = 0; i < 50; ++i)
        Access::match(ResourceRequest("https://h.com/app/a.js", ""), kPolicyProbe);
    EXPECT_EQ(openFiles(), before + 1);
}

}  // namespace
}  // namespace FerritTest
