// Pack: one pack's configured and installed state in one record. Records are shared and
// immutable once published in a configuration snapshot: a change clones, edits the clone and
// replaces the slot. Reading a published record needs no lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Folder.h"
#include "base/Telemetry.h"
#include "marl/Json.h"

namespace FerritCore {

// The high four bits of the type byte of `flags`.
enum PackType : uint32_t {
    kPackTypeDefault = 0x00,  // plain: resources in the packed store
    kPackTypeACache = 0x40,   // a whole application under "apps/"
    kPackTypeFerrit = 0x50,   // plain, updatable by an incremental zip
    kPackTypeSCache = 0x60,   // delivered with the host application or on demand
};

enum PackStatus : uint32_t {
    kPackStatusNormal = 0,
    kPackStatusNeedReinstall = 1,
    kPackStatusEliminated = 2,
    kPackStatusPreview = 3,
    kPackStatusDeleted = 4,
};

// How a record names its version.
enum PackSubType : uint32_t {
    kSubTypePlain = 0,     // follows the configured sequence
    kSubTypeFixedSeq = 1,  // one fixed sequence, named "pack@seq"
    kSubTypeFixedUrl = 2,  // a whole app fetched from `zipURL`
};

// Priorities (the low four bits of `flags`) that mean something of their own.
constexpr uint32_t kPriorityResident = 7;     // spared by eviction, like kPriorityStartup and up
constexpr uint32_t kPriorityAutoInstall = 8;  // bit 3: installed without a visit
constexpr uint32_t kPriorityStartup = 9;      // and up: also installed by a "Startup" run

// Bits 16 and 17 of `flags`: how the download is packed. 1 is the wrapped payload.
constexpr uint32_t kPayloadWrapped = 1;

// The low four bits of `gray`: a normal record, the released version after a gray one (which
// takes a gray version back), and a version released to a gray group of devices.
constexpr uint64_t kGrayStateMask = 0x0F;
constexpr uint32_t kGrayStateNormal = 0;
constexpr uint32_t kGrayStateReleased = 1;
constexpr uint32_t kGrayStateGray = 2;

// "Normal", "NeedReinstall", "Eliminated", "Preview", "Deleted", or "Unknown".
const char* packStatusName(uint32_t status);

struct Pack {
    std::string name;  // the member key of the document, not a field of the value

    uint64_t seq = 0;
    uint64_t flags = 0;
    uint64_t baseSeq = 0;
    double publishTime = 0;
    uint64_t marker = 0;
    std::string md5;
    std::string incrMd5;
    // "cp": the MD5 of the patched increment, whose changed files travel as patches against the
    // versions since `baseSeq`; empty when none was published. Asked for only where the plain
    // increment would be.
    std::string patchMd5;
    std::vector<std::string> prefixes;
    std::vector<std::string> referrers;
    uint64_t gray = 0;
    double updateTime = 0;
    uint64_t installedSeq = 0;
    uint64_t installedBaseSeq = 0;
    uint64_t installedSize = 0;
    double installTime = 0;
    uint32_t trigger = 0;
    uint32_t subType = kSubTypePlain;
    uint32_t legacySubType = 0;
    std::string zipURL;
    uint32_t status = 0;
    bool isOnDemand = false;
    bool isPacks = false;
    // The lowest installed sequence that may still serve; 0 means no minimum. Not part of the
    // document: it is set by whoever pins a floor on a pack.
    uint64_t minSeq = 0;
    // A version released to part of the devices ("rs", "rp", "rt"): its sequence, the share of
    // devices that take it in basis points (Rollout::kShareScale is all of them), and when it was
    // published. The rest of the record describes the version every other device keeps. A
    // device that does not know these keys reads the record as that released version alone.
    uint64_t rolloutSeq = 0;
    uint32_t rolloutShare = 0;
    double rolloutTime = 0;

    // Reads the fields of a record's JSON object by the lenient rule of coercion (a number as it
    // is, true 1 and false 0, "" "0" "false" 0, "1" "true" 1, other text as a decimal number).
    // Unknown keys are ignored. Does not validate.
    void readJSON(const MarlLogger::json::JSON& object);
    // One member of a record's object, by the same rule; unknown keys are ignored.
    void readField(std::string_view key, const MarlLogger::json::JSON& value);
    // The field a key names when it holds text ("c", "ci", "cp", "zipURL") or a list of text ("p",
    // "r"), for readers that fill them straight from the parser; null for other keys.
    std::string* textField(std::string_view key);
    std::vector<std::string>* listField(std::string_view key);
    // Writes the record's object (without its name), leaving out every key equal to its default.
    void writeJSON(MarlLogger::json::JSONStringer& out) const;
    // Checks type, gray and status; folds the legacy sub type and the "@" of fixed-sequence
    // names into `subType`; fills `updateTime` with now when unset. False when the record must be
    // refused.
    bool validate();
    // A copy; an empty `newName` keeps the name.
    std::shared_ptr<Pack> clone(const std::string& newName = {}) const;

    uint32_t priority() const { return static_cast<uint32_t>(flags & 0x0F); }
    uint32_t packType() const { return static_cast<uint32_t>(flags & 0xF0); }

    // Part of `name` before "@" for a fixed-sequence copy (subType 1), else `name`.
    std::string rootName() const;
    std::string_view rootView() const;
    // `zipURL` for a fixed-URL pack (subType 2), else rootName().
    std::string appName() const;
    std::string_view appNameView() const;
    // The name of a fixed-sequence copy: `name`, "@", and the sequence in decimal.
    static std::string pinnedName(const std::string& name, uint64_t seq);

    bool isSupported() const;
    bool isInstalled() const { return installedSeq != 0; }
    bool needsConfig() const;
    bool isResident() const;
    bool isBuiltIn() const;
    bool canUpdateIncrementally() const;
    // Plain and incremental packs whose record and whose document are both older than
    // `interval` before now.
    bool isOutOfDate(double documentLastUpdate, double interval) const;
    // Bits 16 and 17 of the flags: 1 is the wrapped payload.
    uint32_t payloadKind() const { return static_cast<uint32_t>((flags >> 16) & 0x3); }
    bool allowSlowCellular() const { return (flags >> 14) & 1; }
    bool allowFastCellular() const { return (flags >> 15) & 1; }
    uint32_t grayState() const { return static_cast<uint32_t>(gray & 0x0F); }
    bool inRollout() const { return rolloutSeq != 0; }

    // 1 (reinstall) only takes on an installed pack in status 0; 2 (eliminated) never replaces 2
    // or 3; any other value is stored as it stands.
    void setStatus(uint32_t newStatus);

    // Where the installed version lies, by kind: asset, on-demand, disk under "apps/", or packed.
    Folder installedFolder() const;
    // The installed folder followed by "res/".
    Folder resourcesFolder() const;
};

using PackPtr = std::shared_ptr<const Pack>;

// Per trigger: whether an uninstalled pack needs no priority or statistics to qualify, in which
// case the install also records the trigger. True for "Visit", "Prefetch" and "Preview".
bool triggerIgnoresPriority(UpdateTrigger trigger);

}  // namespace FerritCore
