// A Proxy for tests: serves answers from memory by URL, records every request, can fail, hold
// answers back until released, answer any status or answer twice, and signs and verifies with a
// test key (the signature of an MD5 is "test-key:" followed by it).
#pragma once

#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "access/Digest.h"
#include "runtime/Proxy.h"
#include "runtime/Telemetry.h"

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

    // A signed document as a configuration endpoint delivers it: "<json>||<base64 signature>".
    static std::string sign(const std::string& json) {
        const std::string signature = "test-key:" + FerritCore::Digest::md5Hex(json);
        return json + "||" + base64(signature);
    }
    static std::string base64(const std::string& bytes) {
        static const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string out;
        for (size_t i = 0; i < bytes.size(); i += 3) {
            uint32_t n = static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << 16;
            if (i + 1 < bytes.size()) n |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[i + 1])) << 8;
            if (i + 2 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 2]);
            out += kAlphabet[(n >> 18) & 63];
            out += kAlphabet[(n >> 12) & 63];
            out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
            out += i + 2 < bytes.size() ? kAlphabet[n & 63] : '=';
        }
        return out;
    }

    void sendRequest(const FerritCore::ProxyRequest& request, FerritCore::ProxyCompletion completion) override {
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

    bool verifySignature(const std::string& md5Hex, const std::string& signature) override {
        std::lock_guard<std::mutex> lock(mutex_);
        verified.push_back(md5Hex);
        return signature == "test-key:" + md5Hex;
    }
    void sendEvent(const FerritCore::PerfRecord& record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events.push_back(record.name());
    }
    bool registerPushTopic(const std::string& topic, std::function<void(const std::string&)> handler) override {
        std::lock_guard<std::mutex> lock(mutex_);
        topics.push_back(topic);
        if (pushSupported) pushHandlers[topic] = std::move(handler);
        return pushSupported;
    }

    bool pushSupported = true;
    std::vector<std::string> topics;
    std::map<std::string, std::function<void(const std::string&)>> pushHandlers;

    std::vector<FerritCore::ProxyRequest> requests;
    std::vector<std::string> verified;
    std::vector<std::string> events;

private:
    static void deliver(const FerritCore::ProxyRequest& request, const Answer& answer,
                        const FerritCore::ProxyCompletion& completion) {
        for (int i = 0; i < (answer.twice ? 2 : 1); ++i) {
            FerritCore::ProxyResponse response;
            response.statusCode = answer.status;
            response.header = answer.header;
            if (request.tempFilePath.empty()) {
                response.content = answer.body;
            } else if (!answer.transportError && answer.status >= 200 && answer.status <= 299 && !answer.body.empty()) {
                std::ofstream(request.tempFilePath, std::ios::binary) << answer.body;
            }
            completion(std::move(response), answer.transportError);
        }
    }

    std::mutex mutex_;
    std::map<std::string, Answer> answers_;  // guarded by mutex_
    std::deque<std::tuple<FerritCore::ProxyRequest, Answer, FerritCore::ProxyCompletion>> held_;  // guarded by mutex_
};

}  // namespace FerritTest
