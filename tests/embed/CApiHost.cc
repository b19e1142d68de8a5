#include "tests/embed/CApiHost.h"

#include "ferritcore/AccessApi.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Publisher.h"

namespace FerritTest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kZipFolder = "packs/";
constexpr const char* kAppKey = "key";
constexpr const char* kAppVersion = "1.0";
// Installed without a visit.
constexpr uint32_t kPriority = 9;

}  // namespace

std::unique_ptr<FerritTools::Ed25519Key> makeKey() {
    std::string error;
    std::unique_ptr<FerritTools::Ed25519Key> key = FerritTools::Ed25519Key::generate(error);
    EXPECT_NE(key, nullptr) << error;
    return key;
}

std::string publicPem(const FerritTools::Ed25519Key& key, const fs::path& folder) {
    const std::string path = (folder / "public.pem").string();
    std::string error, pem;
    EXPECT_TRUE(key.writePublicPem(path, error)) << error;
    EXPECT_TRUE(FerritTools::readWholeFile(path, pem));
    return pem;
}

fs::path treeOf(const fs::path& work) {
    return work / "tree";
}

void publishSite(const std::map<std::string, std::string>& site,
                 const FerritTools::Ed25519Key& signer, const fs::path& work,
                 std::map<std::string, std::string>& served, const std::string& channel) {
    const fs::path folder = work / "site";
    fs::remove_all(folder);
    for (const auto& [path, content] : site) {
        fs::create_directories((folder / "app" / path).parent_path());
        ASSERT_TRUE(FerritTools::writeFileAtomically((folder / "app" / path).string(), content));
    }
    FerritTools::PublishManifest manifest;
    manifest.appKey = kAppKey;
    manifest.appVersion = kAppVersion;
    manifest.zipFolder = kZipFolder;
    // As `ferrit publish` says which key signs, so that the tree's keys are kept.
    manifest.signerKeyId = signer.publicKey()->id();
    FerritTools::PublishPack pack;
    pack.name = kPackName;
    pack.folder = "app";
    pack.prefix = kPrefix;
    pack.priority = kPriority;
    manifest.packs.push_back(pack);
    auto key = std::shared_ptr<const FerritTools::Ed25519Key>(
        &signer, [](const FerritTools::Ed25519Key*) {});
    FerritTools::PublishResult result;
    FerritTools::PublishOptions options;
    options.channel = channel;
    std::string error;
    ASSERT_TRUE(FerritTools::publish(folder.string(), manifest, treeOf(work).string(),
                                     std::string(), FerritTools::ed25519Signer(key), result, error,
                                     {}, options))
        << error;
    serveTree(work, served);
}

void serveTree(const fs::path& work, std::map<std::string, std::string>& served) {
    const fs::path tree = treeOf(work);
    for (const auto& entry : fs::recursive_directory_iterator(tree)) {
        if (!entry.is_regular_file()) continue;
        const std::string relative = fs::relative(entry.path(), tree).generic_string();
        std::string body;
        ASSERT_TRUE(FerritTools::readWholeFile(entry.path().string(), body));
        if (relative.starts_with(kZipFolder))
            served[kPackServer + relative.substr(std::string(kZipFolder).size())] = body;
        else
            served[kConfigServer + relative] = body;
    }
}

ferritcore_options hostOptions(const std::string& root, const std::string& pem, void* host) {
    ferritcore_options options{};
    options.struct_size = sizeof options;
    options.root = root.c_str();
    options.app_key = kAppKey;
    options.app_version = kAppVersion;
    options.public_key = pem.data();
    options.public_key_size = pem.size();
    options.config_server = kConfigServer;
    options.pack_server = kPackServer;
    options.log_level = FERRITCORE_LOG_INFO;
    options.user_data = host;
    return options;
}

std::string serve(const std::string& url, int32_t& code) {
    const FerritAccessApi* api = ferritcore_access_api();
    FerritRequest* request = api->createRequest(url.c_str());
    FerritResponse* response = api->getResource(request);
    api->freeRequest(request);
    std::string body;
    const char* message = nullptr;
    code = 0;
    if (api->getResponseError(response, &code, &message) == 0) {
        const void* data = nullptr;
        size_t size = 0;
        if (api->getResponseData(response, &data, &size) == 1)
            body.assign(static_cast<const char*>(data), size);
    }
    api->freeResponse(response);
    return body;
}

void expectServes(const std::map<std::string, std::string>& site) {
    for (const auto& [path, content] : site) {
        int32_t code = 0;
        EXPECT_EQ(serve(kPrefix + path, code), content) << path;
        EXPECT_EQ(code, 0) << path;
    }
}

void CApiFixture::SetUp() {
    ProcessTest::SetUp();
    publisher_ = makeKey();
    ASSERT_NE(publisher_, nullptr);
    pem_ = publicPem(*publisher_, work_.path());
}

ferritcore_status CApiFixture::openHandle(const ferritcore_options& options,
                                          ferritcore_handle** handle) {
    ferritcore_error error{};
    const ferritcore_status status = ferritcore_open(&options, handle, &error);
    lastError_ = error.message;
    return status;
}

}  // namespace FerritTest
