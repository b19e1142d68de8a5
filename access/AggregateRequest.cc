#include "access/AggregateRequest.h"

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Http.h"
#include "base/LogTags.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/Network.h"

namespace FerritCore {
namespace {

// A batch is full when twice its URLs plus this exceed the rule's limit.
constexpr size_t kLimitReserve = 2;
// The guard file is named by one of 23 letters from "a".
constexpr uint32_t kGuardLetters = 23;

MarlLogger::json::JSON headerJSON(const HeaderMap& header) {
    MarlLogger::json::JSONObject object;
    for (const auto& [name, value] : header) object.set(name, MarlLogger::json::JSON(value));
    return MarlLogger::json::JSON(std::move(object));
}

}  // namespace

AggregateRequest::AggregateRequest(const ComboRule& rule, std::string parentId)
    : rule_(rule), parentId_(std::move(parentId)), crc_(0) {}

bool AggregateRequest::add(std::string url) {
    crc_ = Digest::crc32(crc_, url);
    urls_.push_back(std::move(url));
    return urls_.size() * 2 + kLimitReserve > rule_.limit;
}

std::string AggregateRequest::requestUrl(std::string_view origin) const {
    std::string url(origin);
    if (urls_.size() == 1) {
        url.append(Url::pathPart(urls_.front()));
        return url;
    }
    url.append("??");
    for (const std::string& one : urls_) {
        url.append(Url::pathPart(one));
        url.push_back(',');
    }
    // The guard file: a name that no file of the batch has, so that the answer's last piece is
    // known to be nobody's.
    url.append(rule_.path);
    url.push_back(static_cast<char>('a' + crc_ % kGuardLetters));
    url.append(rule_.suffix);
    return url;
}

Error AggregateRequest::splitAnswer(std::string_view body, size_t expected,
                                    std::vector<std::string>& pieces) {
    pieces.clear();
    std::vector<std::string_view> found;
    for (;;) {
        const size_t separator = body.find(kSeparator);
        found.push_back(body.substr(0, separator));
        if (separator == std::string_view::npos) break;
        body.remove_prefix(separator + kSeparator.size());
    }
    if (found.size() - 1 != expected) {
        return Errors::aggregateVerifyCount(static_cast<int>(found.size() - 1),
                                            static_cast<int>(expected));
    }
    pieces.reserve(expected);
    for (size_t i = 0; i < expected; ++i) pieces.emplace_back(found[i]);
    return Error();
}

void AggregateRequest::send(std::string_view origin, Callback callback) {
    if (!callback) return;
    url_ = requestUrl(origin);
    Network::requestResource(
        url_, parentId_, HeaderMap(), /*allow304=*/false,
        [url = url_, count = urls_.size(), callback = std::move(callback)](ProxyResponse response,
                                                                           Error error) {
            if (error) {
                callback(HeaderMap(), {}, std::move(error));
                return;
            }
            std::vector<std::string> pieces;
            if (count == 1) {
                pieces.push_back(std::move(response.content));
            } else {
                error = splitAnswer(response.content, count, pieces);
                if (error) {
                    callback(HeaderMap(), {}, std::move(error));
                    return;
                }
                Http::removeHeader(response.header, Http::headerName(Http::kContentMD5));
                Http::removeHeader(response.header, Http::headerName(Http::kETag));
            }
            const unsigned long long expires = Http::parseExpires(response.header);
            if (!(static_cast<double>(expires) > MRLCurrentTime())) {
                MarlLogger::LogBuilder log(MarlLogger::MRLLevelInfo, LogTag::kAggregateRequest);
                if (log.active()) {
                    log.event("expired")
                        .append("url", url)
                        .append("expires", static_cast<uint64_t>(expires))
                        .append("header", headerJSON(response.header));
                }
            }
            callback(std::move(response.header), std::move(pieces), Error());
        });
}

}  // namespace FerritCore
