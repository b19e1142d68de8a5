// ferrit-request: runs one request through Access against a root folder and an app's raw-file
// folder, and prints the outcome, the response headers and the body size.
//
//   ferrit-request --root DIR [--assets DIR] [--public-key PEM] [--config FILE | --config-json
//   TEXT]
//                  [--referrer URL] [--header NAME:VALUE]... [--async] [--body] [--events]
//                  [--log-level N] (URL | --check)
//   ferrit-request --startup --serve DIR --app-key KEY --app-version VERSION --root DIR
//                  --public-key PEM --config-prefix URL [--assets DIR] [--config FILE] [URL]
//
// Start-up is the library's own: the proxy is set (a file-backed one that verifies index
// signatures with the Ed25519 public key), the folders under the root are initialised, the
// raw-file folder becomes the asset provider, and the built-in configuration "Ferrit_Asset.config"
// is loaded from it. The configuration file adds the records of packs installed under the root:
// {"v": "<version>", "packs": {"<name>": {"s", "f", "p", "r", "installedSeq", ...}}}. Each such
// pack is read from "apps/<name>/<installedSeq>/", through its signed "app-res.hvc".
//
// --check verifies every installed pack instead: its signed list, then the MD5 of each file.
//
// --preload FILE first installs the preload zip FILE of the raw-file folder, as the host's
// installPreloadNative does, and then goes on with URL or --check over what it installed.
//
// inspect COMMAND [JSON] sends one command to the developer inspector instead (such as
// "FerritDev.info", "FerritDev.size" or "FerritDev.getURLList" '{"packName":"shop"}'), after the
// library's own start against the root (setProxy: folders, the stored and the built-in
// configuration; with --app-key, also setup), and prints the reply; it exits 0 when the command
// succeeded.
//
// --startup runs the host's start-up order instead (setProxy, setup with mode 1, the first
// configuration update, startUpdate) on the library's own worker thread, against the configuration
// endpoint --config-prefix served from files below --serve (see FileProxy; nothing is compiled in,
// so the endpoint is given as a host gives it), and prints the status report after each
// step; then it serves URL, if one is given, from the configuration it fetched. The records of
// --config then stand for what an earlier run installed.
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "FileProxy.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "ferritcore/Access.h"
#include "lifecycle/DevInspector.h"
#include "lifecycle/Services.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Inspector.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/BuiltinConfig.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "tools/ToolCommands.h"
#include "update/Preload.h"

using namespace FerritCore;
using MarlLogger::json::JSON;

namespace {

int usage(const std::string& message) {
    std::cerr
        << "ferrit-request: " << message << "\n"
        << "usage: ferrit-request --root DIR [--assets DIR] [--public-key PEM]\n"
        << "                      [--config FILE | --config-json TEXT] [--referrer URL] [--header "
           "NAME:VALUE]...\n"
        << "                      [--preload FILE] [--async] [--body] [--events] [--log-level N]\n"
        << "                      (URL | --check)\n"
        << "       ferrit-request --startup --serve DIR --app-key KEY --app-version VERSION --root "
           "DIR\n"
        << "                      --public-key PEM --config-prefix URL [--assets DIR] [--config "
           "FILE] [URL]\n"
        << "       ferrit-request --root DIR [--assets DIR] [--public-key PEM] [--serve DIR]\n"
        << "                      [--app-key KEY --app-version VERSION] inspect COMMAND [JSON]\n";
    return 2;
}

// Takes the pack records of `document` into the configuration; false with a reason on bad input.
bool loadRecords(const JSON& document, FConfig& config, std::string& reason) {
    if (!document.isObject()) {
        reason = "the configuration is not a JSON object";
        return false;
    }
    config.version = document["v"].stringValue();
    if (config.version.empty()) config.version = "0";
    config.lastUpdate = MRLCurrentTime();
    for (const auto& [name, value] : document["packs"].objectValue()) {
        auto pack = std::make_shared<Pack>();
        pack->name = name;
        pack->readJSON(value);
        if (!pack->validate()) {
            reason = "the record of \"" + name + "\" is not valid";
            return false;
        }
        config.put(std::move(pack));
    }
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

// A host without a key: signed lists do not verify, and nothing else is asked of it.
class KeylessProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const PerfRecord&) override {}
};

// Sends one command to the inspector, running the library's background work until it answers.
int inspect(std::shared_ptr<Proxy> proxy, const std::string& root, const std::string& assets,
            const std::string& appKey, const std::string& appVersion, const std::string& command,
            const std::string& paramsText, bool withStatus) {
    JSON params = JSON(MarlLogger::json::JSONObject());
    if (!paramsText.empty()) {
        std::string parseError;
        params = JSON::parse(paramsText, &parseError);
        if (!parseError.empty()) return usage("parameters: " + parseError);
    }
    Setup::setProxy(std::move(proxy), root, assets);
    if (appKey.empty()) {
        DevInspector::registerAgent();
    } else {
        Setup::setup(appKey, appVersion, 1);  // registers the agent, as a host's start does
    }
    if (withStatus) std::cout << "status " << Setup::statusReport().toString() << "\n";
    bool answered = false, succeeded = false;
    JSON data;
    const bool known =
        MarlLogger::Inspector::sendCommand(command, params, [&](bool success, const JSON& reply) {
            answered = true;
            succeeded = success;
            data = reply;
        });
    if (!known) return usage("no such command: " + command);
    // A command that answers from the worker ("update", "readDiskFileList") answers once its
    // work has run; a bounded number of rounds keeps a command that never answers from hanging.
    for (int round = 0; !answered && round < 1000; ++round) {
        if (TaskRunner::runDue() == 0 && TaskRunner::pendingCount() == 0) break;
    }
    if (!answered) {
        std::cout << "no answer\n";
        return 1;
    }
    std::cout << (succeeded ? "success " : "failure ") << data.toString() << "\n";
    TaskRunner::runDue();  // what the command left to do, such as a commit
    return succeeded ? 0 : 1;
}

void printStatus(const char* step) {
    std::cout << "status after " << step << ": " << Setup::statusReport().toString() << "\n";
}

// Verifies the signed list and the files of every installed pack; 0 when all are intact.
int check() {
    int failures = 0;
    const FConfigPtr config = SCache::current();
    std::map<std::string, PackPtr> packs(config->packs.begin(), config->packs.end());
    for (const auto& [name, pack] : packs) {
        if (!pack->isInstalled()) continue;
        const Folder folder = pack->installedFolder();
        std::cout << name << "@" << pack->installedSeq << " (" << folderKindName(folder.kind())
                  << " " << folder.describe() << "): ";
        if (folder.kind() == FolderKind::OnDemand) {
            std::cout << "on demand, read when first asked for\n";
            continue;
        }
        const ResourceIndex index(name, folder);
        Error error = index.error();
        if (!error) index.verifyFiles(folder, error);
        if (error) {
            ++failures;
            std::cout << "error " << error.code() << " " << error.message() << "\n";
        } else {
            std::cout << "signed list and files verified\n";
        }
    }
    return failures == 0 ? 0 : 1;
}

}  // namespace

int FerritTools::runRequestTool(int argc, char** argv) {
    std::string root, assets, publicKey, configFile, configText, referrer, url, served, appKey,
        appVersion, preloadFile, configPrefix;
    HeaderMap header;
    bool async = false, body = false, events = false, checkPacks = false, startup = false;
    std::vector<std::string> positional;
    MarlLogger::Log::setLevel(1);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--root" || arg == "--assets" || arg == "--public-key" || arg == "--config" ||
            arg == "--config-json" || arg == "--referrer" || arg == "--header" ||
            arg == "--log-level" || arg == "--serve" || arg == "--app-key" ||
            arg == "--app-version" || arg == "--preload" || arg == "--config-prefix") {
            const char* value = next();
            if (value == nullptr) return usage("missing value after " + arg);
            if (arg == "--root") root = value;
            if (arg == "--assets") assets = value;
            if (arg == "--public-key") publicKey = value;
            if (arg == "--config") configFile = value;
            if (arg == "--config-json") configText = value;
            if (arg == "--referrer") referrer = value;
            if (arg == "--serve") served = value;
            if (arg == "--app-key") appKey = value;
            if (arg == "--app-version") appVersion = value;
            if (arg == "--preload") preloadFile = value;
            if (arg == "--config-prefix") configPrefix = value;
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
        } else if (arg == "--events") {
            events = true;
        } else if (arg == "--check") {
            checkPacks = true;
        } else if (arg == "--startup") {
            startup = true;
        } else if (arg == "--help" || arg == "-h") {
            return usage("runs one request through the cache");
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    // "status" is the status report and then the inspector's size report.
    const bool status = !positional.empty() && positional[0] == "status";
    if (status) {
        if (positional.size() != 1) return usage("status takes no argument");
        positional.push_back("FerritDev.size");
    }
    const bool inspecting = !positional.empty() && (positional[0] == "inspect" || status);
    if (inspecting) {
        if (positional.size() < 2 || positional.size() > 3)
            return usage("inspect takes a command and, optionally, its parameters as JSON");
    } else if (positional.size() > 1) {
        return usage("one URL at a time");
    } else if (!positional.empty()) {
        url = positional[0];
    }
    if (root.empty()) return usage("--root is required");
    if (!configPrefix.empty()) {
        // The host's layer, as setDefaultConfigNative gives it.
        HostDefaults defaults;
        defaults.configPrefix = configPrefix;
        Settings::setDefaults(defaults);
    }
    if (inspecting) {
        TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
        std::shared_ptr<Proxy> proxy = std::make_shared<KeylessProxy>();
        if (!publicKey.empty()) {
            std::string reason;
            std::shared_ptr<FerritTools::FileProxy> fileProxy =
                FerritTools::FileProxy::open(publicKey, reason);
            if (!fileProxy) return usage(reason);
            fileProxy->serveFolder(served);
            fileProxy->setPrintEvents(events);
            proxy = fileProxy;
        }
        return inspect(std::move(proxy), root, assets, appKey, appVersion, positional[1],
                       positional.size() == 3 ? positional[2] : std::string(), status);
    }
    if (url.empty() && !checkPacks && !startup && preloadFile.empty()) return usage("no URL");
    if (startup && (served.empty() || publicKey.empty()))
        return usage("--startup needs --serve and --public-key");
    if (!preloadFile.empty() && (startup || assets.empty()))
        return usage("--preload needs --assets, and does not go with --startup");

    // Background work (visit updates, the configuration's commit) is not run for one request: it
    // needs none of it, and it would write to the root. Start-up runs on the real worker.
    if (!startup) TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    std::shared_ptr<FerritTools::FileProxy> fileProxy;

    if (!publicKey.empty()) {
        std::string reason;
        std::shared_ptr<FerritTools::FileProxy> proxy =
            FerritTools::FileProxy::open(publicKey, reason);
        if (!proxy) return usage(reason);
        proxy->setPrintEvents(events);
        proxy->serveFolder(served);
        fileProxy = proxy;
        if (!startup) Environment::instance().setProxy(proxy);
    } else {
        std::cerr << "ferrit-request: no --public-key: no proxy is set, so no signed list verifies "
                     "(1106)\n";
    }
    if (startup) printStatus("loading");
    if (!startup) {
        // The library's own wiring, as setProxy does it, without the stored configuration: the
        // records come from --config.
        initFolders(root);
        Services::wire();
        if (!assets.empty()) Services::attachAssets(assets);
    }

    if (!configFile.empty()) {
        std::ifstream in(configFile, std::ios::binary);
        if (!in) return usage("cannot read " + configFile);
        std::stringstream text;
        text << in.rdbuf();
        configText = text.str();
    }
    JSON document;
    if (!configText.empty()) {
        std::string parseError;
        document = JSON::parse(configText, &parseError);
        if (!parseError.empty()) return usage("configuration: " + parseError);
    }
    if (startup) {
        Setup::setProxy(fileProxy, root,
                        assets);  // folders, then the stored and the built-in configuration
        printStatus("setProxy");
    }
    std::string reason;
    Error builtinError;
    bool recordsLoaded = true;
    SCache::mutate([&](FConfig& config) {
        if (!configText.empty()) recordsLoaded = loadRecords(document, config, reason);
        if (recordsLoaded && !assets.empty() && !startup)
            builtinError = BuiltinConfig::load(config);
    });
    if (!recordsLoaded) return usage(reason);
    if (builtinError)
        std::cerr << "ferrit-request: built-in configuration: " << builtinError.message() << "\n";

    if (startup) {
        // The host's order: setup (it will call startUpdate itself), the first configuration on
        // the worker, then startUpdate.
        Setup::setup(appKey, appVersion, 1);
        printStatus("setup");
        TaskRunner::runDue();
        for (const std::string& asked : fileProxy->requestedUrls())
            std::cout << "requested " << asked << "\n";
        std::cout << "configuration version " << SCache::current()->version << " with "
                  << SCache::current()->packs.size() << " packs\n";
        printStatus("the first configuration");
        Setup::startUpdate();
        TaskRunner::runDue();
        printStatus("startUpdate");
        if (url.empty()) return Setup::statusReport()["error"].isNull() ? 0 : 1;
    }

    if (!preloadFile.empty()) {
        const bool installed = Preload::instance().install(preloadFile, true);
        TaskRunner::runDue();  // the commit of its transaction
        if (!installed) {
            std::cout << "preload " << preloadFile << " not installed\n";
            return 1;
        }
        std::cout << "preload " << preloadFile << " installed\n";
        std::map<std::string, PackPtr> packs(SCache::current()->packs.begin(),
                                             SCache::current()->packs.end());
        for (const auto& [name, pack] : packs) {
            if (pack->isPacks && pack->isInstalled())
                std::cout << "  " << name << "@" << pack->installedSeq << " ("
                          << pack->installedSize << " bytes)\n";
        }
        if (url.empty() && !checkPacks) return 0;
    }

    if (checkPacks) return check();

    if (!referrer.empty() && header.find("Referer") == header.end()) header["Referer"] = referrer;
    ResourceRequest request(url, header);
    if (async) {
        std::unique_ptr<ResourceResponse> response;
        Access::getResource(request,
                            [&](std::unique_ptr<ResourceResponse> r) { response = std::move(r); });
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
    return response->error ? 1 : 0;
}
