// FConfig: the process-wide configuration document: which packs exist, at which sequence, which
// URLs they serve, and what this device has installed. Published snapshots are immutable and read
// without a lock (SCache::current()); a change goes through SCache::mutate on a private copy.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/FlatStringMap.h"
#include "base/PrefixTree.h"
#include "base/StringMap.h"
#include "base/Telemetry.h"
#include "ferritcore/Error.h"
#include "marl/Json.h"
#include "model/KeyTrust.h"
#include "model/Pack.h"

namespace FerritCore {

// The two indexes the matcher reads, derived from the records' referrers and prefixes. They are
// shared by the snapshots whose routing is the same, so they name a pack by its place in a
// snapshot's own list of routed records (FConfig::routedPacks), not by the record itself.
struct MatchTables {
    FlatStringMap<uint32_t> urlIndex;  // referrer index: "//" form of a URL -> place of its pack
    PrefixTree prefixTree;             // prefix index
    std::vector<std::string> names;    // the name of the pack at each place
    FlatStringMap<uint32_t> places;    // pack name -> its place
};

// "fullMark" of a document that lists every pack.
constexpr uint32_t kFullMark = 4294967295u;

class FConfig {
  public:
    // A document with the defaults; env, clientVersion and locale are the running ones.
    FConfig();
    // A copy for a transaction: document fields and the map of (shared) records. `dirty` starts
    // false, `removed` empty; the indexes are rebuilt when the transaction ends.
    FConfig copyForChange() const;

    // Parses a document. With `checkSignature` the text is "<json>||<base64 signature>" and the
    // signature must verify. `origin` (a URL, "local", "Push Message") names the source in
    // messages. Null with `error` set on failure; a bad record is left out, not a failure. The
    // matcher's tables are empty until the document is published or rebuildIndexes() is called.
    static std::shared_ptr<FConfig> parse(std::string_view text, const std::string& origin,
                                          Error& error, bool checkSignature);
    // Parses a document that this device stored (origin "local", no signature), reading `text`
    // in place: the megabytes of a large document are not copied once more. Give the text
    // JSON::kInPlaceSpare bytes of spare capacity. `reread` gives the stored text again, only to
    // report a refused record as it was stored (rare: this device stores records that validated).
    static std::shared_ptr<FConfig> parseStored(std::string text, Error& error,
                                                const std::function<std::string()>& reread);
    // Splits "<json>||<signature>" at the last "||" and checks the signature of the MD5 of the
    // JSON through the proxy. On success `body` holds the JSON alone.
    // `signer`, when given, receives the id of the key that signed (KeyTrust::signerOf), and
    // `statements` what the document says about keys; a key that only an endorsement in the
    // document vouches for verifies too.
    static bool verifySignature(std::string_view& body, const std::string& origin, Error& error,
                                std::string* signer = nullptr, KeyStatements* statements = nullptr);
    // Reads the member "packs" of a document: a non-empty object is a record, which must
    // validate (a refused one is reported and left out); anything else marks the pack deleted.
    static void readPacks(const MarlLogger::json::JSON& object, StringMap<PackPtr>& out);
    // The document as JSON, keys equal to their defaults left out, packs in name order.
    std::string serialize() const;

    // Takes in a fetched document (see the merge rules in FConfig.cc). Call on a transaction copy.
    // A record in rollout is first resolved for this device (resolveRollout), whose install
    // identifier is read only when the document holds such a record.
    void merge(const FConfig& document);
    // The same, taking the document's records instead of copying them; the document is left
    // without records.
    void merge(FConfig&& document);
    // The merge of a device whose install identifier is `installId` (empty: one without).
    void merge(const FConfig& document, std::string_view installId);
    void merge(FConfig&& document, std::string_view installId);
    // What a record in rollout ("rs") says to the device with `installId`, given what this
    // document holds: a device in the share gets the gray record that a gray-group device would
    // be sent (the rollout's sequence and time, gray state 2, and no base or digests, so that the
    // version's own document is asked for); any other device gets the released version the
    // record describes, or null when nothing is released yet and the device holds no gray
    // version of the pack that the first-gray rollback would take away (such a record is marked
    // deleted, so that a device that does not know the keys sees no pack; the resolved record is
    // not). A record not in rollout comes back as it is.
    PackPtr resolveRollout(PackPtr record, std::string_view installId) const;
    // Takes in one record: sequence, gray and rollback rules. A record held by no one else is
    // taken as it is and may be edited.
    void mergePack(PackPtr pack);

    // The records by name. Every change goes through the writers below, so that the document
    // knows whether its routing still matches the tables it holds.
    const StringMap<PackPtr>& packs() const { return packs_; }
    // The record, or null.
    PackPtr find(std::string_view name) const;
    // Stores a record under its name and marks the document dirty.
    void put(PackPtr pack);
    // Moves the record to `removed` (its folder goes at commit); false when there is none.
    bool remove(std::string_view name);
    // For readers that assemble a document: stores a record, takes one out, or takes out all,
    // leaving `dirty` and `removed` as they are (no folder of theirs is to go).
    void store(PackPtr pack);
    bool erase(std::string_view name);
    void clearPacks();
    // Applies Pack::setStatus to a clone; stores it when the status changed.
    void setStatus(std::string_view name, uint32_t status);
    // Records a finished install of `seq`.
    void setInstalled(std::string_view name, UpdateTrigger trigger, uint64_t seq, uint64_t baseSeq,
                      uint64_t size, bool isPacks);

    // Rebuilds the matcher's tables; shares those of `previous` when no record's routing changed,
    // so that a transaction that touches no prefix or referrer costs no index rebuild. A copy of
    // `previous` whose writers replaced records only by records that route alike keeps its
    // tables without comparing the records again.
    void rebuildIndexes(const FConfig* previous = nullptr);
    const FlatStringMap<uint32_t>& urlIndex() const { return tables_->urlIndex; }
    const PrefixTree& prefixTree() const { return tables_->prefixTree; }
    // The record of the pack that the referrer index names for URL key `k`, or null: one probe of
    // the index and no lookup of the name.
    PackPtr packForUrl(std::string_view k) const {
        const uint32_t* place = tables_->urlIndex.find(k);
        return place == nullptr ? nullptr : (*routed_)[*place];
    }
    // The record of a pack that the tables name (as the prefix index answers), or null.
    PackPtr routedPack(std::string_view name) const {
        const uint32_t* place = tables_->places.find(name);
        return place == nullptr ? nullptr : (*routed_)[*place];
    }
    // The name of the pack that the referrer index names for URL key `k`; empty when none. A view
    // into the tables: valid while this snapshot lives.
    std::string_view urlPackName(std::string_view k) const {
        const uint32_t* place = tables_->urlIndex.find(k);
        return place == nullptr ? std::string_view() : std::string_view(tables_->names[*place]);
    }
    // The name of the pack at a place of the tables (a value of urlIndex()); valid while this
    // snapshot lives.
    const std::string& routedName(uint32_t place) const { return tables_->names[place]; }

    // Document fields.
    std::string version = "0";
    uint32_t fullMark = 0;
    std::string scacheVersion = "0";
    double delay = 60000.0;
    uint32_t env = 2;
    std::string clientVersion;
    std::string locale;
    double lastUpdate = 0;
    double lastFullUpdate = 0;
    // When the publisher signed the document, in milliseconds since the epoch: rises with every
    // signature, so that a device never takes a document signed before the one it has ("issued";
    // 0 when the document does not say). A re-signed document keeps its `version`.
    double issued = 0;
    // When a fetched copy of the document stops counting, in milliseconds since the epoch, so that
    // an old copy replayed to a device is not taken ("expires"; 0: never).
    double expires = 0;
    // How far "issued" may lie ahead of the device's clock: clocks disagree, by less than a day.
    // A document signed further ahead is refused, and the stamp a device keeps never passes it,
    // so that one document cannot hold back every later one.
    static constexpr double kIssuedSkewMs = 86400000.0;

    // Of a document parsed with its signature, never serialised: the id of the key that signed,
    // and what the document says about keys (its member "keys").
    std::string signer;
    KeyStatements keyStatements;
    // Of a fetched document, never serialised: the publisher's channel it was signed for
    // ("channel"; empty, the default channel, when it does not say).
    std::string channel;

    // Transaction state, never serialised.
    bool dirty = false;
    std::unordered_set<PackPtr> removed;

    bool isFull() const { return fullMark == kFullMark; }

  private:
    // The document fields and, for a full document, the removal of records it no longer lists.
    void mergeFields(const FConfig& document);
    // Takes in one record of a document; `installId` is read at the first record in rollout.
    void mergeResolved(PackPtr pack, std::optional<std::string>& installId);
    // Puts `pack` in the slot of the record it replaces, noting whether the tables still fit.
    void replaceIn(StringMap<PackPtr>::iterator slot, PackPtr pack);
    // Reads the document's members straight from the parser (FConfigReader.cc); false when
    // `text` is not a JSON object.
    bool read(std::string_view text, std::string& reason);
    // The same over `text` read in place (JSON::parseEventsInPlace); `reread` gives the text
    // again for the report of a refused record.
    bool readInPlace(std::string& text, std::string& reason,
                     const std::function<std::string()>& reread);
    // What parse and parseStored do once the document is read: the checks and defaults of its
    // fields. False with `error` set when it has no version.
    bool finishParse(const std::string& origin, Error& error);
    // Reports a record that must not be kept, as the server sent it, so that the server side can
    // be fixed.
    static void reportRefused(const std::string& name, const MarlLogger::json::JSON& record);
    // Reports each record of `text` whose name is in `names`.
    static void reportRefusedIn(std::string_view text,
                                const std::unordered_set<std::string>& names);

    StringMap<PackPtr> packs_;
    // Whether tables_ route as packs_ did when they were built, and every change since replaced
    // a record (no name came or went): `replaced_` lists each change, the record before and the
    // record after, in order. rebuildIndexes keeps the tables when each pair routes alike.
    bool tablesFit_ = false;
    std::vector<std::pair<PackPtr, PackPtr>> replaced_;
    std::shared_ptr<const MatchTables> tables_;
    // This snapshot's record of each pack the tables name, by place (every place has one):
    // what the tables answer is the current record without a lookup of its name.
    std::shared_ptr<const std::vector<PackPtr>> routed_;
};

using FConfigPtr = std::shared_ptr<const FConfig>;

// "0" for empty, and anything from the first "." on cut off.
std::string normalizeVersion(std::string_view version);
// A version read as an unsigned integer; 0 when it does not parse.
uint64_t versionNumber(std::string_view version);
// A time of a document ("issued", "expires") in whole milliseconds, for reports; 0 for a number
// that is no such time (negative, not a number, too large), as a lenient read may give.
uint64_t wholeMilliseconds(double ms);

}  // namespace FerritCore
