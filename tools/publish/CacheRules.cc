#include "tools/publish/CacheRules.h"

#include <filesystem>

#include "marl/Json.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Release.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

constexpr const char* kNginxSuffix = ".nginx.conf";
constexpr const char* kHeadersSuffix = ".headers.json";
// The folders of configuration documents below a tree.
constexpr const char* kConfigurationFolders[] = {"fconfig/", "packconfig/", kChannelsFolder};

std::string beside(const std::string& out, const char* suffix) {
    std::error_code code;
    fs::path tree = fs::weakly_canonical(fs::absolute(out, code), code);
    if (!tree.has_filename()) tree = tree.parent_path();
    if (!tree.has_filename()) return {};
    return (tree.parent_path() / (tree.filename().string() + suffix)).string();
}

std::string treePath(const std::string& out) {
    std::error_code code;
    return fs::weakly_canonical(fs::absolute(out, code), code).string();
}

std::string nginxRules(const std::string& out, const std::string& zipFolder) {
    std::string text = "# Cache rules of the tree " + treePath(out) +
                       ", written by `ferrit publish`.\n"
                       "# Include this file in the nginx server block whose root is that tree,\n"
                       "# where it answers at the server's root.\n"
                       "# Configuration documents are rewritten in place by every publish: "
                       "caches keep them\n"
                       "# a minute, then ask again.\n";
    for (const char* folder : kConfigurationFolders) {
        text += "location ^~ /" + std::string(folder) + " {\n    add_header Cache-Control \"" +
                kConfigurationCacheControl + "\";\n}\n";
    }
    text +=
        "# Zips are written once, at a path named by their pack and version, and never "
        "rewritten.\n";
    text += "location ^~ /" + zipFolder + " {\n    add_header Cache-Control \"" +
            kImmutableCacheControl + "\";\n}\n";
    return text;
}

std::string headersManifest(const std::string& out, const std::string& zipFolder) {
    auto rule = [](const std::string& pattern, const char* kind, const char* cacheControl) {
        return JSON(
            JSONObject{{"path", JSON(pattern)},
                       {"kind", JSON(kind)},
                       {"headers", JSON(JSONObject{{"Cache-Control", JSON(cacheControl)}})}});
    };
    JSON rules(JSONArray{});
    for (const char* folder : kConfigurationFolders)
        rules.push(
            rule("/" + std::string(folder) + "*", "configuration", kConfigurationCacheControl));
    rules.push(rule("/" + zipFolder + "*", "zip", kImmutableCacheControl));
    return JSON(JSONObject{{"tree", JSON(treePath(out))}, {"rules", rules}}).toString() + "\n";
}

}  // namespace

std::string nginxRulesPath(const std::string& out) {
    return beside(out, kNginxSuffix);
}

std::string headersManifestPath(const std::string& out) {
    return beside(out, kHeadersSuffix);
}

bool writeCacheRules(const std::string& out, const std::string& zipFolder, std::string& error) {
    const std::string nginx = nginxRulesPath(out);
    const std::string headers = headersManifestPath(out);
    if (nginx.empty() || headers.empty()) {
        error = "the tree " + out + " has no folder beside it for its cache rules";
        return false;
    }
    for (const auto& [path, text] : {std::pair{nginx, nginxRules(out, zipFolder)},
                                     std::pair{headers, headersManifest(out, zipFolder)}}) {
        std::string held;
        if (readWholeFile(path, held) && held == text) continue;
        // A first publish makes the tree and its parents; the rules beside it go there too.
        std::error_code code;
        fs::create_directories(fs::path(path).parent_path(), code);
        std::string reason;
        if (!writeFileAtomically(path, text, &reason)) {
            error = cannotWrite(path, reason);
            return false;
        }
    }
    return true;
}

bool writeImmutable(const std::string& out, const std::string& relative, const std::string& content,
                    std::string& error) {
    const fs::path path = fs::path(out) / relative;
    std::error_code code;
    if (fs::exists(path, code)) {
        std::string held;
        if (readWholeFile(path.string(), held) && held == content) return true;
        error = path.string() +
                " exists with other bytes, and caches keep a published zip as immutable: the "
                "history does not match the tree (restore the history, or publish into a new "
                "tree)";
        return false;
    }
    fs::create_directories(path.parent_path(), code);
    std::string reason = code ? code.message() : std::string();
    if (code || !writeFileAtomically(path.string(), content, &reason)) {
        error = cannotWrite(path.string(), reason);
        return false;
    }
    return true;
}

}  // namespace FerritTools
