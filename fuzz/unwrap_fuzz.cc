// Arbitrary bytes as a downloaded wrapped payload, unwrapped with the key of seq 7 (the seeds are
// wrapped with it). Nothing may crash; a failure is 2301; a success leaves the zip, never longer
// than the file, with its MD5 in the context.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/Digest.h"
#include "base/Errors.h"
#include "model/Pack.h"
#include "update/WrappedPayload.h"

using namespace FerritCore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::shared_ptr<const Pack> pack = [] {
        auto made = std::make_shared<Pack>();
        made->name = "fuzz";
        made->seq = 7;
        return made;
    }();
    std::string bytes(reinterpret_cast<const char*>(data), size);
    UnwrapContext context;
    context.pack = pack;
    context.kind = kWrappedPayloadKind;
    context.file = Folder::disk("temp/fuzz_7_0/origin.zip");
    Error error;
    if (unwrap(context, bytes, error)) {
        if (error || bytes.size() > size || context.md5 != Digest::md5Hex(bytes)) std::abort();
    } else if (error.code() != Errors::kDecryptFailed) {
        std::abort();
    }
    return 0;
}
