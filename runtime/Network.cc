#include "runtime/Network.h"

#include <atomic>
#include <charconv>
#include <memory>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/Proxy.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"

namespace FerritCore::Network {
namespace {

constexpr int32_t kConfigTimeout = 10;
constexpr int32_t kResourceTimeout = 20;
constexpr int32_t kPackTimeout = 20;

bool isSuccess(uint16_t status) {
    return status >= 200 && status <= 299;
}

// A header is sent only with a value.
void addHeader(HeaderMap& header, const char* name, const std::string& value) {
    if (!value.empty()) header[name] = value;
}

Error transportFailure(const std::string& url, const Error& inner) {
    return Errors::requestFailed(url, inner.code(), inner.message());
}

// One request's completion, which runs exactly once: on the host's answer or at the deadline,
// whichever comes first. The other finds it taken and does nothing, so a late answer is dropped
// and a host that answers twice is heard once. Shared by the proxy's callback and the deadline
// task; whatever the completion holds lives until one of them has run it.
template <typename... Args>
class Once {
  public:
    explicit Once(std::function<void(Args...)> completion) : completion_(std::move(completion)) {}

    // The completion for the first caller; empty for every later one. The deadline of a request
    // answered in time is cancelled here.
    std::function<void(Args...)> take() {
        if (taken_.exchange(true, std::memory_order_acq_rel)) return {};
        TaskRunner::cancel(deadline_.load(std::memory_order_acquire));
        return std::move(completion_);
    }

    // Posts to the worker the task that ends the request with 1003 after `deadlineMs`, unless an
    // answer came first. `expire` gets the completion and the error.
    template <typename Expire>
    static void arm(const std::shared_ptr<Once>& once, const std::string& url, double deadlineMs,
                    Expire expire) {
        const TaskId id = TaskRunner::post(
            [once, url, deadlineMs, expire = std::move(expire)] {
                std::function<void(Args...)> completion = once->takeAtDeadline();
                if (completion) expire(completion, Errors::requestTimedOut(url, deadlineMs));
            },
            deadlineMs);
        once->deadline_.store(id, std::memory_order_release);
    }

  private:
    std::function<void(Args...)> takeAtDeadline() {
        if (taken_.exchange(true, std::memory_order_acq_rel)) return {};
        return std::move(completion_);
    }

    std::atomic<bool> taken_{false};
    std::atomic<TaskId> deadline_{0};
    std::function<void(Args...)> completion_;  // moved out by the one caller that takes it
};

// Bits 14 and 15 of a pack's flags: the pack may download on a slow or a fast mobile network.
constexpr uint64_t kAllowSlowMobileMask = 0x4000;
constexpr uint64_t kAllowFastMobileMask = 0x8000;

}  // namespace

void requestConfig(const std::string& url, const std::string& traceId,
                   std::function<void(std::string content, Error error)> completion) {
    if (!completion) return;
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    if (url.empty() || !proxy) {
        completion(std::string(),
                   url.empty() ? Errors::requestInvalidUrl(url) : Errors::proxyNotInitialized());
        return;
    }
    ProxyRequest request;
    request.url = url;
    request.timeout = kConfigTimeout;
    request.traceId = traceId;
    addHeader(request.header, "f-refer", kReferConfig);
    addHeader(request.header, "Referer", Environment::instance().referer());
    const std::shared_ptr<const Settings> settings = Settings::current();
    const uint64_t maxSize = settings->configMaxSizeValue();
    using ConfigOnce = Once<std::string, Error>;
    auto once = std::make_shared<ConfigOnce>(std::move(completion));
    // The deadline runs on the worker, where the answer would have been posted.
    ConfigOnce::arm(once, url, settings->configRequestDeadlineValue(),
                    [](const std::function<void(std::string, Error)>& done, Error error) {
                        done(std::string(), std::move(error));
                    });
    proxy->sendRequest(request, [url, maxSize, once](ProxyResponse response, Error error) {
        std::function<void(std::string, Error)> completion = once->take();
        if (!completion) return;  // answered after its deadline, or a second time
        std::string content;
        if (error) {
            error = transportFailure(url, error);
        } else if (isSuccess(response.statusCode)) {
            if (response.content.empty()) {
                error = Errors::requestNoData(url);
            } else if (response.content.size() > maxSize) {
                // Parsing takes several times the document's size in memory.
                error =
                    Errors::requestTooLarge(url, response.content.size(), maxSize, "configMaxSize");
            } else if (response.content == "{}") {
                // The phase tells a refusal at start-up apart from a refusal later on.
                error = Errors::serverError(url, static_cast<int>(Environment::instance().flags()));
            } else {
                content = std::move(response.content);
            }
        } else {
            error = Errors::requestInvalidStatus(url, response.statusCode);
        }
        // Never on the host's thread: the worker takes it from here.
        TaskRunner::post(
            [completion, content = std::move(content), error = std::move(error)]() mutable {
                completion(std::move(content), std::move(error));
            });
    });
}

void requestResource(const std::string& url, const std::string& traceId, const HeaderMap& header,
                     bool allow304,
                     std::function<void(ProxyResponse response, Error error)> completion) {
    if (!completion) return;
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    if (url.empty() || !proxy) {
        completion(ProxyResponse(),
                   url.empty() ? Errors::requestInvalidUrl(url) : Errors::proxyNotInitialized());
        return;
    }
    ProxyRequest request;
    request.url = url;
    request.timeout = kResourceTimeout;
    request.traceId = traceId;
    request.header = header;
    request.wantHeaders = true;
    if (Http::headerValue(request.header, "f-refer").empty())
        addHeader(request.header, "f-refer", kReferResource);
    using ResourceOnce = Once<ProxyResponse, Error>;
    auto once = std::make_shared<ResourceOnce>(std::move(completion));
    ResourceOnce::arm(once, url, Settings::current()->resourceRequestDeadlineValue(),
                      [](const std::function<void(ProxyResponse, Error)>& done, Error error) {
                          done(ProxyResponse(), std::move(error));
                      });
    proxy->sendRequest(request, [url, allow304, once](ProxyResponse response, Error error) {
        std::function<void(ProxyResponse, Error)> completion = once->take();
        if (!completion) return;  // answered after its deadline, or a second time
        if (error) {
            completion(ProxyResponse(), transportFailure(url, error));
        } else if (isSuccess(response.statusCode)) {
            if (response.content.empty()) {
                completion(ProxyResponse(), Errors::requestNoData(url));
            } else {
                completion(std::move(response), Error());
            }
        } else if (response.statusCode == 304 && allow304) {
            completion(std::move(response), Error());
        } else {
            completion(ProxyResponse(), Errors::requestInvalidStatus(url, response.statusCode));
        }
    });
}

void requestPack(const std::string& url, const Folder& target, const std::string& traceId,
                 uint32_t progressId,
                 std::function<void(uint64_t length, Error error)> completion) {
    if (!completion) return;
    std::shared_ptr<Proxy> proxy = Environment::instance().proxy();
    if (url.empty() || !proxy) {
        Error error = url.empty() ? Errors::requestInvalidUrl(url) : Errors::proxyNotInitialized();
        TaskRunner::post([completion = std::move(completion), error = std::move(error)] {
            completion(0, error);
        });
        return;
    }
    ProxyRequest request;
    request.url = url;
    request.timeout = kPackTimeout;
    request.tempFilePath = target.absolute();
    request.traceId = traceId;
    request.progressId = progressId;
    addHeader(request.header, "f-refer", kReferZip);
    addHeader(request.header, "Referer", Environment::instance().referer());
    using PackOnce = Once<uint64_t, Error>;
    auto once = std::make_shared<PackOnce>(std::move(completion));
    // A host that answers late may still write the file; the caller's next run of the pack
    // empties its folder before it downloads again.
    PackOnce::arm(once, url, Settings::current()->packRequestDeadlineValue(),
                  [](const std::function<void(uint64_t, Error)>& done, Error error) {
                      done(0, std::move(error));
                  });
    proxy->sendRequest(request, [url, target, once](ProxyResponse response, Error error) {
        std::function<void(uint64_t, Error)> completion = once->take();
        if (!completion) return;  // answered after its deadline, or a second time
        uint64_t length = 0;
        if (error) {
            error = transportFailure(url, error);
        } else if (!isSuccess(response.statusCode)) {
            error = Errors::requestInvalidStatus(url, response.statusCode);
        } else if (!target.exists()) {
            error = Errors::requestNoData(url);
        } else {
            const std::string_view text = Http::headerValue(response.header, "Content-Length");
            uint64_t parsed = 0;
            const auto result = std::from_chars(text.data(), text.data() + text.size(), parsed);
            if (result.ec == std::errc() && result.ptr == text.data() + text.size())
                length = parsed;
        }
        TaskRunner::post(
            [completion, length, error = std::move(error)] { completion(length, error); });
    });
}

bool downloadAllowed(uint64_t packFlags, std::string& reason) {
    reason.clear();
    switch (Environment::instance().networkStatus()) {
        case NetworkStatus::kNone:
            reason = "None";
            return false;
        case NetworkStatus::kUnrestricted:
            return true;
        case NetworkStatus::kSlowMobile:
            if ((packFlags & kAllowSlowMobileMask) != 0) return true;
            reason = "Slow cellular";
            return false;
        case NetworkStatus::kFastMobile:
            if ((packFlags & kAllowFastMobileMask) != 0) return true;
            reason = "Fast cellular";
            return false;
        default:
            return false;
    }
}

}  // namespace FerritCore::Network
