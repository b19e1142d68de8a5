// What a publisher signs into a global configuration document beside its packs, so that devices
// can judge it: when it was signed ("issued", which rises with every signature, so that a device
// never takes one older than what it has), until when it counts ("expires", so that a stale copy
// replayed to a device stops working), and what it says about keys ("keys": the successor of the
// signing key, an endorsement of the signing key by its predecessor, the retired keys). The
// publishing state (the history's state.json) keeps the tree's side of this under "keys",
// "issued" and "expires"; `publish` and `ferrit key` read and write it there. Plain functions;
// one run per tree at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Ed25519PublicKey.h"
#include "marl/Json.h"
#include "tools/common/Ed25519Key.h"
#include "tools/pack/PackBuilder.h"

namespace FerritTools {

// How long a device takes a global configuration document by default: 30 days.
inline constexpr uint64_t kDefaultValidForMs = 30ull * 24 * 3600 * 1000;

// Reads "30d", "12h", "45m", "90s" or a bare number of days into milliseconds; false with
// `error` set for anything else, and for 0.
bool parseDuration(const std::string& text, uint64_t& ms, std::string& error);
// A time in milliseconds since the epoch as "2026-11-25T03:00:00Z".
std::string isoTime(uint64_t ms);

// What one signature of the tree's global documents carries.
struct DocumentStamp {
    uint64_t issued = 0;          // "issued"
    uint64_t expires = 0;         // "expires"; 0 leaves the member out
    MarlLogger::json::JSON keys;  // "keys"; null or an empty object leaves the member out
};

// The tree's signing state as the publishing state keeps it under "keys":
//   {"signer": ID, "signerKey": KEY, "next": KEY, "endorsement": {"key": KEY, "signature": SIG},
//    "retired": [ID]}
// "signer" signs the tree now, "signerKey" is its public key (base64 of the raw bytes; absent in
// a state from before it was kept); "next" is the successor named by `ferrit key rotate --next`
// until a publish signs with it; "endorsement" is the predecessor's endorsement of the signer,
// kept in every document so that a device away during the change still follows.
struct SigningPlan {
    MarlLogger::json::JSON stateKeys;     // the state's new "keys"
    MarlLogger::json::JSON documentKeys;  // the documents' "keys"
    std::string signerId;
    // Packs last signed by another key than this one get a new version, so that their signed
    // lists verify once the other key is retired; the id that signed before this run.
    std::string previousSignerId;
    // The keys whose signature a document of the tree may carry before this run signs it again:
    // the state's signer's, when the state keeps it, and the one that signs now.
    std::vector<std::shared_ptr<const FerritCore::Ed25519PublicKey>> treeKeys;
};

// The member of a pack's record in the state that names the key that signed its newest version,
// and that id for a record (`previousSignerId` for a record from before keys were recorded).
inline constexpr const char* kPackSigner = "key";
std::string packSigner(const MarlLogger::json::JSON& record, const std::string& previousSignerId);
// The member of a version's build record (the pack record's "builds") that names the key that
// signed the version's list, and that id for version `seq` of the pack whose record is `record`:
// the build's own, else the pack's for its newest version, else, for a pack whose record names
// no key at all (all of it published before keys were recorded), `previousSignerId`. Empty when
// the history cannot tell: an earlier version of a pack published since keys were recorded but
// before each version's were.
inline constexpr const char* kVersionSigner = "k";
std::string versionSigner(const MarlLogger::json::JSON& record, uint64_t seq,
                          const std::string& previousSignerId);
// Whether the state retired the key `id`.
bool keyRetired(const MarlLogger::json::JSON& state, const std::string& id);

// Checks that the key `signerId` may sign the tree whose state is `state`, and plans what its
// documents say: the state's signer, or the successor that the state names (which from then on
// is the signer); any key for a tree that never named one. False with `error` set for a retired
// key and for a key the tree was not handed to.
// `signerKey` is the signing key's public key as base64 of its raw bytes, which the state keeps
// from then on; empty when the caller has none.
bool planSigning(const MarlLogger::json::JSON& state, const std::string& signerId,
                 const std::string& signerKey, SigningPlan& plan, std::string& error);

// The stamp of the next signature: "issued" above the state's last one (and not before now),
// "expires" `validForMs` after it.
DocumentStamp nextStamp(const MarlLogger::json::JSON& state, uint64_t validForMs,
                        MarlLogger::json::JSON documentKeys);
// Records a stamp in the state ("issued", "expires").
void recordStamp(MarlLogger::json::JSON& state, const DocumentStamp& stamp);
// Whether the state's documents need signing again: less than half of `validForMs` is left.
bool stampRunsOut(const MarlLogger::json::JSON& state, uint64_t validForMs);

// Signs `json` (a document's JSON object text) with the stamp's members set and every other
// member as it was: the signed document, "<json>||<base64 signature>".
bool stampDocument(const std::string& json, const DocumentStamp& stamp, const Signer& signer,
                   std::string& signedDocument, std::string& error);

// The global documents of the tree `out`, as sorted paths below it: the tree's own below
// "fconfig/" and each channel's below "channels/<name>/fconfig/", at the paths that publish
// writes ("<app>/<app version>/0~<version>/<locale>~" and "<locale>~<locale>") and no other: a
// hidden file or one a killed write left behind is not a document.
std::vector<std::string> globalDocuments(const std::string& out);
// Signs each document of `paths` (below `out`) again with `stamp`'s members and every other member
// as it was, in place. Unless `verifyWith` is empty, a document that none of its keys signed
// fails the whole run. Every document is read, checked and signed before the first is replaced.
bool restampDocuments(
    const std::string& out, const std::vector<std::string>& paths, const DocumentStamp& stamp,
    const Signer& signer,
    const std::vector<std::shared_ptr<const FerritCore::Ed25519PublicKey>>& verifyWith,
    std::string& error);

// `ferrit key rotate`: re-signs every global document of the tree (globalDocuments) and records
// the change in the state of `history`.
struct RotateRequest {
    std::string out;
    std::string history;                       // empty: beside the tree, as publish keeps it
    std::shared_ptr<const Ed25519Key> key;     // the key that signs the tree now
    std::shared_ptr<const Ed25519Key> next;    // --next: the successor; or
    std::shared_ptr<const Ed25519Key> retire;  // --retire: the predecessor to retire
    uint64_t validForMs = kDefaultValidForMs;
};
struct RotateResult {
    std::string signerId;
    std::string nextId;     // set by --next
    std::string retiredId;  // set by --retire
    DocumentStamp stamp;
    std::vector<std::string> resigned;  // paths below the tree
};
bool rotateKeys(const RotateRequest& request, RotateResult& result, std::string& error);

}  // namespace FerritTools
