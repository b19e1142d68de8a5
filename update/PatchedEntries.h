// PatchedEntries: the "patch/<md5>/<path>" entries of a patched increment, applied as the zip is
// walked. An entry is a patch that turns the file whose bytes have MD5 <md5> into the file the new
// signed list names for "res/<path>". For each listed path with patch entries:
//   - when the installed version's list already names the new MD5, the installed file is kept
//     (the increment's kept-file copy takes it, vouched for by the new list) and the entries are
//     skipped;
//   - else the entry whose <md5> is the installed list's MD5 for the path is applied to the
//     installed file (packed store or disk, wherever the installed version lives), once its bytes
//     are read and found to have that MD5: a file altered since it was installed is refused;
//   - entries for other references are skipped.
// The output streams into the installer as the zip's pieces come, checked against the new list's
// size (at the patch's header) and MD5 (at its end). A path with patch entries that gets neither
// is a failure (unresolved()), as is a reference above kPatchLimit.
//
// Memory: one installed file (at most kPatchLimit), what the applier holds (its window at most
// kPatchLimit, plus a piece of kPatchChunk) and the file made, gathered whole until it is stored
// in the packed store, where every version that takes increments lives (reserved at once at the
// size the list states, which is refused above kPatchLimit): about three times the limit.
// peakMemory() reports the sum of the three at one application's end.
//
// Not thread-safe: lives inside one install stage on the worker.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/Folder.h"
#include "ferritcore/Error.h"
#include "model/ResourceIndex.h"
#include "storage/Patch.h"
#include "update/PackInstaller.h"

namespace FerritCore {

class PatchedEntries {
  public:
    // `list` is the new version's list as the zip carries it; `installedList` the list of the
    // installed version at `installed` (read once by the caller, whose other steps share it);
    // `zipFile` names the download in the words of errors.
    PatchedEntries(PackInstaller& installer, const ResourceIndex& list,
                   const ResourceIndex& installedList, Folder installed, Folder zipFile,
                   uint64_t limit = kPatchLimit);
    ~PatchedEntries();
    PatchedEntries(const PatchedEntries&) = delete;
    PatchedEntries& operator=(const PatchedEntries&) = delete;

    // The folder the list names resources under; a patch entry names its file without it.
    static constexpr std::string_view kResourcePrefix = "res/";

    static bool isPatch(std::string_view entry) { return entry.starts_with(kPatchEntryPrefix); }
    // The one patch entry that can make `wanted` on a device whose installed list names `held`
    // for the same path: the patch from the installed bytes. Empty when nothing is installed
    // under the path, the installed file is the new one already (it is kept), or `wanted` is
    // not a resource. The walk and the budget's check both decide by it.
    static std::string applicableEntry(const ResourceRecord* held, const ResourceRecord& wanted);

    // One patch entry: begin, each piece, end. An error stops the walk.
    Error begin(const std::string& entry);
    Error write(std::string_view piece);
    Error end();

    // After the walk: the first listed path with patch entries that was neither patched nor
    // kept as installed.
    Error unresolved() const;
    // Listed paths ("res/<path>") that had patch entries, as far as the walk went.
    const std::set<std::string>& paths() const { return patched_; }
    // Bytes of the files the patches made.
    uint64_t bytes() const { return bytes_; }
    // The most memory one application held: the reference and the applier's own.
    uint64_t peakMemory() const { return peakMemory_; }

  private:
    // Reads the installed file of `path` and checks it has `md5`, within the limit.
    Error readReference(const std::string& path, const std::string& md5);

    PackInstaller& installer_;
    const ResourceIndex& list_;
    const ResourceIndex& installedList_;
    const Folder installed_;
    const Folder zipFile_;
    const uint64_t limit_;
    // Listed paths ("res/<path>") with patch entries, and those the walk resolved.
    std::set<std::string> patched_;
    std::set<std::string> resolved_;
    // The entry under way: its reference's bytes and the applier, or nothing when it is skipped.
    std::string path_;
    std::string checkedMd5_;
    std::string reference_;
    std::optional<PatchApplier> applier_;
    uint64_t bytes_ = 0;
    uint64_t peakMemory_ = 0;
};

}  // namespace FerritCore
