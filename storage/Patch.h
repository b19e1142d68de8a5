// Patch: a changed file as the difference from the bytes a device already has. A patch is one
// zstd frame compressed with the previous bytes as its reference prefix (zstd's patch-from mode),
// so a file a bundler rewrote a little travels as a few kilobytes instead of the whole file.
//
// Making a patch (the publisher) holds both files in memory. Applying one (the device) streams:
// the patch comes in pieces, the output leaves in pieces of at most kPatchChunk bytes, and what
// the decoder holds is bounded by the limit it is given (kPatchLimit unless a test says less),
// whatever the file's size: a patch whose frame declares a window or a content size above the
// limit, or whose reference is above it, is refused before a byte is written. The size and MD5
// the caller expects (the new signed list's) are given up front: a frame that declares another
// content size is refused at its header, before the decoder sees it, and the output is checked
// against the MD5 at the end; a patch is never trusted for its own sake.
//
// Not thread-safe: a PatchApplier belongs to one thread at a time. Make is a pure function.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Digest.h"
#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "support/ErrorOr.h"
#include "support/FunctionRef.h"

struct ZSTD_DCtx_s;

namespace FerritCore {

// The largest file, reference and decoding window a patch may have: the decoder keeps at most
// this much of the output's history, so a device never spends more on one patch. Larger files
// travel whole.
inline constexpr uint64_t kPatchLimit = 32ull << 20;
// The largest piece handed to the sink at a time.
inline constexpr size_t kPatchChunk = 64u << 10;
// Publishing is done once and read by every device: the strongest level pays for itself.
inline constexpr int kPatchLevel = 19;

// A patched increment names each patch "patch/<MD5 of the reference>/<path>", where <path> is the
// file's path below the pack's resources. The publisher writes these names and a device reads
// them, so both sides take them from here; a device applies a patch only to a file whose
// vouched-for MD5 is the one its name carries.
inline constexpr std::string_view kPatchEntryPrefix = "patch/";
// The name of the patch entry that turns the file whose bytes have `referenceMd5` into the new
// bytes of `path` (below the resources).
std::string patchEntryName(std::string_view referenceMd5, std::string_view path);

// Makes the patch that turns `reference` into `target`. Fails (2209) when either is above
// `limit`, as a device would refuse the patch, or when zstd fails.
ErrorOr<std::string> makePatch(std::string_view reference, std::string_view target,
                               int level = kPatchLevel, uint64_t limit = kPatchLimit);

class PatchApplier {
  public:
    // Where each piece of output goes; an error stops the application and is returned as is.
    using Sink = FunctionRef<Error(std::string_view piece)>;

    // `reference` must stay valid and unchanged until the applier is gone; it is read in place.
    // `target` names the file made, for the words of errors; `expectedSize` and `expectedMd5`
    // (lower-case hexadecimal) are what the output must be.
    PatchApplier(std::string_view reference, Folder target, uint64_t expectedSize,
                 std::string expectedMd5, uint64_t limit = kPatchLimit);
    ~PatchApplier();
    PatchApplier(const PatchApplier&) = delete;
    PatchApplier& operator=(const PatchApplier&) = delete;

    // Takes the next piece of the patch and writes what it decodes to `sink`. The first error
    // (2209 for the patch, or the sink's) is kept and returned by every later call.
    Error feed(std::string_view piece, Sink sink);
    // The patch has ended: fails on a truncated patch (2209), and on output whose size or MD5
    // is not the expected one (1106).
    Error finish();

    // Bytes handed to the sink so far.
    uint64_t written() const { return written_; }
    // The most memory the application held at once: the decoder's state and buffers and ours.
    uint64_t peakMemory() const { return peakMemory_; }

  private:
    Error readHeader(std::string_view& piece, std::string& gathered);
    Error start();
    Error decode(std::string_view piece, Sink sink);
    Error fail(const std::string& reason);

    const std::string_view reference_;
    const Folder target_;
    const uint64_t expectedSize_;
    const std::string expectedMd5_;
    const uint64_t limit_;
    std::unique_ptr<ZSTD_DCtx_s, size_t (*)(ZSTD_DCtx_s*)> context_;
    // The first bytes, until the frame's header is whole and has been judged.
    std::string header_;
    bool started_ = false;
    bool ended_ = false;
    uint64_t declaredSize_ = 0;
    std::string out_;
    uint64_t written_ = 0;
    uint64_t peakMemory_ = 0;
    Digest::Md5 md5_;
    Error error_;
};

// Applies a patch held whole in memory: the same checks as feeding it piece by piece.
Error applyPatch(std::string_view reference, std::string_view patch, const Folder& target,
                 uint64_t expectedSize, std::string_view expectedMd5, PatchApplier::Sink sink,
                 uint64_t limit = kPatchLimit);

}  // namespace FerritCore
