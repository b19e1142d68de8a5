// The C interface of include/ferritcore/AccessApi.h over Access::getResource. A FerritResponse is
// the ResourceResponse itself, so that the body handed out is the response's own bytes.
#include "ferritcore/AccessApi.h"

#include <strings.h>

#include <memory>
#include <string>

#include "base/Errors.h"
#include "ferritcore/Access.h"

struct FerritRequest {
    std::string url;
    FerritCore::HeaderMap header;
    std::string referrer;
    bool hasReferrer = false;  // an explicit referrer wins over the "Referer" header
};

namespace FerritCore {
namespace {

ResourceResponse* unwrap(FerritResponse* response) {
    return reinterpret_cast<ResourceResponse*>(response);
}
const ResourceResponse* unwrap(const FerritResponse* response) {
    return reinterpret_cast<const ResourceResponse*>(response);
}

FerritRequest* createRequest(const char* url) {
    auto* request = new FerritRequest();
    if (url != nullptr) request->url = url;
    return request;
}

void addRequestHeader(FerritRequest* request, const char* name, const char* value) {
    if (request == nullptr || name == nullptr || value == nullptr) return;
    request->header[name] = value;
}

void setRequestReferrer(FerritRequest* request, const char* referrer) {
    if (request == nullptr || referrer == nullptr) return;
    request->referrer = referrer;
    request->hasReferrer = true;
}

void freeRequest(FerritRequest* request) {
    delete request;
}

FerritResponse* getResource(const FerritRequest* request) {
    std::unique_ptr<ResourceResponse> response;
    if (request == nullptr) {
        response = std::make_unique<ResourceResponse>(Errors::notFerritResourceRef());
    } else {
        ResourceRequest resourceRequest(request->url, request->header);
        if (request->hasReferrer) resourceRequest.referrer = request->referrer;
        response = Access::getResource(resourceRequest);
    }
    return reinterpret_cast<FerritResponse*>(response.release());
}

int getResponseError(const FerritResponse* response, int32_t* code, const char** message) {
    if (response == nullptr) {
        // One shared value, so that the message outlives the call.
        static const Error* const kNull = new Error(Errors::responseIsNull());
        if (code != nullptr) *code = kNull->code();
        if (message != nullptr) *message = kNull->message().c_str();
        return 1;
    }
    const Error& error = unwrap(response)->error;
    if (code != nullptr) *code = error.code();
    if (message != nullptr) *message = error.message().c_str();
    return error ? 1 : 0;
}

const char* getResponseHeader(const FerritResponse* response, const char* name) {
    if (response == nullptr || name == nullptr) return nullptr;
    for (const auto& [key, value] : unwrap(response)->header) {
        if (::strcasecmp(key.c_str(), name) == 0) return value.c_str();
    }
    return nullptr;
}

int getResponseData(const FerritResponse* response, const void** data, size_t* size) {
    if (response == nullptr || unwrap(response)->error) {
        if (data != nullptr) *data = nullptr;
        if (size != nullptr) *size = 0;
        return 0;
    }
    const std::string& body = unwrap(response)->data;
    if (data != nullptr) *data = body.data();
    if (size != nullptr) *size = body.size();
    return 1;
}

void freeResponse(FerritResponse* response) {
    if (response == nullptr) return;
    ResourceResponse* owned = unwrap(response);
    owned->setFinished(Error());
    delete owned;
}

constexpr FerritAccessApi kTable = {
    createRequest,    addRequestHeader,  setRequestReferrer, freeRequest,  getResource,
    getResponseError, getResponseHeader, getResponseData,    freeResponse, nullptr,
};

// The order and the terminator are what callers index by.
static_assert(sizeof(FerritAccessApi) == 10 * sizeof(void*), "nine functions and the end");
static_assert(offsetof(FerritAccessApi, end) == 9 * sizeof(void*), "the end comes last");

}  // namespace
}  // namespace FerritCore

const FerritAccessApi* ferritcore_access_api(void) {
    return &FerritCore::kTable;
}
