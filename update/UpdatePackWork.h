// UpdatePackWork: the blocking work of one pack update, apart from the task that decides what
// comes next (UpdatePack). It prepares the download's folder and address, verifies the
// download and unpacks it into the new version's folder, copies what an increment keeps from the
// installed version, publishes the folder, and writes the configuration transaction that names
// the new version. Each step takes what it needs as arguments and returns a small result; none
// decides what runs next or tells a listener, so the order of a run stays in one place, the task.
// (The published snapshot's own commit, which SCache::mutate posts, is the one task a step makes.)
//
// Threading: runs on the worker only, inside the stage of the task that owns it; not thread-safe.
//
// Ownership: a work object lives for one install stage; what it wrote and did not publish is
// deleted with the run's temporary folder, which the task owns.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Folder.h"
#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "model/FConfig.h"
#include "model/Pack.h"
#include "model/SCache.h"
#include "storage/ZipFile.h"
#include "update/PackInstaller.h"

namespace FerritCore {

class ResourceIndex;

// The forms of a pack's download, tried in this order: the patched increment, whose changed files
// may travel as patches against the installed bytes; the plain increment; the full zip.
enum class UpdateForm : uint32_t { Full = 0, Incremental = 1, Patched = 2 };
// "full", "incremental", "patched".
const char* updateFormName(UpdateForm form);

// Where a download goes and where it is asked for.
struct DownloadPlan {
    Error error;        // set when nothing may be sent; the rest is then empty
    Folder tempFolder;  // the run's own folder under "temp/", emptied
    Folder zipFile;     // the download inside it
    std::string url;    // the zip's address
    uint32_t payloadKind = 0;
};

// What verifying and unpacking the download came to.
struct Unpacked {
    Error error;
    // Whether the new version's folder was begun (the zip passed its checks); until then the
    // fields below say nothing.
    bool began = false;
    bool isPacks = false;
    // Bytes the zip's entries hold (a patch counts as the file it made), as far as the walk went.
    uint64_t installedSize = 0;
    // The most memory one patch's application held (PatchedEntries::peakMemory()).
    uint64_t patchMemory = 0;
    // What a run that ends before publishing must delete besides its temporary folder.
    std::optional<Folder> pendingTarget;
};

// What copying the files an increment keeps came to.
struct Kept {
    Error error;
    // The installed version cannot vouch for what the increment keeps: nothing was copied, and
    // the run fetches the full zip instead.
    Error refused;
    // Bytes copied, as far as the copy went.
    uint64_t bytes = 0;
    // The refused file had patch entries in the patched increment, which the plain increment
    // brings whole: refusing the patched form alone may help. Otherwise the plain increment keeps
    // the same file and would be refused too.
    bool incrementBringsIt = false;
};

// What became of the commit that publishes a new version; set on the worker when it ran.
struct CommitOutcome {
    bool ran = false;
    Error error;
};

// What the publishing transaction produced.
struct Persisted {
    FConfigPtr published;     // the document that holds the new version
    bool persistOld = false;  // a hot app's old version stays, under a record of its own
    std::shared_ptr<CommitOutcome> commit;
};

class UpdatePackWork {
  public:
    // The record and the download of one install.
    struct Job {
        PackPtr pack;
        std::string name;           // the task's name: the record's
        std::string requestedName;  // the name the task was asked for
        UpdateTrigger trigger = kTriggerNone;
        bool incremental = false;
        uint32_t payloadKind = 0;
        Folder tempFolder;
        Folder zipFile;
        // The download is the patched increment, whose patches apply to `installed`.
        bool patched = false;
        Folder installed;
    };

    // The payload kind a download of `pack` comes in under the current settings: 0 (a plain zip)
    // for a zip URL of its own. A run reads it once, so that its forms agree.
    static uint32_t payloadKind(const Pack& pack);
    // The run's folder and the zip's address for `pack` in `form`, of payload kind `payloadKind`
    // (payloadKind()); the folder is emptied.
    // Errors: no pack server configured, a name that is no single folder.
    static DownloadPlan planDownload(const Pack& pack, const std::string& name, UpdateForm form,
                                     uint32_t payloadKind);
    // Whether `pack` has a patched increment this device may ask for: its record names one, and
    // its download is a plain zip (`payloadKind` 0) from the pack server, not a zip URL of its
    // own. Asked only where the plain increment would be.
    static bool mayPatch(const Pack& pack, uint32_t payloadKind);
    // The folder that the new version of `pack` is written to: "apps/<root>/<seq>/" for an app,
    // the packed store's "<root>/<seq>/" for the rest.
    static Folder newVersionFolder(const Pack& pack);

    // `perf` receives the stages "decrypted" and "unzipped" as they are reached.
    UpdatePackWork(Job job, StagedRecord& perf);
    ~UpdatePackWork();
    UpdatePackWork(const UpdatePackWork&) = delete;
    UpdatePackWork& operator=(const UpdatePackWork&) = delete;

    // Verifies the download (unwrapped, its MD5, the signed list, the room its budget leaves)
    // and streams every entry into the new version's folder, each checked against the list.
    Unpacked unpack();
    // A whole app fetched from its URL: no list, every entry under "res/", then published.
    Unpacked unpackRaw();
    // After unpack(), for a full zip: the first file of the list that the zip did not bring.
    Error missingFile() const;
    // After unpack(), for an increment: copies into the new version the files that the installed
    // version at `installed` keeps. A missing installed folder marks the record for a reinstall.
    Kept copyKept(const Folder& installed);
    // Makes the written version the folder that the record will name (durable on the disk).
    Error publish();

    // The durable transaction that names the new version of `job` (installed size and kind
    // given); a hot app's old version keeps a record of its own.
    static Persisted persist(const Job& job, uint64_t installedSize, bool isPacks);
    // The same for a whole app fetched from its URL.
    static Persisted persistRaw(const Job& job, uint64_t installedSize);

  private:
    // Reads and unwraps the download and checks its MD5.
    Error readDownload();
    // Opens the zip, reads its signed list and checks the room; nothing written yet.
    Error openZip();
    // 2103 when what the zip's entries record passes the room its pack's budget leaves; a
    // patch counts as the file it makes.
    Error roomError();
    // Bytes of the files that the patched increment's applicable patches make.
    uint64_t patchedBytes();
    // Streams every entry into the installer; fills `result`.
    void writeEntries(Unpacked& result);
    // The files an increment keeps from `installed`, each vouched for by its own list.
    // `refusedPath` names the file refused, when one was.
    Error keptFiles(const Folder& installed, std::vector<std::string>& kept,
                    std::string& refusedPath);
    // The list of the installed version at `job_.installed`, read at the first call.
    const ResourceIndex& installedList();

    Job job_;
    StagedRecord& perf_;
    std::string data_;  // the unwrapped download; the zip reads from it
    ZipFile zip_;
    std::unique_ptr<ResourceIndex> index_;
    std::unique_ptr<ResourceIndex> installedList_;
    // For a patched increment: the listed paths that had patch entries.
    std::set<std::string> patchedPaths_;
    std::optional<PackInstaller> installer_;
};

}  // namespace FerritCore
