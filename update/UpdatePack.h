// UpdatePack: one task that takes one pack from being named in the configuration to being
// readable. It decides whether the pack needs work at all (evaluate), completes the record from
// the pack configuration when it lacks its sequence numbers, downloads the zip into "temp/",
// verifies and unpacks it into the folder of the new version (PackInstaller), publishes the new
// installed version in one configuration transaction (persist), and deletes what it no longer
// needs (finished). From the swap on, readers find the new installed sequence and its folder.
//
// This class is the run's state machine: it holds where the run stands and picks the next stage.
// Which record a task works on and whether it has work come from UpdateTarget; the blocking work
// of a stage (the download's folder, verifying and unpacking, copying what an increment keeps,
// the publishing transaction) is UpdatePackWork's, which returns each result as a small struct.
//
// Threading: construction and evaluate() may run on any thread; start() and every later stage
// run on the task runner's worker (the network's completions are posted there), so the state of
// a run needs no lock; each stage asserts it (assertOnWorker). Listeners have their own mutex and
// may be added from any thread; they are called on the worker, or at once on the adding thread
// when the task has already ended.
//
// Forms: a run that may take an increment asks first for the patched increment when the record
// names one, then the plain increment, then the full zip; each form that fails in a way the next
// one may not is given up in the same run, saying why ("patchRefused", "incrRefused"), and what it
// left is deleted at once. The record's "form" names the one installed. A failed download of
// the patched increment is refused like any other failure of it, a deadline or a broken
// connection included: the p/ folder alone may be what the server lacks or serves badly, and the
// plain increment is worth asking for. The price is that a server that hangs costs two
// deadlines, one per increment, before the run fails (a failed download of the plain increment
// ends the run; the full zip is fetched only when the increment cannot complete a version).
//
// Failure: every failure ends the task in finished() with `error` set. The record stays as it
// was, installed sequence included, so readers go on with the old version; the temporary folder
// and a half-written new version are deleted. Only two things outlast a failure: status 1 after
// a lost old folder, and a merged pack configuration, which is correct in itself.
//
// Ownership: tasks are shared. create() and createSeq() take their memory from TaskPool, a
// lock-free free list that keeps up to kMaxSpareTasks spares, and the last reference gives it
// back.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/Folder.h"
#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "model/FConfig.h"
#include "model/Pack.h"
#include "model/SCache.h"
#include "support/Mutex.h"
#include "update/UpdatePackWork.h"

namespace FerritCore {

// Where a task stands; reports print the names.
enum class UpdateState : uint32_t {
    Invalid = 0,         // do nothing; `error` says why
    NeedUpdate = 1,      // runnable
    UpToDate = 2,        // nothing to do
    UpdateFinished = 3,  // ended, successfully or not
};
// "Invalid", "NeedUpdate", "UpToDate", "UpdateFinished".
const char* updateStateName(UpdateState state);

// What a trigger may skip, picked once when a task is made.
struct UpdatePolicy {
    bool ignorePriority = false;         // an uninstalled pack needs no priority to qualify
    bool ignoreEliminated = false;       // an evicted pack may come back
    bool ignoreNetwork = false;          // the network status is not consulted
    bool ignoreDisabledPeriods = false;  // "disableInstallPeriods" is not consulted
    bool verifyInstalled = false;        // an up-to-date pack is opened to see that it works
    bool fast = false;                   // goes to the queue's fast lane
    bool boostScore = false;             // adds kBoostScore to the score

    // "Visit" and "Preview": everything but boostScore; "Prefetch": ignorePriority and
    // boostScore; every other trigger: nothing.
    static const UpdatePolicy& forTrigger(UpdateTrigger trigger);
};

// What one finished run came to, as the inspector's update report shows it.
struct UpdateOutcome {
    std::string name;
    uint64_t seq = 0;          // the version the run was for
    std::string form;          // "patched", "incremental" or "full" when it installed; else empty
    std::string patchRefused;  // why the patched increment was given up, or empty
    std::string incrRefused;   // why the plain increment was given up, or empty
    std::string error;         // why the run failed, or empty
};

class UpdatePack : public std::enable_shared_from_this<UpdatePack> {
  public:
    using Listener = std::function<void(const Error& error)>;

    // Spare task objects kept for reuse.
    static constexpr size_t kMaxSpareTasks = 30;
    // Added to the score of a prefetch, and of a read's fixed-sequence fetch.
    static constexpr double kBoostScore = 1000.0;
    static constexpr double kFixedSeqScore = 2000.0;
    // The zip request of every task; a queue that runs tasks side by side may rank them.
    static constexpr uint32_t kDefaultRequestPriority = 0;
    // The access score above which a pack counts as hot: ln 2, the credit of a first install.
    static constexpr double kHotScore = 0.6931471805599453;
    // Milliseconds after the swap at which a replaced version's folder is deleted: a read that
    // took the old resource list just before the swap finishes on the old files.
    static constexpr double kRetiredFolderDelayMs = 1000.0;

    // The usual task: `name` is a pack name or the URL of a fixed-URL app; `info`, a JSON pack
    // record or null, describes the version wanted. Resolves the record and evaluates.
    static std::shared_ptr<UpdatePack> create(const std::string& name,
                                              const MarlLogger::json::JSON& info,
                                              UpdateTrigger trigger);
    // A fixed version of `name`, for a read that needs it: trigger "Visit", kept as "name@seq".
    static std::shared_ptr<UpdatePack> createSeq(const std::string& name, uint64_t seq);

    // Prefer create() and createSeq(), whose objects come from the free list.
    UpdatePack(const std::string& name, const MarlLogger::json::JSON& info, UpdateTrigger trigger);
    UpdatePack(const std::string& name, uint64_t seq);
    virtual ~UpdatePack();
    UpdatePack(const UpdatePack&) = delete;
    UpdatePack& operator=(const UpdatePack&) = delete;

    // Runs the task (worker): evaluates once more, then fetches and installs. Ends in finished()
    // in every case but "up to date" and "invalid", which only tell the listeners.
    virtual void start();

    // Sets `state` and `error` from the record in the configuration, the policy, the network,
    // the disabled periods and what is installed.
    void evaluate();
    // Calls `listener` with `error` once the task ends; at once (on this thread) when `error` is
    // already set or the task has ended.
    void addListener(Listener listener);
    // Folds a duplicate request into this task, which was queued first: the higher score, the
    // other's parent id when this has none, concurrent when either is, and the other's record
    // when it names a newer version of the same pack (a request is answered by the version
    // configured when it was made, or a newer one). The queue calls it under its lock, before
    // the task starts.
    void absorb(const UpdatePack& other);

    double score() const { return score_; }
    const std::string& name() const { return name_; }
    const std::string& requestedName() const { return requestedName_; }
    UpdateTrigger trigger() const { return trigger_; }
    bool concurrent() const { return concurrent_; }
    const std::string& parentId() const { return parentId_; }
    void setParentId(std::string parentId) { parentId_ = std::move(parentId); }
    uint32_t requestPriority() const { return requestPriority_; }
    void setRequestPriority(uint32_t priority) { requestPriority_ = priority; }
    const UpdatePolicy& policy() const { return *policy_; }
    const std::string& runId() const { return run_.runId; }
    uint64_t oldSeq() const { return run_.oldSeq; }
    // The version this task installs: its record's sequence when it was made, then when it
    // started and when the pack configuration completed it. Any thread may read it; the queue
    // compares it to decide whether a new request may share this task's outcome.
    uint64_t targetSeq() const { return targetSeq_.load(std::memory_order_acquire); }
    const PackPtr& pack() const { return pack_; }
    UpdateState state() const { return state_; }
    bool runnable() const { return runnable_; }
    const Error& error() const { return error_; }
    const std::string& url() const { return run_.url; }
    const Folder& tempFolder() const { return run_.download.tempFolder; }
    const Folder& zipFile() const { return run_.download.zipFile; }
    bool persistOld() const { return run_.persisted.persistOld; }
    bool isPacks() const { return run_.isPacks; }
    uint64_t installedSize() const { return run_.installedSize; }
    // Whether this run fetched an increment, patched or plain.
    bool incremental() const { return run_.incremental; }
    // The form this run fetched last: the one installed, when the run installed.
    UpdateForm form() const { return run_.form; }
    const StagedRecord& perf() const { return perf_; }

    // The pack's queue score: its eviction score (Cleanup::evictionScore) over its access value.
    static double packScore(const Pack& pack);
    // The access score that tells whether the installed version of `pack` is hot.
    static bool isHot(const Pack& pack);

    // The stretch of disabled periods: a uniform whole number from 0 to `maxInclusive`. Null
    // restores the default, a generator seeded at random. Tests install a fixed seed.
    using RandomSource = std::function<uint64_t(uint64_t maxInclusive)>;
    static void setRandomSource(RandomSource source);
    // Task objects waiting in the free list.
    static size_t spareCount();

    // The runs kept for the inspector, the latest last.
    static constexpr size_t kRecentOutcomes = 16;
    // The latest finished runs, oldest first; any thread.
    static std::vector<UpdateOutcome> recentOutcomes();

  protected:
    // Ends a run that a subclass drives itself (a task double of the queue's tests): sets the
    // outcome and tells the listeners, on the calling thread.
    void endRun(Error error);

  private:
    // The record of `name` (after resolving), or null; the private clone when one was made.
    void resolve(const MarlLogger::json::JSON& info);
    // The score and "packType" of a runnable task.
    void rate(const char* suffix, double bonus);
    // Publishes the sequence of `pack_` as targetSeq().
    void noteTarget();

    // Stages of the run, each ending in the next or in finished(); all on the worker.
    void announce();
    void requestConfig();
    void onConfig(std::string body, Error error);
    // Merges the record that the pack configuration brought and takes it as `pack_`; false,
    // with the task ended, when the run may not go on.
    bool takeConfig(const std::string& body, Error error);
    void requestResource();
    // The checks before a zip is asked for; false, with the task ended, when it may not be.
    bool mayDownload();
    void onZip(uint64_t expectedSize, Error error);
    void install();
    void installRaw();
    // After the zip's entries are written: the files of the version the zip did not bring.
    // False, with the task ended or the full zip asked for, when the run does not go on.
    bool completeVersion(UpdatePackWork& work, const Folder& installed);
    // Abandons an increment that the installed version cannot complete and fetches the full zip
    // in the same run, saying why in the log and the record.
    void refuseIncrement(Error why);
    // When `why` is set and the run fetched the patched increment, refuses it (refusePatch) and
    // returns true; false otherwise, with the run as it was.
    bool refuseForm(const Error& why);
    // Abandons a patched increment that failed in any way (its download, its MD5, a patch, a
    // reference) and fetches the plain increment in the same run, saying why.
    void refusePatch(const Error& why);
    // Deletes what the form just refused left: its download's folder and its unpublished writes.
    void dropForm();
    // Takes what the publishing transaction produced: the new version is installed.
    void takePublished(Persisted persisted);
    // Makes the published swap durable, deletes what the run leaves behind, reports, and tells
    // the listeners.
    void finished();
    void fail(Error error);
    void logFinished();
    // Keeps what this run came to among the recent outcomes.
    void noteOutcome() const;
    // Posts the deletion of the replaced version's folder, after the swap's commit.
    void retireReplaced();
    // Tells the host of the new version and sends the run's record.
    void report();
    void tellListeners();
    // What the blocking work of this run needs.
    UpdatePackWork::Job job() const;
    // Notes what unpacking wrote, as far as it went.
    void takeUnpacked(const Unpacked& unpacked);

    // What the task was asked for. Set when it is made; the queue raises the score, the parent
    // id and concurrency through absorb() before the task starts.
    double score_ = 0;
    std::string name_;
    std::string requestedName_;
    UpdateTrigger trigger_ = kTriggerNone;
    bool concurrent_ = false;
    std::string parentId_;
    uint32_t requestPriority_ = kDefaultRequestPriority;
    const UpdatePolicy* policy_;
    StagedRecord perf_;

    // The record and where the task stands, as evaluate() found them.
    PackPtr pack_;
    // pack_'s sequence, readable while the worker replaces pack_.
    std::atomic<uint64_t> targetSeq_{0};
    UpdateState state_ = UpdateState::Invalid;
    bool runnable_ = false;
    Error error_;

    // What the run waits for; an answer for another stage is dropped. A request the host does not
    // answer is ended by its deadline in Network, which makes the answer an error.
    enum class Awaiting { Nothing, Config, Zip };
    // The run under way: start() and the stages after it write it, on the worker only.
    struct Run {
        std::string runId;
        uint64_t oldSeq = 0;
        // The pack configuration's address, then the zip's.
        std::string url;
        Awaiting awaiting = Awaiting::Nothing;
        // Whether this run fetches an increment, and in which form; a form once refused, never
        // again in this run.
        bool incremental = false;
        bool fullOnly = false;
        UpdateForm form = UpdateForm::Full;
        bool patchRefused = false;
        // Why a form was given up, as the record says it.
        std::string patchRefusedWhy;
        std::string incrRefusedWhy;
        // Where the download goes.
        DownloadPlan download;
        // Everything to delete when the run ends, in the order it was added; no duplicates.
        std::vector<Folder> tempPaths;
        uint64_t installedSize = 0;
        bool isPacks = false;
        // What the publishing transaction produced; the deletion of the replaced folder waits on
        // its commit.
        Persisted persisted;
        // The replaced version's folder, deleted kRetiredFolderDelayMs after the swap.
        std::optional<Folder> retiredFolder;
        // The new version is published; a run can end without an error and without this (a
        // network status that the host should not send).
        bool installed = false;
    };
    Run run_;

    RecursiveMutex listenersMutex_;
    std::vector<Listener> listeners_ GUARDED_BY(listenersMutex_);
    // Set once the task has ended, so that a late listener is called at once.
    bool ended_ GUARDED_BY(listenersMutex_) = false;
};

using UpdatePackPtr = std::shared_ptr<UpdatePack>;

}  // namespace FerritCore
