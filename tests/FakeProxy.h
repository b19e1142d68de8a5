// The one Proxy of the tests: serves answers from memory by URL and records every request, can
// fail, hold answers back until released, answer any status or answer twice; signs and verifies
// with a test key (the signature of an MD5 is "test-key:" followed by it); records every
// performance record and every pack the host is told was updated; answers on-demand loads at once;
// serves raw files from memory. Thread-safe
// where the system calls it; the test reads the recorded values once the calls are done.
#pragma once

#include <openssl/evp.h>

#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "base/Digest.h"
#include "base/Ed25519PublicKey.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Proxy.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"

namespace FerritTest {

class FakeProxy : public FerritCore::Proxy {
  public:
    struct Answer {
        uint16_t status = 200;
        std::string body;
        FerritCore::HeaderMap header;
        FerritCore::Error transportError;  // set: the transport failed
        bool hold = false;                 // kept until release()
        bool never = false;                // never answered
        bool twice = false;                // answered two times
    };
    // A performance record as it was sent.
    struct Record {
        std::string name;
        std::unordered_map<std::string, std::string> dimensions;
        std::unordered_map<std::string, double> measures;
    };

    // ---- The test key.

    // What the test key signs for an MD5 text.
    static std::string signatureOf(const std::string& md5Hex) { return "test-key:" + md5Hex; }
    static std::string base64(std::string_view bytes) {
        std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
        const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                      reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int>(bytes.size()));
        out.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return out;
    }
    // A signed document as a configuration endpoint delivers it: "<json>||<base64 signature>".
    static std::string sign(const std::string& json) {
        return json + "||" + base64(signatureOf(FerritCore::Digest::md5Hex(json)));
    }
    // A signed resource list as a pack carries it: "<json>||<token>|<base64 signature>".
    static std::string signIndex(const std::string& json) {
        return json + "||token|" + base64(signatureOf(FerritCore::Digest::md5Hex(json)));
    }

    // ---- Requests.

    // The answer for a URL; requests to unknown URLs get 404.
    void serve(const std::string& url, Answer answer) {
        std::lock_guard<std::mutex> lock(mutex_);
        answers_[url] = std::move(answer);
    }
    void serve(const std::string& url, uint16_t status, std::string body) {
        Answer answer;
        answer.status = status;
        answer.body = std::move(body);
        serve(url, std::move(answer));
    }

    void sendRequest(const FerritCore::ProxyRequest& request,
                     FerritCore::ProxyCompletion completion) override {
        Answer answer;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests.push_back(request);
            auto it = answers_.find(request.url);
            if (it == answers_.end()) {
                answer.status = 404;
            } else {
                answer = it->second;
            }
            if (answer.never) return;
            if (answer.hold) {
                held_.emplace_back(request, answer, std::move(completion));
                return;
            }
        }
        deliver(request, answer, completion);
    }

    // Answers every held request, in order; returns how many.
    size_t release() {
        std::deque<std::tuple<FerritCore::ProxyRequest, Answer, FerritCore::ProxyCompletion>> held;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            held.swap(held_);
        }
        for (auto& [request, answer, completion] : held) deliver(request, answer, completion);
        return held.size();
    }

    // ---- Signatures, records, push, modules.

    bool verifySignature(const std::string& md5Hex, const std::string& signature) override {
        std::lock_guard<std::mutex> lock(mutex_);
        verified.push_back(md5Hex);
        if (checksNothing) return true;
        if (hostKey) return acceptSignatures && hostKey->verify(md5Hex, signature);
        return acceptSignatures && signature == signatureOf(md5Hex);
    }
    // Set: the proxy is a host that checks with this Ed25519 key and names it, as a script host
    // does, instead of the test key.
    std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey() const override {
        return hostKey;
    }
    // Set: the proxy is a host that opened without a key and takes every signature.
    bool checksSignatures() const override { return !checksNothing; }
    void sendEvent(const FerritCore::PerfRecord& record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events.push_back(record.name());
        records.push_back({record.name(), record.dimensions(), record.measures()});
    }
    // The names of `dimensions` and `measures` that `record` lacks, each prefixed with "d:" or
    // "m:"; empty when the record carries them all.
    static std::vector<std::string> missingFields(const Record& record,
                                                  const std::vector<std::string>& dimensions,
                                                  const std::vector<std::string>& measures) {
        std::vector<std::string> missing;
        for (const std::string& name : dimensions)
            if (record.dimensions.count(name) == 0) missing.push_back("d:" + name);
        for (const std::string& name : measures)
            if (record.measures.count(name) == 0) missing.push_back("m:" + name);
        return missing;
    }
    // The records of one name, in the order they were sent.
    std::vector<Record> named(const std::string& name) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Record> found;
        for (const Record& record : records) {
            if (record.name == name) found.push_back(record);
        }
        return found;
    }
    void clearRecords() {
        std::lock_guard<std::mutex> lock(mutex_);
        events.clear();
        records.clear();
    }
    void onPackUpdated(const std::string& name) override {
        std::lock_guard<std::mutex> lock(mutex_);
        updatedPacks.push_back(name);
    }
    void onQueueFinished(uint32_t count) override {
        std::lock_guard<std::mutex> lock(mutex_);
        queueFinished.push_back(count);
    }
    // What the status looked like at each change the host was told of: the setup flags and
    // whether the storage was writable.
    struct StateChange {
        uint32_t flags = 0;
        bool writable = true;
    };
    void onStateChanged() override {
        const StateChange change{FerritCore::Environment::instance().flags(),
                                 FerritCore::StorageState::writable()};
        std::lock_guard<std::mutex> lock(mutex_);
        stateChanges.push_back(change);
    }
    std::vector<StateChange> stateChangesSoFar() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return stateChanges;
    }
    bool registerPushTopic(const std::string& topic,
                           std::function<void(const std::string&)> handler) override {
        std::lock_guard<std::mutex> lock(mutex_);
        topics.push_back(topic);
        if (pushSupported) pushHandlers[topic] = std::move(handler);
        return pushSupported;
    }
    void loadOnDemand(const std::string& tag,
                      std::function<void(const FerritCore::Error&)> completion) override {
        FerritCore::Error error;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            loads.push_back(tag);
            if (holdLoads) {
                heldLoads_.push_back(std::move(completion));
                return;
            }
            error = loadError;
        }
        if (completion) completion(error);
    }
    // Completes every held load with `loadError`; returns how many.
    size_t releaseLoads() {
        std::vector<std::function<void(const FerritCore::Error&)>> held;
        FerritCore::Error error;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            held.swap(heldLoads_);
            error = loadError;
        }
        for (auto& completion : held) {
            if (completion) completion(error);
        }
        return held.size();
    }

    // ---- Raw files, from `assets` (path -> content); a path ending in "/" is a directory that
    // exists when some asset lies below it.

    bool assetExists(const std::string& path) override {
        if (!path.empty() && path.back() == '/') return !assetList(path).empty();
        return assets.count(path) != 0;
    }
    std::vector<std::string> assetList(const std::string& path) override {
        std::vector<std::string> names;
        for (const auto& [asset, content] : assets) {
            if (!asset.starts_with(path) || asset.size() == path.size()) continue;
            const std::string rest = asset.substr(path.size());
            const size_t slash = rest.find('/');
            const std::string name = slash == std::string::npos ? rest : rest.substr(0, slash + 1);
            if (names.empty() || names.back() != name) names.push_back(name);
        }
        return names;
    }
    uint64_t assetSize(const std::string& path) override {
        auto it = assets.find(path);
        return it == assets.end() ? 0 : it->second.size();
    }
    std::string assetRead(const std::string& path, FerritCore::Error& error) override {
        auto it = assets.find(path);
        if (it == assets.end()) return Proxy::assetRead(path, error);
        error.clear();
        return it->second;
    }

    // Settings of the fake.
    bool acceptSignatures = true;
    bool checksNothing = false;  // set before use
    bool pushSupported = true;
    FerritCore::Error loadError;  // what every on-demand load completes with
    bool holdLoads = false;       // keep on-demand loads until releaseLoads()
    std::map<std::string, std::string> assets;

    // What the system did.
    std::vector<FerritCore::ProxyRequest> requests;
    std::shared_ptr<const FerritCore::Ed25519PublicKey> hostKey;  // set before use
    std::vector<std::string> verified;  // the MD5 of every signature check, in order
    std::vector<std::string> events;    // the name of every record, in order
    std::vector<Record> records;
    std::vector<std::string> topics;
    std::map<std::string, std::function<void(const std::string&)>> pushHandlers;
    std::vector<std::string> loads;
    std::vector<std::string> updatedPacks;  // every onPackUpdated, in order
    std::vector<uint32_t> queueFinished;    // the count of every onQueueFinished, in order
    std::vector<StateChange> stateChanges;  // every onStateChanged, in order

  private:
    static void deliver(const FerritCore::ProxyRequest& request, const Answer& answer,
                        const FerritCore::ProxyCompletion& completion) {
        for (int i = 0; i < (answer.twice ? 2 : 1); ++i) {
            FerritCore::ProxyResponse response;
            response.statusCode = answer.status;
            response.header = answer.header;
            if (request.tempFilePath.empty()) {
                response.content = answer.body;
            } else if (!answer.transportError && answer.status >= 200 && answer.status <= 299 &&
                       !answer.body.empty()) {
                std::ofstream(request.tempFilePath, std::ios::binary) << answer.body;
            }
            completion(std::move(response), answer.transportError);
        }
    }

    mutable std::mutex mutex_;
    std::map<std::string, Answer> answers_;  // guarded by mutex_
    std::deque<std::tuple<FerritCore::ProxyRequest, Answer, FerritCore::ProxyCompletion>>
        held_;                                                              // guarded by mutex_
    std::vector<std::function<void(const FerritCore::Error&)>> heldLoads_;  // guarded by mutex_
};

}  // namespace FerritTest
