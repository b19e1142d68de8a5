#include "storage/Patch.h"

// For the frame header's reader: the shared library exports it, and it has kept its form since
// zstd 1.3; it lets the window and sizes a patch declares be judged before the decoder sees them.
#define ZSTD_STATIC_LINKING_ONLY
#include <zstd.h>

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdio>

#include "base/Errors.h"

namespace FerritCore {

namespace {

// What a failure to make a patch names in place of a file: the publisher's patch has no path yet.
constexpr const char* kMakingPatch = "(making)";

// The window's power of two: it must cover the larger file so that the end of the new file can
// still reach the start of the old; twice that lets zstd keep both in view, within the limit.
int windowLogFor(uint64_t largest, uint64_t limit) {
    const int floorLog = std::max(ZSTD_WINDOWLOG_MIN, static_cast<int>(std::bit_width(limit) - 1));
    const int needed = static_cast<int>(std::bit_width(std::max<uint64_t>(largest, 1) - 1)) + 1;
    return std::clamp(needed, ZSTD_WINDOWLOG_MIN, floorLog);
}

std::string zstdWords(size_t code) {
    return ZSTD_getErrorName(code);
}

std::string sizeWords(const char* what, uint64_t size, uint64_t limit) {
    char words[160];
    std::snprintf(words, sizeof(words), "%s of %" PRIu64 " bytes is above the limit of %" PRIu64,
                  what, size, limit);
    return words;
}

Error setUpCompression(ZSTD_CCtx* context, int level, int windowLog, std::string_view reference) {
    const std::pair<ZSTD_cParameter, int> parameters[] = {
        {ZSTD_c_compressionLevel, level},
        {ZSTD_c_windowLog, windowLog},
        // Long-distance matching finds the old file's runs however far back they sit.
        {ZSTD_c_enableLongDistanceMatching, 1},
        {ZSTD_c_contentSizeFlag, 1},
        {ZSTD_c_checksumFlag, 1},
    };
    for (const auto& [parameter, value] : parameters) {
        const size_t code = ZSTD_CCtx_setParameter(context, parameter, value);
        if (ZSTD_isError(code)) return Errors::patchFailed(kMakingPatch, zstdWords(code));
    }
    const size_t code = ZSTD_CCtx_refPrefix(context, reference.data(), reference.size());
    if (ZSTD_isError(code)) return Errors::patchFailed(kMakingPatch, zstdWords(code));
    return Error();
}

}  // namespace

std::string patchEntryName(std::string_view referenceMd5, std::string_view path) {
    std::string name(kPatchEntryPrefix);
    name.append(referenceMd5).append("/").append(path);
    return name;
}

ErrorOr<std::string> makePatch(std::string_view reference, std::string_view target, int level,
                               uint64_t limit) {
    if (reference.size() > limit)
        return Errors::patchFailed(kMakingPatch, sizeWords("a reference", reference.size(), limit));
    if (target.size() > limit)
        return Errors::patchFailed(kMakingPatch, sizeWords("a file", target.size(), limit));
    std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context(ZSTD_createCCtx(), ZSTD_freeCCtx);
    if (!context) return Errors::patchFailed(kMakingPatch, "no memory for zstd");
    const int windowLog = windowLogFor(std::max(reference.size(), target.size()), limit);
    Error error = setUpCompression(context.get(), level, windowLog, reference);
    if (error) return error;
    std::string patch(ZSTD_compressBound(target.size()), '\0');
    const size_t size =
        ZSTD_compress2(context.get(), patch.data(), patch.size(), target.data(), target.size());
    if (ZSTD_isError(size)) return Errors::patchFailed(kMakingPatch, zstdWords(size));
    patch.resize(size);
    return patch;
}

PatchApplier::PatchApplier(std::string_view reference, Folder target, uint64_t expectedSize,
                           std::string expectedMd5, uint64_t limit)
    : reference_(reference),
      target_(std::move(target)),
      expectedSize_(expectedSize),
      expectedMd5_(std::move(expectedMd5)),
      limit_(limit),
      context_(nullptr, ZSTD_freeDCtx) {}

PatchApplier::~PatchApplier() = default;

Error PatchApplier::fail(const std::string& reason) {
    if (!error_) error_ = Errors::patchFailed(target_.describe(), reason);
    return error_;
}

Error PatchApplier::feed(std::string_view piece, Sink sink) {
    if (error_) return error_;
    if (!started_) {
        std::string gathered;
        if (Error error = readHeader(piece, gathered)) return error;
        if (!started_) return Error();
        if (Error error = decode(gathered, sink)) return error;
    }
    return decode(piece, sink);
}

// Gathers the frame's header and judges what it declares before the decoder sees a byte: the
// sizes come from the network, and the decoder would allocate its window from them.
Error PatchApplier::readHeader(std::string_view& piece, std::string& gathered) {
    const size_t before = header_.size();
    header_.append(piece.substr(
        0, ZSTD_FRAMEHEADERSIZE_MAX - std::min<size_t>(before, ZSTD_FRAMEHEADERSIZE_MAX)));
    ZSTD_frameHeader header{};
    const size_t code = ZSTD_getFrameHeader(&header, header_.data(), header_.size());
    if (ZSTD_isError(code)) return fail("not a patch: " + zstdWords(code));
    if (code != 0) {
        if (header_.size() >= ZSTD_FRAMEHEADERSIZE_MAX) return fail("not a patch: no frame header");
        piece = std::string_view();
        return Error();
    }
    if (header.frameType != ZSTD_frame) return fail("not a patch: a skippable frame");
    if (header.frameContentSize == ZSTD_CONTENTSIZE_UNKNOWN)
        return fail("the patch declares no content size");
    if (header.frameContentSize > limit_)
        return fail(sizeWords("a content size", header.frameContentSize, limit_));
    // A patch for another size of file is for another file: refused before it costs a window.
    if (header.frameContentSize != expectedSize_) {
        error_ = Errors::fileVerifySize(target_, header.frameContentSize, expectedSize_);
        return error_;
    }
    if (header.windowSize > limit_) return fail(sizeWords("a window", header.windowSize, limit_));
    if (reference_.size() > limit_)
        return fail(sizeWords("a reference", reference_.size(), limit_));
    if (header.dictID != 0) return fail("the patch asks for a dictionary, not a reference");
    declaredSize_ = header.frameContentSize;
    // What was gathered goes to the decoder first, then the rest of this piece.
    gathered.swap(header_);
    piece = piece.substr(gathered.size() - before);
    return start();
}

Error PatchApplier::start() {
    context_.reset(ZSTD_createDCtx());
    if (!context_) return fail("no memory for zstd");
    const int windowLogMax = std::clamp(static_cast<int>(std::bit_width(limit_)),
                                        ZSTD_WINDOWLOG_MIN, ZSTD_WINDOWLOG_MAX);
    size_t code = ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, windowLogMax);
    if (!ZSTD_isError(code))
        code = ZSTD_DCtx_refPrefix(context_.get(), reference_.data(), reference_.size());
    if (ZSTD_isError(code)) return fail(zstdWords(code));
    out_.resize(kPatchChunk);
    started_ = true;
    return Error();
}

Error PatchApplier::decode(std::string_view piece, Sink sink) {
    ZSTD_inBuffer in{piece.data(), piece.size(), 0};
    while (in.pos < in.size || !ended_) {
        if (ended_) return fail("bytes after the end of the patch");
        ZSTD_outBuffer out{out_.data(), out_.size(), 0};
        const size_t code = ZSTD_decompressStream(context_.get(), &out, &in);
        if (ZSTD_isError(code)) return fail(zstdWords(code));
        peakMemory_ = std::max<uint64_t>(
            peakMemory_, ZSTD_sizeof_DCtx(context_.get()) + out_.capacity() + header_.capacity());
        // The declared size was judged against the limit; nothing beyond it reaches the sink.
        if (out.pos > declaredSize_ - written_)
            return fail(sizeWords("output", written_ + out.pos, declaredSize_));
        const std::string_view made(out_.data(), out.pos);
        if (!made.empty()) {
            md5_.update(made);
            written_ += made.size();
            if (Error error = sink(made)) {
                error_ = error;
                return error;
            }
        }
        ended_ = code == 0;
        // Input used up and the output buffer not full: zstd wants more of the patch.
        if (in.pos == in.size && out.pos < out.size) break;
    }
    return Error();
}

Error PatchApplier::finish() {
    if (error_) return error_;
    if (!ended_) return fail("the patch is truncated");
    if (written_ != expectedSize_) {
        error_ = Errors::fileVerifySize(target_, written_, expectedSize_);
        return error_;
    }
    const std::string md5 = md5_.finishHex();
    if (md5 != expectedMd5_) {
        error_ = Errors::fileVerifyMd5(target_, md5, expectedMd5_);
        return error_;
    }
    return Error();
}

Error applyPatch(std::string_view reference, std::string_view patch, const Folder& target,
                 uint64_t expectedSize, std::string_view expectedMd5, PatchApplier::Sink sink,
                 uint64_t limit) {
    PatchApplier applier(reference, target, expectedSize, std::string(expectedMd5), limit);
    // In the pieces a download would bring them, so that one path is the one tested.
    for (size_t at = 0; at < patch.size(); at += kPatchChunk) {
        if (Error error = applier.feed(patch.substr(at, kPatchChunk), sink)) return error;
    }
    return applier.finish();
}

}  // namespace FerritCore
