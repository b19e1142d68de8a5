// Arbitrary bytes as a reference file and a patch: the first byte picks where the reference ends
// and the piece size the patch is fed in. Nothing may crash; no piece handed to the sink may pass
// kPatchChunk, and no output may pass the limit or the size the caller expects; an application
// that succeeds gave exactly the bytes it was told to expect. Then the same bytes as a real
// change: a patch made from the reference to the rest must give the rest back, fed in the same
// pieces.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <zstd.h>

#include "base/Digest.h"
#include "base/Folder.h"
#include "storage/Patch.h"

using namespace FerritCore;

namespace {

// Small, so that the limit's refusals are reached as often as the decoding.
constexpr uint64_t kLimit = 64u << 10;

std::string applyInPieces(std::string_view reference, std::string_view patch, size_t step,
                          uint64_t expectedSize, const std::string& expectedMd5, Error& error) {
    PatchApplier applier(reference, Folder::disk("fuzz/out"), expectedSize, expectedMd5, kLimit);
    std::string out;
    const auto sink = [&](std::string_view piece) {
        if (piece.size() > kPatchChunk) std::abort();
        out.append(piece);
        if (out.size() > kLimit) std::abort();
        return Error();
    };
    for (size_t at = 0; at < patch.size() && !error; at += step)
        error = applier.feed(patch.substr(at, step), sink);
    if (!error) error = applier.finish();
    // A frame for another size is refused at its header: nothing reaches the sink.
    if (applier.written() > expectedSize) std::abort();
    if (applier.written() != out.size()) std::abort();
    if (applier.peakMemory() > kLimit + (1u << 20)) std::abort();
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t split = input.empty() ? 0 : (data[0] * input.size()) / 255;
    const size_t step = 1 + data[0] % 97;
    const std::string_view reference = input.substr(0, split);
    const std::string_view patch = input.substr(split);

    // As a patch, expected at the size its frame declares so that the decoder is reached:
    // whatever it gives must be what a success was told to expect (no bytes, by their MD5).
    const unsigned long long declared = ZSTD_getFrameContentSize(patch.data(), patch.size());
    const uint64_t expected =
        declared == ZSTD_CONTENTSIZE_UNKNOWN || declared == ZSTD_CONTENTSIZE_ERROR ? 0 : declared;
    Error error;
    const std::string out =
        applyInPieces(reference, patch, step, expected, Digest::md5Hex(""), error);
    if (!error && !out.empty()) std::abort();

    // As a change: the patch from the reference to the rest gives the rest back.
    ErrorOr<std::string> made = makePatch(reference, patch, 1, kLimit);
    if (!made.ok()) return 0;
    Error roundTrip;
    const std::string back =
        applyInPieces(reference, *made, step, patch.size(), Digest::md5Hex(patch), roundTrip);
    if (roundTrip || back != patch) std::abort();
    return 0;
}
