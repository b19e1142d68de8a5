// ResourceResponse: what goes back to the host, as an exclusively owned pointer.
// Not thread-safe; belongs to its receiver.
#pragma once

#include <memory>
#include <string>

#include "ferritcore/Error.h"
#include "ferritcore/Export.h"
#include "ferritcore/ResourceRequest.h"

namespace FerritCore {

class Resource;

class FERRIT_EXPORT ResourceResponse {
  public:
    // Success, and also the form used when the read already failed: the error and is404 are
    // the resource's.
    ResourceResponse(std::shared_ptr<Resource> resource, const std::string& data);
    ResourceResponse(std::shared_ptr<Resource> resource, std::string&& data);
    // Failure with an explicit error; data stays empty.
    ResourceResponse(std::shared_ptr<Resource> resource, Error error, bool is404);
    // Failure before any Resource existed: "X-Ferrit-Info" is ",0," and the code.
    explicit ResourceResponse(Error error);
    // A response released before setFinished was called ends its request here, as setFinished
    // would have, without the log event.
    ~ResourceResponse();

    ResourceResponse(const ResourceResponse&) = delete;
    ResourceResponse& operator=(const ResourceResponse&) = delete;

    // The host calls this once after consuming the response, with the error of that last step.
    // Does nothing without a Resource; otherwise stamps the finish time, logs "finish" and ends
    // the request: its performance records go out then, once (a later call only logs).
    void setFinished(Error error);

    std::string data;
    std::string md5;
    HeaderMap header;
    Error error;
    bool is404 = false;
    std::shared_ptr<Resource> resource;
};

}  // namespace FerritCore
