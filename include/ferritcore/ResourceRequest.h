// ResourceRequest: what the host asks for. A plain value owned by the caller; not thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "ferritcore/Export.h"

namespace FerritCore {

using HeaderMap = std::unordered_map<std::string, std::string>;

// ResourceType: 1 names a UniApp pack; anything else is the default.
constexpr int32_t kResourceTypeUniApp = 1;

class FERRIT_EXPORT ResourceRequest {
  public:
    ResourceRequest(const std::string& url, const std::string& referrer);
    // `referrer` is the "Referer" header (name compared without case). The entries "ETag" and
    // "Last-Modified" are dropped from the copy of `header`; nothing downstream may rely on them.
    ResourceRequest(const std::string& url, const HeaderMap& header);

    const HeaderMap& header() const { return header_; }
    // True only when `type` is 1 and both the pack name and version are given.
    bool isUniApp() const;

    std::string url;
    std::string referrer;
    std::string parentId;
    int32_t type = 0;
    std::string packName;
    std::string packVersion;

  private:
    HeaderMap header_;
};

}  // namespace FerritCore
