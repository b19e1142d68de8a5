#include "storage/Patch.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "base/Digest.h"
#include "base/Errors.h"
#include "tests/TestUtil.h"

using namespace FerritCore;
using FerritTest::scriptText;

namespace {

// The same script with one line changed in the middle.
std::string oneLineChanged(std::string text) {
    const size_t line = text.find('\n', text.size() / 2);
    text.insert(line, " console.log(\"fixed\");");
    return text;
}

class PatchTest : public FerritTest::ProcessTest {
  protected:
    Folder target() const { return Folder::disk("apps/shop/2/main.js"); }

    // Applies `patch` in pieces of `step` bytes and collects the output.
    Error apply(std::string_view reference, std::string_view patch, const std::string& expected,
                std::string& out, size_t step = kPatchChunk, uint64_t limit = kPatchLimit) {
        PatchApplier applier(reference, target(), expected.size(), Digest::md5Hex(expected), limit);
        const auto sink = [&](std::string_view piece) {
            EXPECT_LE(piece.size(), kPatchChunk);
            out.append(piece);
            return Error();
        };
        Error error;
        for (size_t at = 0; at < patch.size() && !error; at += step)
            error = applier.feed(patch.substr(at, step), sink);
        peak_ = applier.peakMemory();
        written_ = applier.written();
        return error ? error : applier.finish();
    }

    uint64_t peak_ = 0;
    uint64_t written_ = 0;
};

TEST_F(PatchTest, RoundTripOfAOneLineChangeIsSmall) {
    const std::string old = scriptText(1 << 20, 1);
    const std::string changed = oneLineChanged(old);
    ErrorOr<std::string> patch = makePatch(old, changed);
    ASSERT_TRUE(patch.ok()) << patch.error().message();
    EXPECT_LT(patch->size(), 2048u);
    std::string out;
    EXPECT_FALSE(apply(old, *patch, changed, out));
    EXPECT_EQ(out, changed);
}

TEST_F(PatchTest, RoundTripInOneBytePieces) {
    const std::string old = scriptText(20000, 2);
    const std::string changed = oneLineChanged(old) + scriptText(3000, 3);
    ErrorOr<std::string> patch = makePatch(old, changed);
    ASSERT_TRUE(patch.ok());
    std::string out;
    EXPECT_FALSE(apply(old, *patch, changed, out, 1));
    EXPECT_EQ(out, changed);
}

TEST_F(PatchTest, EmptyFilesOnEitherSide) {
    const std::string text = scriptText(5000, 4);
    for (const auto& [from, to] : {std::pair<std::string, std::string>{"", text}, {text, ""}}) {
        ErrorOr<std::string> patch = makePatch(from, to);
        ASSERT_TRUE(patch.ok());
        std::string out;
        EXPECT_FALSE(apply(from, *patch, to, out));
        EXPECT_EQ(out, to);
    }
}

TEST_F(PatchTest, WrongReferenceFails) {
    const std::string old = scriptText(200000, 5);
    const std::string changed = oneLineChanged(old);
    ErrorOr<std::string> patch = makePatch(old, changed);
    ASSERT_TRUE(patch.ok());
    std::string other = old;
    other[1000] = other[1000] == 'x' ? 'y' : 'x';
    std::string out;
    Error error = apply(other, *patch, changed, out);
    EXPECT_TRUE(Errors::isPatchFailed(error) || Errors::isFileVerify(error)) << error.message();
    // Another version of the file altogether.
    out.clear();
    error = apply(scriptText(200000, 6), *patch, changed, out);
    EXPECT_TRUE(Errors::isPatchFailed(error) || Errors::isFileVerify(error)) << error.message();
}

TEST_F(PatchTest, TruncatedPatchFails) {
    const std::string old = scriptText(100000, 7);
    const std::string changed = oneLineChanged(old);
    ErrorOr<std::string> patch = makePatch(old, changed);
    ASSERT_TRUE(patch.ok());
    for (size_t keep : {size_t{0}, size_t{3}, patch->size() / 2, patch->size() - 1}) {
        std::string out;
        const Error error = apply(old, patch->substr(0, keep), changed, out);
        EXPECT_TRUE(Errors::isPatchFailed(error)) << keep << ": " << error.message();
    }
}

TEST_F(PatchTest, BytesAfterThePatchFail) {
    const std::string old = scriptText(10000, 8);
    ErrorOr<std::string> patch = makePatch(old, oneLineChanged(old));
    ASSERT_TRUE(patch.ok());
    std::string out;
    const Error error = apply(old, *patch + "x", oneLineChanged(old), out);
    EXPECT_TRUE(Errors::isPatchFailed(error)) << error.message();
}

// A patch that is sound in itself but makes other bytes than the list names: the caller's
// expectation is what catches it.
TEST_F(PatchTest, PatchMakingOtherBytesFailsTheExpectation) {
    const std::string old = scriptText(50000, 9);
    const std::string wanted = oneLineChanged(old);
    std::string other = wanted;
    other[10] = other[10] == 'a' ? 'b' : 'a';
    ErrorOr<std::string> patch = makePatch(old, other);
    ASSERT_TRUE(patch.ok());
    std::string out;
    Error error = apply(old, *patch, wanted, out);
    EXPECT_TRUE(Errors::isFileVerify(error)) << error.message();
    EXPECT_NE(error.message().find("MD5"), std::string::npos) << error.message();
    // Another size: refused at the frame's header, before the decoder made a byte.
    ErrorOr<std::string> longer = makePatch(old, wanted + "//");
    ASSERT_TRUE(longer.ok());
    out.clear();
    error = apply(old, *longer, wanted, out);
    EXPECT_TRUE(Errors::isFileVerify(error)) << error.message();
    EXPECT_NE(error.message().find("size"), std::string::npos) << error.message();
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(written_, 0u);
    EXPECT_EQ(peak_, 0u);
}

// The declared size is judged when the header is whole, however the first bytes arrive.
TEST_F(PatchTest, DeclaredSizeIsJudgedAtTheHeaderInOneBytePieces) {
    const std::string old = scriptText(20000, 14);
    const std::string wanted = oneLineChanged(old);
    ErrorOr<std::string> shorter = makePatch(old, wanted.substr(0, wanted.size() - 1));
    ASSERT_TRUE(shorter.ok());
    std::string out;
    const Error error = apply(old, *shorter, wanted, out, 1);
    EXPECT_TRUE(Errors::isFileVerify(error)) << error.message();
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(peak_, 0u);
}

TEST_F(PatchTest, GarbageIsNotAPatch) {
    std::string out;
    const Error error = apply("ref", "this is not a zstd frame at all", "x", out);
    EXPECT_TRUE(Errors::isPatchFailed(error)) << error.message();
    EXPECT_TRUE(out.empty());
}

TEST_F(PatchTest, SinkErrorStopsTheApplication) {
    const std::string old = scriptText(300000, 10);
    const std::string changed = oneLineChanged(old);
    ErrorOr<std::string> patch = makePatch(old, changed);
    ASSERT_TRUE(patch.ok());
    int calls = 0;
    const Error error = applyPatch(old, *patch, target(), changed.size(), Digest::md5Hex(changed),
                                   [&](std::string_view) {
                                       ++calls;
                                       return Errors::fileWrite(target(), ENOSPC);
                                   });
    EXPECT_TRUE(Errors::isFileWrite(error)) << error.message();
    EXPECT_EQ(calls, 1);
}

// What the decoder holds is bounded by the limit, not by the file: a file within the limit is
// applied within it, and a patch that declares more than the limit is refused before a byte of
// output, whatever the file's size.
TEST_F(PatchTest, MemoryStaysWithinTheLimit) {
    constexpr uint64_t kLimit = 1 << 20;
    const std::string old = scriptText(900000, 11);
    const std::string changed = oneLineChanged(old);
    ErrorOr<std::string> patch = makePatch(old, changed, kPatchLevel, kLimit);
    ASSERT_TRUE(patch.ok());
    std::string out;
    EXPECT_FALSE(apply(old, *patch, changed, out, kPatchChunk, kLimit));
    EXPECT_EQ(out, changed);
    EXPECT_GT(peak_, 0u);
    EXPECT_LE(peak_, kLimit + (512u << 10)) << peak_;

    const std::string big = scriptText(4 << 20, 12);
    const std::string bigChanged = oneLineChanged(big);
    ErrorOr<std::string> bigPatch = makePatch(big, bigChanged, 3);
    ASSERT_TRUE(bigPatch.ok());
    out.clear();
    Error error = apply(big, *bigPatch, bigChanged, out, kPatchChunk, kLimit);
    EXPECT_TRUE(Errors::isPatchFailed(error)) << error.message();
    EXPECT_NE(error.message().find("above the limit"), std::string::npos) << error.message();
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(peak_, 0u);
    // A reference above the limit is refused as well, with a small content.
    ErrorOr<std::string> shrink = makePatch(big, "tiny", 3);
    ASSERT_TRUE(shrink.ok());
    error = apply(big, *shrink, "tiny", out, kPatchChunk, kLimit);
    EXPECT_TRUE(Errors::isPatchFailed(error)) << error.message();
    EXPECT_TRUE(out.empty());
}

TEST_F(PatchTest, MakingRefusesFilesAboveTheLimit) {
    const std::string big = scriptText(5000, 13);
    EXPECT_TRUE(Errors::isPatchFailed(makePatch(big, "x", 3, 4096).error()));
    EXPECT_TRUE(Errors::isPatchFailed(makePatch("x", big, 3, 4096).error()));
}

}  // namespace
