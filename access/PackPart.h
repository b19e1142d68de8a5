// PackMatch (what a lookup found, and whether that pack may serve) and PackPart (the resource
// part of a pack match). Built on the thread that matches; a part is then read on that thread or
// by one completion at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "access/Resource.h"
#include "base/Folder.h"
#include "model/FConfig.h"
#include "model/ResourceIndex.h"

namespace FerritCore {

class PackMatch {
  public:
    // A match of `pack` in `config`, with every check of whether it may serve. Notes, and does
    // not yet ask for, the update or repair that the checks call for: see requestFollowUp.
    PackMatch(const FConfig& config, PackPtr pack, bool pinned);
    // No pack: `name` is the URL or empty, `error` why nothing serves.
    PackMatch(std::string name, Error error);

    // The match text: "D:name@0" without a pack; "H:" and the URL for a fixed-URL pack;
    // "<letter>:name" for a fixed-sequence pack; "<letter>:name@installedSeq" otherwise, with the
    // letter A, S, F or D by the pack's type. Computed on first use.
    const std::string& info();

    // Asks for what the checks of the construction called for: the pack's update when it cannot
    // serve, a reinstall when its resource list is damaged, a "VisitUpdate" when a newer version
    // is configured. Never waits for it. Whoever makes a match with a pack calls this once, right
    // after making it; a second call asks for nothing.
    void requestFollowUp();

    std::string name;
    std::string configVersion;
    bool pinned = false;
    PackPtr pack;
    double matchTime = 0;
    // The clock when the lookup ended (0 for a match made without one): the time from which its
    // part counts, so that the clock is read once at that boundary.
    double readyTime = 0;
    ResourceIndexPtr index;
    Error error;

  private:
    enum class FollowUp : uint8_t { kNone, kUpdate, kReinstall, kVisitUpdate };

    std::string info_;
    FollowUp followUp_ = FollowUp::kNone;
};

class PackPart : public ResourcePart {
  public:
    PackPart(std::shared_ptr<RequestContext> context, std::string url,
             std::shared_ptr<PackMatch> match);

    // True exactly when the pack has no record for the URL.
    bool isMissing() const override { return record == nullptr; }
    uint64_t size() const override { return content.size(); }
    std::string md5() const override { return record ? record->md5 : std::string(); }
    HeaderMap header() const override;
    // An on-demand pack answers NeedAsync with 1108; a missing file (1101) asks for a reinstall.
    ReadStatus read() override;
    // An on-demand file is read through its module; when that fails, through the backup copy of
    // the pack (tryBackup), which may first be fetched. `callback` runs once, on the thread that
    // finished the read; until it has returned, the part's visit is not reported.
    void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) override;
    void appendTo(std::string& out, unsigned& crc) override;
    void moveTo(std::string& out, unsigned* crc) override;
    // The file that the match opened is read straight into `memory`; anything else (an on-demand
    // pack, a file removed since, a size the signed list refuses, no memory) reads as read() does.
    ReadStatus readInto(ResponseMemory& memory) override;

    std::shared_ptr<PackMatch> match;
    bool firstVisit = false;
    std::shared_ptr<const ResourceRecord> record;
    // The file of the record: the pack's folder joined with the record's path. Made on first use:
    // a hit finds and reads the file relative to the folder that its index holds open.
    const Folder& file() const;
    // Whether the record's file is there, asked of the folder that the index holds open, and of
    // the file's whole path when that says no (or there is no such folder).
    bool fileExists() const;
    double readFileTime = 0;
    std::string content;

  protected:
    // Sends "Ferrit.AppVisit" unless nothing matched (3001); its time ends at `end` (none: now).
    void reportVisit(std::optional<double> end) override;

  private:
    using Callback = std::function<void(std::shared_ptr<ResourcePart>)>;

    bool isOnDemand() const;
    bool readFile();
    // Reads the URL from the pinned copy "name@installedSeq" of the pack. Without a usable copy
    // and with `retry` false, asks the update queue to fetch that copy and tries once more.
    void tryBackup(bool retry, Callback callback);

    double accessCount_ = 0;
    double createTime_;
    mutable std::optional<Folder> file_;
    // The file, opened by the match's check of it (relative to the folder that the index holds
    // open) and read by read().
    HeldFile opened_;
};

// What a "Ferrit.AppVisit" record tells beyond its match. A request's part ("N", or "NF" on the
// first visit of the pack in this process) reads a file; a reader ("RC", "RCF") does not.
struct AppVisit {
    UpdateTrigger trigger = kTriggerNone;
    const char* visitType = "";
    const Error* error = nullptr;  // none when null or empty
    double time = 0;
    std::optional<double> readFileTime;
    double accessCount = 0;
};

// Builds and sends the "Ferrit.AppVisit" record of `match`. The caller has checked that a proxy
// takes records.
void sendAppVisit(const PackMatch& match, const AppVisit& visit);

// Posts, on the main process, the task that marks the pack for reinstall: only the version that
// `damaged` names, so nothing when another process has installed another one by then.
void postReinstall(const Pack& damaged);

}  // namespace FerritCore
