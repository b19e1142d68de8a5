// The wrapped payload: a pack zip served as an ordinary PNG image whose IEND chunk carries it
// (the scheme is named "Type-A" in messages). unwrap() is a pure function over its arguments;
// any thread, one context per download.
//
// Layout of a wrapped file, all integers big-endian, N the first occurrence of "IEND":
//   N - 4   4       L, the length of the chunk's data, at least 16
//   N       4       "IEND"
//   N + 4   16      the MD5 of the plain zip, raw bytes
//   N + 20  L - 16  the zip, each byte combined by exclusive-or with the low 8 bits of the seq
//   N+4+L   4       CRC-32 of the L + 4 bytes from N, as in any PNG chunk
// Whatever lies before N is the image and is never parsed; whatever follows the CRC is ignored.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "model/Pack.h"

namespace FerritCore {

// The payload kind of a wrapped download: the pack flags' payload bits (value 65536) as they are
// masked with 196608. Any other kind is a plain zip.
inline constexpr uint32_t kWrappedPayloadKind = 65536;

// One download's unwrapping.
struct UnwrapContext {
    std::shared_ptr<const Pack> pack;  // its seq gives the key byte
    uint32_t kind = 0;                 // 0 or kWrappedPayloadKind
    std::string md5;                   // filled by unwrap: the zip's lower-case hexadecimal MD5
    Folder file;                       // the downloaded file, named in messages
};

// `data` holds the whole downloaded file. With a kind other than kWrappedPayloadKind nothing is
// done and the result is true. Otherwise the zip is written over the start of `data` in one
// in-place pass, `data` is cut to it, `context.md5` is set to its MD5, and the result is true
// when that MD5 is the one the file carries; success clears `error`. On failure `error` is 2301
// "decrypt \"<file>\" using Type-A failed: <reason>", and `data` (which may already be cut) and
// `context.md5` are only good for discarding.
bool unwrap(UnwrapContext& context, std::string& data, Error& error);

}  // namespace FerritCore
