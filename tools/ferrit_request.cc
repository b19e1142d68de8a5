// ferrit get, check, startup, status, inspect and cleanup: run the library against a root folder
// and an app's raw-file folder, and report what it answered.
//
// get runs one request through Access and prints the outcome, the response headers and the body
// size. Start-up is the library's own: the proxy is set (a file-backed one that verifies index
// signatures with the Ed25519 public key), the raw-file folder becomes the asset provider, and the
// built-in configuration "Ferrit_Asset.config" is loaded from it. The configuration file (--config)
// adds the records of packs installed under the root: {"v": "<version>", "packs": {"<name>": {"s",
// "f", "p", "r", "installedSeq", ...}}}; without one, the configuration that a host stored under
// the root is read. Each installed pack is read from its installed version's folder (on the disk
// or in the packs store), through its signed "app-res.hvc".
//
// check verifies what a host installed instead: that the stored configuration reads and each of
// its records validates, and every installed pack's signed list and the MD5 of each of its files.
// It fails naming each fault, and only reads: a running host's folders stay as they are.
//
// --preload FILE first installs the preload zip FILE of the raw-file folder, as the host's
// installPreloadNative does, and then goes on with URL or the check over what it installed.
//
// inspect COMMAND [JSON] sends one command to the developer inspector instead (such as
// "FerritDev.info", "FerritDev.size" or "FerritDev.getURLList" '{"packName":"shop"}'), after the
// library's own start against the root (setProxy: folders, the stored and the built-in
// configuration; with --app-key, also setup), and prints the reply as JSON; it exits 0 when the
// command succeeded. status is the status report and then the reply of "FerritDev.size".
//
// startup runs the host's start-up order instead (setProxy, setup with mode 1, the first
// configuration update, startUpdate) on the library's own worker thread, against the configuration
// endpoint --config-prefix served from files below --serve (see FileProxy; nothing is compiled in,
// so the endpoint is given as a host gives it), and prints the status report after each
// step. With --zip-prefix it then installs every pack the configuration names and waits for them
// (the tool's own install, with a progress bar on a terminal). Then it serves URL, if one is
// given, from the configuration it fetched. The records of --config then stand for what an
// earlier run installed. It is the only one of these commands that makes a root folder that does
// not exist: the others fail on a missing root, so that a mistyped path reports the mistake
// instead of an empty root made in its place.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

#include "FileProxy.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
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
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"
#include "tools/ToolCommands.h"
#include "tools/common/ToolOutput.h"
#include "tools/common/ToolProgress.h"
#include "update/Preload.h"
#include "update/UpdateQueue.h"

using namespace FerritCore;
using FerritTools::kExitSuccess;
using FerritTools::ToolOutput;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

namespace {

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

// How the JSON report carries a body: as the string itself, or as its base64.
constexpr const char* kBodyText = "utf-8";
constexpr const char* kBodyBase64 = "base64";

JSON errorJson(const Error& error) {
    return JSON(JSONObject{{"code", JSON(static_cast<int64_t>(error.code()))},
                           {"message", JSON(error.message())}});
}

// Whether `bytes` are UTF-8 text that a JSON string can carry as it is: every sequence well
// formed, none overlong, no surrogate, nothing cut off at the end.
bool isUtf8Text(std::string_view bytes) {
    struct Discard {
        void Put(char) {}
    } sink;
    rapidjson::MemoryStream stream(bytes.data(), bytes.size());
    while (stream.Tell() < bytes.size()) {
        if (!rapidjson::UTF8<>::Validate(stream, sink)) return false;
    }
    return true;
}

// Reports a response: lines for a reader, and the report's "response". A body that is not UTF-8
// text (an image, a font, a zip) goes into the JSON report as base64, which "bodyEncoding" says,
// so that the report stays one valid document that gives back the exact bytes.
int report(ToolOutput& out, const std::string& url, const ResourceResponse& response, bool body) {
    std::ostream& text = out.text();
    text << "error: " << response.error.code();
    if (response.error) text << " " << response.error.message();
    text << "\nis404: " << (response.is404 ? "true" : "false") << "\n";
    std::map<std::string, std::string> sorted(response.header.begin(), response.header.end());
    for (const auto& [name, value] : sorted) text << name << ": " << value << "\n";
    if (!response.md5.empty()) text << "md5: " << response.md5 << "\n";
    text << "body: " << response.data.size() << " bytes\n";
    if (body && !response.data.empty()) text << "\n" << response.data << "\n";

    JSONObject headers;
    for (const auto& [name, value] : sorted) headers.set(name, JSON(value));
    JSONObject record{{"url", JSON(url)},
                      {"is404", JSON(response.is404)},
                      {"headers", JSON(std::move(headers))},
                      {"size", JSON(static_cast<uint64_t>(response.data.size()))}};
    if (response.error) record.set("failure", errorJson(response.error));
    if (!response.md5.empty()) record.set("md5", JSON(response.md5));
    if (body) {
        const bool text = isUtf8Text(response.data);
        record.set("bodyEncoding", JSON(text ? kBodyText : kBodyBase64));
        record.set("body", JSON(text ? response.data : Digest::base64Encode(response.data)));
    }
    out.set("response", JSON(std::move(record)));
    if (response.error)
        return out.fail("the request failed: " + std::to_string(response.error.code()) + " " +
                        response.error.message());
    return out.finish();
}

// A host without a key: signed lists do not verify, and nothing else is asked of it.
class KeylessProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const PerfRecord&) override {}
};

// Sends one command to the inspector, running the library's background work until it answers.
// With `withStatus` (ferrit status), reports the status report first.
int inspect(ToolOutput& out, std::shared_ptr<Proxy> proxy, const std::string& root,
            const std::string& assets, const std::string& appKey, const std::string& appVersion,
            const std::string& command, const std::string& paramsText, bool withStatus) {
    JSON params = JSON(JSONObject());
    if (!paramsText.empty()) {
        std::string parseError;
        params = JSON::parse(paramsText, &parseError);
        if (!parseError.empty()) return out.usage("the parameters are not JSON: " + parseError);
    }
    Setup::setProxy(std::move(proxy), root, assets);
    if (appKey.empty()) {
        DevInspector::registerAgent();
    } else {
        Setup::setup(appKey, appVersion,
                     SetupMode::kHostStartsUpdate);  // registers the agent, as a host's start does
    }
    if (withStatus) {
        const JSON status = Setup::statusReport();
        out.text() << "status: " << status.toString() << "\n";
        out.set("status", status);
    }
    bool answered = false, succeeded = false;
    JSON data;
    const bool known =
        MarlLogger::Inspector::sendCommand(command, params, [&](bool success, const JSON& reply) {
            answered = true;
            succeeded = success;
            data = reply;
        });
    if (!known) return out.usage("no such inspector command: " + command);
    // A command that answers from the worker ("update", "readDiskFileList") answers once its
    // work has run; a bounded number of rounds keeps a command that never answers from hanging.
    for (int round = 0; !answered && round < 1000; ++round) {
        if (TaskRunner::runDue() == 0 && TaskRunner::pendingCount() == 0) break;
    }
    if (!answered) return out.fail(command + " gave no answer");
    TaskRunner::runDue();  // what the command left to do, such as a commit
    // The reply alone is a JSON document: what a script reads, with or without --json.
    if (withStatus) {
        out.text() << "size: " << data.toString() << "\n";
        out.set("size", data);
    } else {
        out.text() << data.toString() << "\n";
        out.set("inspector", JSON(command));
        out.set("reply", data);
    }
    if (!succeeded) return out.fail(command + " failed: " + data.toString());
    return out.finish();
}

JSON statusStep(const char* step) {
    return JSON(JSONObject{{"step", JSON(step)}, {"status", Setup::statusReport()}});
}

void printStatus(ToolOutput& out, const char* step) {
    out.text() << "status after " << step << ": " << Setup::statusReport().toString() << "\n";
    out.append("steps", statusStep(step));
}

// Takes in the configuration that a host stored under the root, as the library's start does.
// False when there is none; what is wrong with one that is there goes to `problems`.
bool loadStored(std::vector<std::string>& problems) {
    ErrorOr<std::string> stored = PacksStore::instance().readConfig();
    Error error = stored.error();
    const std::string text = std::move(stored).valueOr(std::string());
    std::shared_ptr<FConfig> document;
    if (!error && !text.empty()) document = FConfig::parse(text, "local", error, false);
    const bool found = !Errors::isFileMissing(error) && !text.empty();
    if (!document) {
        if (found)
            problems.push_back("the stored configuration does not read: " +
                               std::to_string(error.code()) + " " + error.message());
        document = std::make_shared<FConfig>();
    } else {
        // The reader leaves out a record that does not validate: a check names it.
        const JSON stored = JSON::parse(text);
        for (const auto& [name, record] : stored["packs"].objectValue()) {
            if (record.isObject() && !record.objectValue().empty() && !document->find(name))
                problems.push_back("the stored record of " + name + " is not valid");
        }
    }
    SCache::publish(document);
    return found;
}

// Verifies the signed list and the files of every installed pack; each fault is named on stderr
// and in the report. `problems` are faults found before (the stored configuration's).
int check(ToolOutput& out, const std::string& root, std::vector<std::string> problems) {
    const FConfigPtr config = SCache::current();
    std::map<std::string, PackPtr> packs(config->packs().begin(), config->packs().end());
    out.set("root", JSON(root));
    out.set("configuration",
            JSON(JSONObject{{"version", JSON(config->version)},
                            {"packs", JSON(static_cast<uint64_t>(packs.size()))}}));
    JSONArray checked;
    size_t verified = 0;
    for (const auto& [name, pack] : packs) {
        if (!pack->isInstalled()) continue;
        const Folder folder = pack->installedFolder();
        JSONObject record{{"name", JSON(name)},
                          {"seq", JSON(pack->installedSeq)},
                          {"kind", JSON(folderKindName(folder.kind()))},
                          {"folder", JSON(folder.describe())}};
        out.text() << name << "@" << pack->installedSeq << " (" << folderKindName(folder.kind())
                   << " " << folder.describe() << "): ";
        if (folder.kind() == FolderKind::OnDemand) {
            out.text() << "on demand, read when first asked for\n";
            record.set("result", JSON("on demand"));
            checked.push_back(JSON(std::move(record)));
            continue;
        }
        const ResourceIndex index(name, folder);
        Error error = index.error();
        if (!error) index.verifyFiles(folder, error);
        if (error) {
            const std::string fault = name + "@" + std::to_string(pack->installedSeq) + ": " +
                                      std::to_string(error.code()) + " " + error.message();
            problems.push_back(fault);
            out.text() << "error " << error.code() << " " << error.message() << "\n";
            record.set("result", JSON("failed"));
            record.set("failure", errorJson(error));
        } else {
            ++verified;
            out.text() << "signed list and files verified\n";
            record.set("result", JSON("verified"));
        }
        checked.push_back(JSON(std::move(record)));
    }
    if (checked.empty() && problems.empty()) problems.push_back("no installed pack to check");
    out.set("packs", JSON(std::move(checked)));
    out.set("verified", JSON(static_cast<uint64_t>(verified)));
    out.set("problems", JSON(problems));
    if (problems.empty()) return out.finish();
    for (size_t i = 1; i < problems.size(); ++i) out.note(problems[i - 1]);
    return out.fail(problems.back());
}

// How long an install of every pack may take before the tool gives up on it.
constexpr std::chrono::seconds kInstallWait{300};
// How often the progress is redrawn while the worker installs.
constexpr std::chrono::milliseconds kProgressInterval{100};
// A pack's zip and its own document: what a pack's install downloads at most.
constexpr uint64_t kDownloadsPerPack = 2;

// Installs every pack of the configuration that is not installed at its version, through the
// update queue as a host's prefetch does (whatever the pack's priority), and waits until each has
// answered: a host's first start on a fresh root leaves them to the queue's timer, which a tool
// does not wait for. Draws the downloads' progress on a terminal; each failure is named.
int installAll(ToolOutput& out, const FerritTools::FileProxy& proxy) {
    const FConfigPtr config = SCache::current();
    std::vector<std::string> names;
    std::map<std::string, uint64_t> wanted;
    for (const auto& [name, pack] : config->packs()) {
        if (pack->seq == 0 || pack->installedSeq == pack->seq) continue;
        names.push_back(name);
        wanted[name] = pack->seq;
    }
    std::sort(names.begin(), names.end());
    struct Outcomes {
        std::mutex mutex;
        std::condition_variable changed;
        std::map<std::string, Error> answered;
        bool settled = false;
    };
    auto outcomes = std::make_shared<Outcomes>();
    FerritTools::ToolProgress bar("install");
    bar.setTotal(names.size() * kDownloadsPerPack, 0);
    const uint64_t filesBefore = proxy.servedFiles();
    const uint64_t bytesBefore = proxy.servedBytes();
    for (const std::string& name : names) {
        UpdateQueue::request(name, kTriggerPrefetch, [outcomes, name](const Error& error) {
            std::lock_guard<std::mutex> lock(outcomes->mutex);
            outcomes->answered.emplace(name, error);
            outcomes->changed.notify_all();
        });
    }
    const auto deadline = std::chrono::steady_clock::now() + kInstallWait;
    {
        std::unique_lock<std::mutex> lock(outcomes->mutex);
        while (outcomes->answered.size() < names.size() &&
               std::chrono::steady_clock::now() < deadline) {
            outcomes->changed.wait_for(lock, kProgressInterval);
            bar.update(proxy.servedFiles() - filesBefore, proxy.servedBytes() - bytesBefore,
                       std::to_string(outcomes->answered.size()) + "/" +
                           std::to_string(names.size()) + " packs");
        }
    }
    bar.done();
    // The worker runs its tasks in order: once this one has run, so have the commits that the
    // installs posted before they answered, and what they installed is on the disk.
    TaskRunner::post([outcomes] {
        std::lock_guard<std::mutex> lock(outcomes->mutex);
        outcomes->settled = true;
        outcomes->changed.notify_all();
    });
    std::unique_lock<std::mutex> lock(outcomes->mutex);
    outcomes->changed.wait_until(lock, deadline, [&outcomes] { return outcomes->settled; });
    std::vector<std::string> problems;
    const FConfigPtr after = SCache::current();
    for (const std::string& name : names) {
        const PackPtr pack = after->find(name);
        const uint64_t seq = pack ? pack->installedSeq : 0;
        JSONObject record{{"name", JSON(name)}, {"seq", JSON(seq)}};
        const auto answer = outcomes->answered.find(name);
        std::string fault;
        if (answer == outcomes->answered.end()) {
            fault = "no answer";
        } else if (answer->second) {
            fault = std::to_string(answer->second.code()) + " " + answer->second.message();
            record.set("failure", errorJson(answer->second));
        } else if (seq != wanted[name]) {
            fault = "version " + std::to_string(wanted[name]) + " was not taken";
        }
        if (fault.empty()) {
            out.text() << "installed " << name << "@" << seq << "\n";
        } else {
            problems.push_back(name + ": " + fault);
        }
        record.set("installed", JSON(fault.empty()));
        out.append("installs", JSON(std::move(record)));
    }
    out.set("downloads", JSON(JSONObject{{"files", JSON(proxy.servedFiles() - filesBefore)},
                                         {"bytes", JSON(proxy.servedBytes() - bytesBefore)}}));
    if (problems.empty()) return kExitSuccess;
    for (size_t i = 1; i < problems.size(); ++i) out.note("not installed: " + problems[i - 1]);
    return out.fail("not installed: " + problems.back());
}

// What one command line asks for.
struct RequestOptions {
    std::string root, assets, publicKey, configFile, configText, referrer, url, served, appKey,
        appVersion, preloadFile, configPrefix, zipPrefix, locale;
    HeaderMap header;
    bool async = false, body = false, events = false, checkPacks = false, startup = false;
    // "status" is the status report and then the inspector's size report.
    bool status = false, inspecting = false;
    std::vector<std::string> positional;
};

// The options that take a value, and where each value goes; those without a field are read by
// takeValue itself.
struct ValueOption {
    const char* name;
    std::string RequestOptions::*field;
};
constexpr ValueOption kValueOptions[] = {
    {"--root", &RequestOptions::root},
    {"--assets", &RequestOptions::assets},
    {"--public-key", &RequestOptions::publicKey},
    {"--config", &RequestOptions::configFile},
    {"--config-json", &RequestOptions::configText},
    {"--referrer", &RequestOptions::referrer},
    {"--serve", &RequestOptions::served},
    {"--app-key", &RequestOptions::appKey},
    {"--app-version", &RequestOptions::appVersion},
    {"--preload", &RequestOptions::preloadFile},
    {"--config-prefix", &RequestOptions::configPrefix},
    {"--zip-prefix", &RequestOptions::zipPrefix},
    {"--locale", &RequestOptions::locale},
    {"--header", nullptr},
    {"--log-level", nullptr},
};

struct FlagOption {
    const char* name;
    bool RequestOptions::*field;
};
constexpr FlagOption kFlagOptions[] = {
    {"--async", &RequestOptions::async},     {"--body", &RequestOptions::body},
    {"--events", &RequestOptions::events},   {"--check", &RequestOptions::checkPacks},
    {"--startup", &RequestOptions::startup},
};

// The exit code of a command that has ended; none while it goes on.
using Outcome = std::optional<int>;

Outcome takeValue(const ValueOption& option, const std::string& value, RequestOptions& o,
                  ToolOutput& out) {
    if (option.field != nullptr) {
        o.*option.field = value;
    } else if (std::string_view(option.name) == "--log-level") {
        MarlLogger::Log::setLevel(std::atoi(value.c_str()));
    } else {
        const size_t colon = value.find(':');
        if (colon == std::string::npos) return out.usage("a header is NAME:VALUE");
        size_t start = colon + 1;
        while (start < value.size() && value[start] == ' ') ++start;
        o.header[value.substr(0, colon)] = value.substr(start);
    }
    return std::nullopt;
}

// What the words after the options name: a URL, or an inspector command and its parameters.
Outcome readPositional(RequestOptions& o, ToolOutput& out) {
    std::vector<std::string>& positional = o.positional;
    o.status = !positional.empty() && positional[0] == "status";
    if (o.status) {
        if (positional.size() != 1) return out.usage("status takes no argument");
        positional.push_back("FerritDev.size");
    }
    o.inspecting = !positional.empty() && (positional[0] == "inspect" || o.status);
    if (o.inspecting) {
        if (positional.size() < 2 || positional.size() > 3)
            return out.usage("inspect takes a command and, optionally, its parameters as JSON");
    } else if (positional.size() > 1) {
        return out.usage("one URL at a time");
    } else if (!positional.empty()) {
        o.url = positional[0];
    }
    if (o.root.empty()) return out.usage("--root is required");
    if (!o.locale.empty() && !o.startup) return out.usage("--locale goes with startup only");
    // Only a host's start makes its root; every other command reports on one that is there.
    std::error_code rootError;
    if (!o.startup && !std::filesystem::is_directory(o.root, rootError))
        return out.fail("no root folder " + o.root +
                        (std::filesystem::exists(o.root, rootError) ? " (not a folder)" : "") +
                        ": this command reads a root and makes none");
    return std::nullopt;
}

Outcome readArguments(int argc, char** argv, RequestOptions& o, ToolOutput& out) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto valued = std::find_if(std::begin(kValueOptions), std::end(kValueOptions),
                                         [&](const ValueOption& v) { return arg == v.name; });
        const auto flag = std::find_if(std::begin(kFlagOptions), std::end(kFlagOptions),
                                       [&](const FlagOption& f) { return arg == f.name; });
        if (valued != std::end(kValueOptions)) {
            if (i + 1 >= argc) return out.usage("missing value after " + arg);
            if (Outcome ended = takeValue(*valued, argv[++i], o, out)) return ended;
        } else if (flag != std::end(kFlagOptions)) {
            o.*flag->field = true;
        } else if (!arg.empty() && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            o.positional.push_back(arg);
        }
    }
    return readPositional(o, out);
}

int runInspect(const RequestOptions& o, ToolOutput& out) {
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    std::shared_ptr<Proxy> proxy = std::make_shared<KeylessProxy>();
    if (!o.publicKey.empty()) {
        std::string reason;
        std::shared_ptr<FerritTools::FileProxy> fileProxy =
            FerritTools::FileProxy::open(o.publicKey, reason);
        if (!fileProxy) return out.fail(reason);
        fileProxy->serveFolder(o.served);
        fileProxy->setPrintEvents(o.events);
        proxy = fileProxy;
    }
    return inspect(out, std::move(proxy), o.root, o.assets, o.appKey, o.appVersion, o.positional[1],
                   o.positional.size() == 3 ? o.positional[2] : std::string(), o.status);
}

// The tools' proxy, serving --serve and verifying with --public-key; none without a key.
Outcome openProxy(const RequestOptions& o, ToolOutput& out,
                  std::shared_ptr<FerritTools::FileProxy>& fileProxy) {
    if (o.publicKey.empty()) {
        out.note("no --public-key: no proxy is set, so no signed list verifies (1106)");
        return std::nullopt;
    }
    std::string reason;
    fileProxy = FerritTools::FileProxy::open(o.publicKey, reason);
    if (!fileProxy) return out.fail(reason);
    fileProxy->setPrintEvents(o.events);
    fileProxy->serveFolder(o.served);
    if (!o.startup) Environment::instance().setProxy(fileProxy);
    return std::nullopt;
}

// The library's own wiring, as setProxy does it, without the configuration's load: the records
// come from --config, or from what a host stored. A check alone only reads: it leaves the folders
// as the host has them (a running host's downloads live in "temp/", which a start empties).
void wireLibrary(const RequestOptions& o) {
    if (o.checkPacks && o.preloadFile.empty()) {
        setRootPath(normalizePath(o.root));
    } else {
        initFolders(o.root);
    }
    Services::wire();
    if (!o.assets.empty()) Services::attachAssets(o.assets);
}

// The configuration of --config or --config-json, parsed; null when neither is given.
Outcome readDocument(RequestOptions& o, ToolOutput& out, JSON& document) {
    if (!o.configFile.empty()) {
        std::ifstream in(o.configFile, std::ios::binary);
        if (!in) return out.fail("cannot read " + o.configFile);
        std::stringstream text;
        text << in.rdbuf();
        o.configText = text.str();
    }
    if (o.configText.empty()) return std::nullopt;
    std::string parseError;
    document = JSON::parse(o.configText, &parseError);
    if (!parseError.empty()) return out.fail("the configuration is not JSON: " + parseError);
    return std::nullopt;
}

// The records of the given document, or those a host stored, and the built-in configuration.
// Only a check fails on what it found; the other commands say it and go on.
Outcome loadConfiguration(const RequestOptions& o, const JSON& document, ToolOutput& out,
                          std::vector<std::string>& problems) {
    if (!o.startup && o.configText.empty() && !loadStored(problems) && o.assets.empty())
        problems.push_back("no stored configuration: a host installed nothing under this root");
    if (!o.checkPacks) {
        for (const std::string& problem : problems) out.note(problem);
        problems.clear();
    }
    std::string reason;
    Error builtinError;
    bool recordsLoaded = true;
    SCache::mutate([&](FConfig& config) {
        if (!o.configText.empty()) recordsLoaded = loadRecords(document, config, reason);
        if (recordsLoaded && !o.assets.empty() && !o.startup)
            builtinError = BuiltinConfig::load(config);
    });
    if (!recordsLoaded) return out.fail(reason);
    // An app may ship no built-in configuration at all.
    if (builtinError && !Errors::isFileMissing(builtinError)) {
        const std::string problem =
            "the built-in configuration does not read: " + std::to_string(builtinError.code()) +
            " " + builtinError.message();
        if (o.checkPacks) {
            problems.push_back(problem);
        } else {
            out.note(problem);
        }
    }
    return std::nullopt;
}

// The host's order: setup (it will call startUpdate itself), the first configuration on the
// worker, then startUpdate, then, with somewhere to download from, every pack's install.
Outcome runStartup(const RequestOptions& o, ToolOutput& out, FerritTools::FileProxy& proxy) {
    // A tree is published for one locale, and the document's address names it.
    if (!o.locale.empty()) Setup::setLocale(o.locale);
    Setup::setup(o.appKey, o.appVersion, SetupMode::kHostStartsUpdate);
    printStatus(out, "setup");
    TaskRunner::runDue();
    JSONArray requested;
    for (const std::string& asked : proxy.requestedUrls()) {
        out.text() << "requested " << asked << "\n";
        requested.push_back(JSON(asked));
    }
    out.set("requested", JSON(std::move(requested)));
    const FConfigPtr fetched = SCache::current();
    out.text() << "configuration version " << fetched->version << " with "
               << fetched->packs().size() << " packs\n";
    out.set("configuration",
            JSON(JSONObject{{"version", JSON(fetched->version)},
                            {"packs", JSON(static_cast<uint64_t>(fetched->packs().size()))}}));
    printStatus(out, "the first configuration");
    Setup::startUpdate();
    TaskRunner::runDue();
    printStatus(out, "startUpdate");
    if (!o.zipPrefix.empty()) {
        // As a host on a network without limits says: downloads wait for one.
        Setup::setNetworkStatus(NetworkStatus::kUnrestricted);
        const int installed = installAll(out, proxy);
        if (installed != kExitSuccess) return installed;
    }
    if (!o.url.empty()) return std::nullopt;
    const JSON errors = Setup::statusReport()["error"];
    if (errors.isNull()) return out.finish();
    return out.fail("start-up left errors: " + errors.toString());
}

Outcome runPreload(const RequestOptions& o, ToolOutput& out) {
    FerritTools::ToolProgress bar("install");
    Preload::Progress progress;
    if (bar.enabled()) {
        progress = [&bar](uint64_t files, uint64_t bytes, uint64_t totalBytes) {
            bar.setTotal(0, totalBytes);
            bar.update(files, bytes);
        };
    }
    const bool installed =
        Preload::instance().install(o.preloadFile, /*checkInstalled=*/true, progress);
    bar.done();
    TaskRunner::runDue();  // the commit of its transaction
    if (!installed) return out.fail("the preload zip " + o.preloadFile + " was not installed");
    out.text() << "preload " << o.preloadFile << " installed\n";
    std::map<std::string, PackPtr> packs(SCache::current()->packs().begin(),
                                         SCache::current()->packs().end());
    JSONArray installedPacks;
    for (const auto& [name, pack] : packs) {
        if (pack->isPacks && pack->isInstalled()) {
            out.text() << "  " << name << "@" << pack->installedSeq << " (" << pack->installedSize
                       << " bytes)\n";
            installedPacks.push_back(JSON(JSONObject{{"name", JSON(name)},
                                                     {"seq", JSON(pack->installedSeq)},
                                                     {"bytes", JSON(pack->installedSize)}}));
        }
    }
    out.set("preload", JSON(JSONObject{{"zip", JSON(o.preloadFile)},
                                       {"packs", JSON(std::move(installedPacks))}}));
    if (o.url.empty() && !o.checkPacks) return out.finish();
    return std::nullopt;
}

int runOneRequest(RequestOptions& o, ToolOutput& out) {
    if (!o.referrer.empty() && o.header.find("Referer") == o.header.end())
        o.header["Referer"] = o.referrer;
    ResourceRequest request(o.url, o.header);
    std::unique_ptr<ResourceResponse> response;
    if (o.async) {
        Access::getResource(request,
                            [&](std::unique_ptr<ResourceResponse> r) { response = std::move(r); });
        if (!response) return out.fail("no answer to " + o.url);
    } else {
        response = Access::getResource(request);
    }
    const int code = report(out, o.url, *response, o.body);
    response->setFinished(Error());
    return code;
}

// Which commands go together, once the arguments are read.
Outcome checkCombination(const RequestOptions& o, ToolOutput& out) {
    if (o.url.empty() && !o.checkPacks && !o.startup && o.preloadFile.empty())
        return out.usage("no URL");
    if (o.startup && (o.served.empty() || o.publicKey.empty()))
        return out.usage("startup needs --serve and --public-key");
    if (!o.preloadFile.empty() && (o.startup || o.assets.empty()))
        return out.usage("--preload needs --assets, and does not go with startup");
    return std::nullopt;
}

}  // namespace

int FerritTools::runRequestTool(int argc, char** argv, ToolOutput& out) {
    MarlLogger::Log::setLevel(1);
    RequestOptions o;
    if (Outcome ended = readArguments(argc, argv, o, out)) return *ended;
    if (!o.configPrefix.empty() || !o.zipPrefix.empty()) {
        // The host's layer, as setDefaultConfigNative gives it.
        HostDefaults defaults;
        defaults.configPrefix = o.configPrefix;
        defaults.zipPrefix = o.zipPrefix;
        Settings::setDefaults(defaults);
    }
    if (o.inspecting) return runInspect(o, out);
    if (Outcome ended = checkCombination(o, out)) return *ended;
    // Background work (visit updates, the configuration's commit) is not run for one request: it
    // needs none of it, and it would write to the root. Start-up runs on the real worker.
    if (!o.startup) TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    std::shared_ptr<FerritTools::FileProxy> fileProxy;
    if (Outcome ended = openProxy(o, out, fileProxy)) return *ended;
    if (o.startup) printStatus(out, "loading");
    if (!o.startup) wireLibrary(o);
    JSON document;
    if (Outcome ended = readDocument(o, out, document)) return *ended;
    if (o.startup) {
        // Folders, then the stored and the built-in configuration.
        Setup::setProxy(fileProxy, o.root, o.assets);
        printStatus(out, "setProxy");
    }
    std::vector<std::string> problems;
    if (Outcome ended = loadConfiguration(o, document, out, problems)) return *ended;
    if (o.startup)
        if (Outcome ended = runStartup(o, out, *fileProxy)) return *ended;
    if (!o.preloadFile.empty())
        if (Outcome ended = runPreload(o, out)) return *ended;
    if (o.checkPacks) return check(out, o.root, std::move(problems));
    return runOneRequest(o, out);
}
