// ResponseMemory: memory that the receiver of a synchronous response provides for its bytes, so
// that a hit is read straight into the place where the receiver keeps them (a script engine's own
// buffer, which the engine frees by itself) instead of into the response and then copied. Used on
// the calling thread only, for the length of one call.
#pragma once

#include <cstddef>
#include <memory>

#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"

namespace FerritCore {

class ResponseMemory {
  public:
    virtual ~ResponseMemory() = default;

    // `size` bytes that the receiver owns, or null when it cannot give them; the read then goes to
    // the response's data as usual. A read that fails after this call leaves the memory unused.
    virtual char* allocate(size_t size) = 0;

    // After the call: whether the response's bytes are the `filledSize()` bytes at `filledData()`
    // (the last allocation; the response's data is then empty). False: whatever bytes there are,
    // are in its data.
    bool filled() const { return filledData_ != nullptr; }
    const char* filledData() const { return filledData_; }
    size_t filledSize() const { return filledSize_; }
    // The read says where the bytes went.
    void setFilled(const char* data, size_t size) {
        filledData_ = data;
        filledSize_ = size;
    }

  private:
    const char* filledData_ = nullptr;
    size_t filledSize_ = 0;
};

// Access::getResource, synchronous, with the bytes of a one-file answer read into `memory`.
// Answers that are not one pack file (aggregates, module caches, failures) come as before.
std::unique_ptr<ResourceResponse> getResourceInto(const ResourceRequest& request,
                                                  ResponseMemory& memory);

}  // namespace FerritCore
