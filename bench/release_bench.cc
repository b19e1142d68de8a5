// Two consecutive real releases of a web library (the e2e tree's npm aliases "release-old" and
// "release-new", the same pinned pair on every run) as two versions of a pack: what each form of
// the update weighs and what installing it costs, and what a one-line change to the release's
// largest script weighs as a patch.
//
//   counters     fullBytes, plainBytes, patchedBytes: the full zip of the new release, the plain
//                increment and the patched increment from the old one; patchedToPlain their
//                ratio (goal <= 0.25); oneLineScriptBytes and oneLinePatchBytes: the largest
//                script (at least 7 MB) and the patch of a one-line change to it (goal < 2 KB);
//                oneLineIncrementBytes the patched increment carrying that change, which adds
//                under the goal to the signed list every form carries
//   BM_PlainIncrementInstall    the floor: every entry of the plain increment inflated, written
//                               to a new folder and its MD5 checked against the new list
//   BM_PatchedIncrementInstall  the patched increment the same way, each patch applied to the
//                               old release's file on disk (whose MD5 is checked first)
//   Both are this file's own loop over the zip, an apply-only comparison: neither runs the
//   library's install (no download, signature check, kept-file copies, staging or commit).
//   BM_OneLineInflateMd5 / BM_OneLinePatchApply   the changed script inflated whole and checked,
//                               against the patch applied to the script
//
// The releases are found under $FERRIT_RELEASES, or else under the e2e tree's node_modules (where
// `npm ci` in tests/e2e puts them); without them the benchmark says so and skips. With --check it
// measures only the sizes, prints them and exits 1 when a goal is missed (77 without releases):
// the test that keeps the goals met.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "FloorReporter.h"
#include "base/Digest.h"
#include "base/FileUtil.h"
#include "base/Folder.h"
#include "storage/Patch.h"
#include "storage/ZipFile.h"
#include "tools/pack/PackBuilder.h"

using namespace FerritCore;
namespace fs = std::filesystem;

namespace {

// The goals the patched form is built for.
constexpr double kMaxPatchedToPlain = 0.25;
constexpr uint64_t kMaxOneLinePatch = 2048;
// What a script smaller than this is not: the case the one-line goal names.
constexpr uint64_t kLargeScript = 7u << 20;
constexpr int kSkipped = 77;
constexpr const char* kSite = "https://bench.example.com/app/";

struct World {
    bool found = false;
    fs::path releases;
    fs::path root;
    fs::path oldFolder;
    FerritTools::PackContent before, after;
    FerritTools::PackListing listing;
    std::string full, plain, patched;
    FerritTools::PatchSummary summary;
    std::string scriptPath;
    std::string script, changed, deflated, oneLinePatch, changedMd5;
    // The download that carries the one-line change: the patched increment to the changed
    // release, and an increment that changes nothing, which carries only the signed list.
    std::string oneLineIncrement, listOnly;
    FerritTools::PatchSummary oneLineSummary;
    int folders = 0;
};

// The temp root of this run, if one was made: fail() removes it on its way out too.
fs::path& tempRoot() {
    static fs::path root;
    return root;
}

fs::path releasesFolder() {
    if (const char* set = std::getenv("FERRIT_RELEASES"); set != nullptr && *set != '\0')
        return set;
    return FERRIT_RELEASES_DIR;
}

void fail(const std::string& what) {
    std::fprintf(stderr, "release_bench: %s\n", what.c_str());
    std::error_code ignored;
    if (!tempRoot().empty()) fs::remove_all(tempRoot(), ignored);
    std::exit(1);
}

// The largest script of the new release; its middle line gains a statement, as a one-line fix
// would (a bundler keeps the rest of the file as it was).
void changeOneLine(World& w) {
    for (const auto& [path, bytes] : w.after.files) {
        const bool script = path.ends_with(".js") || path.ends_with(".mjs");
        if (script && bytes.size() > w.script.size()) {
            w.scriptPath = path;
            w.script = bytes;
        }
    }
    if (w.script.empty()) fail("the new release has no script");
    w.changed = w.script;
    size_t end = w.changed.find('\n', w.changed.size() / 2);
    if (end == std::string::npos) end = w.changed.size();
    w.changed.insert(end, ";globalThis.releaseFixed = true;");
    w.changedMd5 = Digest::md5Hex(w.changed);
    uLongf bound = compressBound(w.changed.size());
    w.deflated.resize(bound);
    compress2(reinterpret_cast<Bytef*>(w.deflated.data()), &bound,
              reinterpret_cast<const Bytef*>(w.changed.data()), w.changed.size(), 9);
    w.deflated.resize(bound);
    ErrorOr<std::string> patch = makePatch(w.script, w.changed);
    if (!patch.ok()) fail("the one-line patch: " + patch.error().message());
    w.oneLinePatch = std::move(*patch);
}

// The patched increment from the new release to the one with the changed line, as a publish
// makes it; what it carries beyond the list is the patch and its zip entry.
void buildOneLineIncrement(World& w, const FerritTools::PackOptions& options) {
    FerritTools::PackContent fixed = w.after;
    fixed.files[w.scriptPath] = w.changed;
    std::string error;
    if (!FerritTools::buildPatchedIncrement(w.after, fixed, options, w.oneLineIncrement, error,
                                            &w.oneLineSummary) ||
        !FerritTools::buildIncrement(fixed, fixed, options, w.listOnly, error))
        fail(error);
}

World& world() {
    static World* const instance = [] {
        auto* w = new World();
        w->releases = releasesFolder();
        const fs::path oldRelease = w->releases / "release-old";
        const fs::path newRelease = w->releases / "release-new";
        if (!fs::is_directory(oldRelease) || !fs::is_directory(newRelease)) return w;
        w->found = true;
        std::string error;
        if (!FerritTools::readFolder(oldRelease.string(), w->before.files, error) ||
            !FerritTools::readFolder(newRelease.string(), w->after.files, error))
            fail(error);
        w->listing = FerritTools::listingOf(w->after.files);
        FerritTools::PackOptions options;
        options.urlPrefix = kSite;
        options.signer = [](const std::string& md5, std::string& signature, std::string&) {
            signature = "bench:" + md5;
            return true;
        };
        if (!FerritTools::buildPack(w->after, options, w->full, error) ||
            !FerritTools::buildIncrement(w->before, w->after, options, w->plain, error) ||
            !FerritTools::buildPatchedIncrement(w->before, w->after, options, w->patched, error,
                                                &w->summary))
            fail(error);
        changeOneLine(*w);
        buildOneLineIncrement(*w, options);
        return w;
    }();
    return *instance;
}

// The device's installed version, the old release's files on disk, under a temp root that the
// timed installs write their folders into; only the benchmarks need it, not --check.
void makeInstalled(World& w) {
    w.root = fs::temp_directory_path() / ("ferrit-release-bench-" + std::to_string(getpid()));
    fs::remove_all(w.root);
    fs::create_directories(w.root);
    tempRoot() = w.root;
    w.oldFolder = w.root / "installed";
    fs::copy(w.releases / "release-old", w.oldFolder, fs::copy_options::recursive);
}

void printFigures(const World& w) {
    std::printf("releases: %s (%zu files; %s, %.1f MB)\n", w.releases.c_str(), w.after.files.size(),
                w.scriptPath.c_str(), static_cast<double>(w.script.size()) / 1048576.0);
    std::printf(
        "full zip %zu B, plain increment %zu B, patched increment %zu B: %.4f of plain "
        "(goal <= %.2f); %zu paths patched\n",
        w.full.size(), w.plain.size(), w.patched.size(),
        static_cast<double>(w.patched.size()) / static_cast<double>(w.plain.size()),
        kMaxPatchedToPlain, w.summary.patched.size());
    std::printf("one line changed in %s: patch %zu B (goal < %llu B), whole deflated %zu B%s\n",
                w.scriptPath.c_str(), w.oneLinePatch.size(),
                static_cast<unsigned long long>(kMaxOneLinePatch), w.deflated.size(),
                w.script.size() < kLargeScript ? " (the largest script is under 7 MB)" : "");
    std::printf("its patched increment %zu B, of which the signed list alone %zu B\n",
                w.oneLineIncrement.size(), w.listOnly.size());
}

// What the one-line download carries beyond the list every form carries.
uint64_t oneLineExtra(const World& w) {
    return w.oneLineIncrement.size() > w.listOnly.size()
               ? w.oneLineIncrement.size() - w.listOnly.size()
               : 0;
}

void counters(benchmark::State& state) {
    const World& w = world();
    state.counters["fullBytes"] = static_cast<double>(w.full.size());
    state.counters["plainBytes"] = static_cast<double>(w.plain.size());
    state.counters["patchedBytes"] = static_cast<double>(w.patched.size());
    state.counters["patchedToPlain"] =
        static_cast<double>(w.patched.size()) / static_cast<double>(w.plain.size());
    state.counters["oneLineScriptBytes"] = static_cast<double>(w.script.size());
    state.counters["oneLinePatchBytes"] = static_cast<double>(w.oneLinePatch.size());
    state.counters["oneLineIncrementBytes"] = static_cast<double>(w.oneLineIncrement.size());
}

bool skipWithoutReleases(benchmark::State& state) {
    if (world().found) return false;
    state.SkipWithError(
        ("no releases under " + world().releases.string() + " (npm ci in tests/e2e installs them)")
            .c_str());
    return true;
}

// Writes one file of the new version and checks it against the new list, as every form must;
// `hashed` false for a patch's output, which applyPatch checks itself.
class Output {
  public:
    Output(const fs::path& folder, const std::string& path, const World& w, bool hashed = true)
        : w_(w), path_(path), hashed_(hashed) {
        const fs::path file = folder / path;
        if (FileUtil::makeDirectories(file.parent_path().string() + "/") != 0 ||
            FileUtil::open(file.string(), "wb", &file_) != 0)
            fail("cannot write " + file.string());
    }
    ~Output() {
        if (file_ != nullptr) std::fclose(file_);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    void write(std::string_view piece) {
        if (hashed_) md5_.update(piece);
        if (!piece.empty() && FileUtil::write(file_, piece) != 0) fail("write failed");
    }
    void check() {
        auto listed = w_.listing.find(path_);
        if (hashed_ && listed != w_.listing.end() && md5_.finishHex() != listed->second.md5)
            fail(path_ + " does not match the new list");
    }

  private:
    const World& w_;
    std::string path_;
    bool hashed_;
    FILE* file_ = nullptr;
    Digest::Md5 md5_;
};

fs::path freshFolder(World& w, const char* kind) {
    fs::path folder = w.root / (std::string(kind) + "-" + std::to_string(w.folders++));
    fs::create_directories(folder);
    return folder;
}

// Every entry of `zip` below "res/" inflated and written to `folder`; "patch/<md5>/<path>"
// entries gathered and applied to the installed file of <path>, once its MD5 is checked.
void install(World& w, const std::string& zip, const fs::path& folder) {
    Error error;
    ZipFile archive = ZipFile::open(Folder::disk("increment.zip"), zip, error);
    if (error) fail(error.message());
    std::unique_ptr<Output> out;
    std::string name, gathered;
    ZipFile::EntryStream stream;
    stream.begin = [&](const std::string& entry, uint64_t) {
        name = entry;
        gathered.clear();
        if (entry.starts_with(FerritTools::kResourcePrefix))
            out = std::make_unique<Output>(folder,
                                           entry.substr(FerritTools::kResourcePrefix.size()), w);
        return true;
    };
    stream.write = [&](std::string_view piece) {
        if (out) out->write(piece);
        if (name.starts_with(FerritCore::kPatchEntryPrefix)) gathered.append(piece);
        return true;
    };
    stream.end = [&]() {
        if (out) out->check();
        out.reset();
        if (!name.starts_with(FerritCore::kPatchEntryPrefix)) return true;
        const size_t slash = name.find('/', FerritCore::kPatchEntryPrefix.size());
        const size_t from = FerritCore::kPatchEntryPrefix.size();
        const std::string md5 = name.substr(from, slash - from);
        const std::string path = name.substr(slash + 1);
        std::string reference;
        if (FileUtil::readWhole((w.oldFolder / path).string(), reference) != 0 ||
            Digest::md5Hex(reference) != md5)
            fail("the installed " + path + " is not the patch's reference");
        Output made(folder, path, w, /*hashed=*/false);
        const FerritTools::ListedFile& listed = w.listing.at(path);
        const Error applied =
            applyPatch(reference, gathered, Folder::disk(path), static_cast<uint64_t>(listed.size),
                       listed.md5, [&made](std::string_view piece) {
                           made.write(piece);
                           return Error();
                       });
        if (applied) fail(applied.message());
        return true;
    };
    if (!archive.forEachEntryStreamed(stream, error)) fail(error.message());
}

void installBench(benchmark::State& state, const std::string World::*zip, const char* kind) {
    if (skipWithoutReleases(state)) return;
    World& w = world();
    for (auto _ : state) {
        state.PauseTiming();
        // Every iteration's folder stays until the run ends: removing one just before a timed
        // write would leave the disk busy freeing it while the clock runs.
        const fs::path folder = freshFolder(w, kind);
        state.ResumeTiming();
        install(w, w.*zip, folder);
    }
    counters(state);
}

void BM_PlainIncrementInstall(benchmark::State& state) {
    installBench(state, &World::plain, "plain");
}

void BM_PatchedIncrementInstall(benchmark::State& state) {
    installBench(state, &World::patched, "patched");
    state.SetLabel("vs:BM_PlainIncrementInstall");
}

void BM_OneLineInflateMd5(benchmark::State& state) {
    if (skipWithoutReleases(state)) return;
    const World& w = world();
    std::string out(w.changed.size(), '\0');
    for (auto _ : state) {
        uLongf size = out.size();
        uncompress(reinterpret_cast<Bytef*>(out.data()), &size,
                   reinterpret_cast<const Bytef*>(w.deflated.data()), w.deflated.size());
        benchmark::DoNotOptimize(Digest::md5Hex(out));
    }
    counters(state);
}

void BM_OneLinePatchApply(benchmark::State& state) {
    if (skipWithoutReleases(state)) return;
    const World& w = world();
    std::string out;
    out.reserve(w.changed.size());
    for (auto _ : state) {
        out.clear();
        const Error error =
            applyPatch(w.script, w.oneLinePatch, Folder::disk(w.scriptPath), w.changed.size(),
                       w.changedMd5, [&out](std::string_view piece) {
                           out.append(piece);
                           return Error();
                       });
        if (error) {
            state.SkipWithError(error.message().c_str());
            break;
        }
    }
    counters(state);
    state.SetLabel("vs:BM_OneLineInflateMd5");
}

// The sizes against the goals, without timing anything.
int check() {
    const World& w = world();
    if (!w.found) {
        std::printf("release_bench: no releases under %s (npm ci in tests/e2e installs them)\n",
                    w.releases.c_str());
        return kSkipped;
    }
    printFigures(w);
    const double ratio =
        static_cast<double>(w.patched.size()) / static_cast<double>(w.plain.size());
    bool met = true;
    if (ratio > kMaxPatchedToPlain) {
        std::printf("FAIL: the patched increment is %.4f of the plain one\n", ratio);
        met = false;
    }
    // The goal names a large script: a small one would meet it without saying anything.
    if (w.script.size() < kLargeScript) {
        std::printf("FAIL: the largest script is %zu bytes, under 7 MB\n", w.script.size());
        met = false;
    }
    if (w.oneLinePatch.size() >= kMaxOneLinePatch) {
        std::printf("FAIL: the one-line patch is %zu bytes\n", w.oneLinePatch.size());
        met = false;
    }
    // And the download that carries it: the script as its one patch, adding under the goal to
    // the list.
    if (w.oneLineSummary.patched != std::vector<std::string>{w.scriptPath}) {
        std::printf("FAIL: the one-line patched increment does not carry %s as a patch\n",
                    w.scriptPath.c_str());
        met = false;
    }
    if (oneLineExtra(w) >= kMaxOneLinePatch) {
        std::printf("FAIL: the one-line patched increment adds %llu bytes to the list\n",
                    static_cast<unsigned long long>(oneLineExtra(w)));
        met = false;
    }
    // A patched increment that patched nothing would meet the ratio only by accident.
    if (w.summary.patched.empty()) {
        std::printf("FAIL: no file travelled as a patch\n");
        met = false;
    }
    return met ? 0 : 1;
}

}  // namespace

BENCHMARK(BM_PlainIncrementInstall)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PatchedIncrementInstall)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OneLineInflateMd5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OneLinePatchApply)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--check") == 0) return check();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (world().found) {
        printFigures(world());
        makeInstalled(world());
    }
    FerritBench::FloorReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    if (!world().root.empty()) fs::remove_all(world().root);
    return 0;
}
