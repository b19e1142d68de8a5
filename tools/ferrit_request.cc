// ferrit-request: runs one request through Access against a configuration and prints the
// outcome, the response headers and the body size.
//
//   ferrit-request [--root DIR] [--config FILE | --config-json TEXT] [--referrer URL]
//                  [--header NAME:VALUE]... [--async] [--body] [--log-level N] URL
//
// The configuration is a document of pack records under "packs" (keys "s", "f", "p", "r",
// "installedSeq", "subType", "status", "zipURL", "isOnDemand", "isPacks") with each pack's
// resource table under "resources": {"<pack>": {"<path>": {"url", "v", "header"}}}. Files of a
// pack are read below the root, in "apps/<name>/<installedSeq>/".
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "access/ResourceIndex.h"
#include "ferritcore/Access.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "storage/Folder.h"
#include "update/SCache.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

int usage(const char* message) {
    std::cerr << "ferrit-request: " << message << "\n"
              << "usage: ferrit-request [--root DIR] [--config FILE | --config-json TEXT] [--referrer URL]\n"
              << "                      [--header NAME:VALUE]... [--async] [--body] [--log-level N] URL\n";
    return 2;
}

std::vector<std::string> strings(const JSON& array) {
    std::vector<std::string> out;
    for (const JSON& item : array.arrayValue()) out.push_back(item.stringValue());
    return out;
}

// Installs the packs of `document` and their resource tables; false with a reason on bad input.
bool load(const JSON& document, std::string& reason) {
    if (!document.isObject()) {
        reason = "the configuration is not a JSON object";
        return false;
    }
    const JSON& resources = document["resources"];
    std::map<std::string, ResourceIndexPtr> loaded;
    SCache::mutate([&](FConfig& config) {
        config.version = document["v"].stringValue();
        if (config.version.empty()) config.version = "0";
        config.lastUpdate = MRLCurrentTime();
        for (const auto& [name, value] : document["packs"].objectValue()) {
            auto pack = std::make_shared<Pack>();
            pack->name = name;
            pack->seq = value["s"].uint64Value();
            pack->flags = value["f"].uint64Value();
            pack->prefixes = strings(value["p"]);
            pack->referrers = strings(value["r"]);
            pack->installedSeq = value["installedSeq"].uint64Value();
            pack->subType = value["subType"].uint32Value();
            pack->status = value["status"].uint32Value();
            pack->zipURL = value["zipURL"].stringValue();
            pack->isOnDemand = value["isOnDemand"].boolValue();
            pack->isPacks = value["isPacks"].boolValue();
            pack->updateTime = MRLCurrentTime();
            auto index = std::make_shared<const ResourceIndex>(name, resources[name]);
            if (pack->isBuiltIn()) {
                ResourceIndexPool::set(name, index);
            } else {
                loaded[name] = index;
            }
            config.put(std::move(pack));
        }
    });
    ResourceIndexPool::setLoader([loaded](const Pack& pack) -> ResourceIndexPtr {
        auto it = loaded.find(pack.name);
        return it == loaded.end() ? nullptr : it->second;
    });
    return true;
}

void print(const ResourceResponse& response, bool body) {
    std::cout << "error: " << response.error.code();
    if (response.error) std::cout << " " << response.error.message();
    std::cout << "\nis404: " << (response.is404 ? "true" : "false") << "\n";
    std::map<std::string, std::string> sorted(response.header.begin(), response.header.end());
    for (const auto& [name, value] : sorted) std::cout << name << ": " << value << "\n";
    if (!response.md5.empty()) std::cout << "md5: " << response.md5 << "\n";
    std::cout << "body: " << response.data.size() << " bytes\n";
    if (body && !response.data.empty()) std::cout << "\n" << response.data << "\n";
}

}  // namespace

int main(int argc, char** argv) {
    std::string root, configFile, configText, referrer, url;
    HeaderMap header;
    bool async = false, body = false;
    MarlLogger::Log::setLevel(1);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--root" || arg == "--config" || arg == "--config-json" || arg == "--referrer" ||
            arg == "--header" || arg == "--log-level") {
            const char* value = next();
            if (value == nullptr) return usage(("missing value after " + arg).c_str());
            if (arg == "--root") root = value;
            if (arg == "--config") configFile = value;
            if (arg == "--config-json") configText = value;
            if (arg == "--referrer") referrer = value;
            if (arg == "--log-level") MarlLogger::Log::setLevel(std::atoi(value));
            if (arg == "--header") {
                const std::string h = value;
                const size_t colon = h.find(':');
                if (colon == std::string::npos) return usage("a header is NAME:VALUE");
                size_t start = colon + 1;
                while (start < h.size() && h[start] == ' ') ++start;
                header[h.substr(0, colon)] = h.substr(start);
            }
        } else if (arg == "--async") {
            async = true;
        } else if (arg == "--body") {
            body = true;
        } else if (arg == "--help" || arg == "-h") {
            return usage("runs one request through the cache");
        } else if (!arg.empty() && arg[0] == '-') {
            return usage(("unknown option " + arg).c_str());
        } else {
            url = arg;
        }
    }
    if (!root.empty()) setRootPath(root);
    if (!configFile.empty()) {
        std::ifstream in(configFile, std::ios::binary);
        if (!in) return usage(("cannot read " + configFile).c_str());
        std::stringstream text;
        text << in.rdbuf();
        configText = text.str();
    }
    if (!configText.empty()) {
        std::string parseError;
        JSON document = JSON::parse(configText, &parseError);
        if (!parseError.empty()) return usage(("configuration: " + parseError).c_str());
        std::string reason;
        if (!load(document, reason)) return usage(reason.c_str());
    }

    if (!referrer.empty() && header.find("Referer") == header.end()) header["Referer"] = referrer;
    ResourceRequest request(url, header);
    if (async) {
        std::unique_ptr<ResourceResponse> response;
        Access::getResource(request, [&](std::unique_ptr<ResourceResponse> r) { response = std::move(r); });
        TaskRunner::runDue();
        if (!response) {
            std::cout << "no answer\n";
            return 1;
        }
        print(*response, body);
        response->setFinished(Error());
        return response->error ? 1 : 0;
    }
    auto response = Access::getResource(request);
    print(*response, body);
    response->setFinished(Error());
    TaskRunner::runDue();
    return response->error ? 1 : 0;
}
