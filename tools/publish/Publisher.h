// Publishing: turns a site folder and a publishing manifest into a static tree that any static web
// server or CDN serves as it is: the signed global configuration at every path a client's
// configuration request asks for, each pack's signed configuration under
// "packconfig/<name>/<seq>", full zips under "<zips>/<name>/<seq>.zip" and, once a pack has been
// published before, the incremental zip from its base version under "<zips>/<name>/i/<seq>.zip"
// and, when smaller, the patched increment from the same base under "<zips>/<name>/p/<seq>.zip",
// whose changed files travel as patches against the bytes of the older versions' full zips.
// What a later run builds on (sequence numbers, and the list of every version of a pack since its
// base: each path's MD5 and size) is kept in a history folder outside the tree, so that the
// server never serves it; by default beside the tree, "<OUT>.publish". One publish at a time per
// tree; any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "marl/Json.h"
#include "tools/keys/KeyRotation.h"
#include "tools/pack/PackBuilder.h"

namespace FerritTools {

// One pack of a manifest.
struct PublishPack {
    std::string name;    // the pack's name, also its folder name on the server
    std::string folder;  // relative to the site folder
    std::string prefix;  // the URL prefix of its files, ending in "/"
    uint32_t priority = 0;
    std::map<std::string, HeaderFields> headers;  // response headers by path in the folder
};

// The publishing manifest, a JSON document:
// {"app": {"key": K, "version": V, "locale": L}, "zips": "packs/", "version": N,
//  "packs": [{"name", "folder", "prefix", "priority", "headers": {PATH: {NAME: VALUE}}}]}
// "zips" (default "packs/") is where zips go below the tree, the path that the clients' zip prefix
// names; "version" (default: now in ms, and always above the previous publish) the configuration's.
struct PublishManifest {
    std::string appKey;
    std::string appVersion;
    std::string locale;
    std::string zipFolder = "packs/";
    uint64_t version = 0;
    std::vector<PublishPack> packs;
    // Set by the command, not the manifest. The id of the key that signs: a pack whose newest
    // version another key signed gets a new version, and the tree's keys are checked (see
    // planSigning); empty checks and records no key. How long devices take the global
    // configuration from its signature on, and whether to sign it again although nothing
    // changed (it is also signed again, with a new version, when less than half of that is
    // left).
    std::string signerKeyId;
    // That key's public key, base64 of its raw bytes: the state keeps it, so that a later run
    // can check that the tree's documents are the ones its key signed.
    std::string signerPublicKey;
    uint64_t validForMs = kDefaultValidForMs;
    bool resign = false;
};

// Reads a manifest; false with `error` set when it is not one.
bool parseManifest(const std::string& text, PublishManifest& manifest, std::string& error);

// What one pack's publish did.
struct PublishedPack {
    std::string name;
    uint64_t seq = 0;
    uint64_t baseSeq = 0;
    bool changed = false;           // a new version was written
    bool incremental = false;       // with an increment
    bool rebased = false;           // a new base: the history lacked a version since the old one
    bool newKey = false;            // a new base: another key signed the previous version
    std::vector<uint64_t> skipped;  // versions whose zips a publish that never finished left
    IncrementSummary summary;       // what the increment holds
    // The patched increment beside the increment: built whenever the increment is, written only
    // when smaller. Sizes in bytes; `patchedBytes` is that of the one built, written or not.
    bool patched = false;
    uint64_t incrementBytes = 0;
    uint64_t patchedBytes = 0;
    uint64_t fullBytes = 0;
    PatchSummary patches;              // what travels as patches in it
    std::vector<std::string> written;  // paths below the tree
};

struct PublishResult {
    uint64_t version = 0;  // of the global configuration; 0 when nothing changed
    std::vector<PublishedPack> packs;
    std::vector<std::string> configPaths;  // where the global configuration was written
    uint64_t issued = 0;                   // when the global configuration was signed
    uint64_t expires = 0;                  // until when devices take it
    bool resigned = false;                 // signed again with no pack changed
    std::vector<std::string> removed;      // packs that left the manifest with this run
};

// How far a publish has got: the files of the manifest's packs read and zipped so far, and
// their bytes, out of all of them; `step` says what it is on ("pack shop", "configuration").
struct PublishStep {
    std::string step;
    uint64_t files = 0, totalFiles = 0;
    uint64_t bytes = 0, totalBytes = 0;
};
// Called at each step and after each file of a pack's full zip.
using PublishProgress = std::function<void(const PublishStep& step)>;

// The history folder of the tree `out` when none is named: beside it, the tree's folder name
// followed by ".publish" ("/srv/site" keeps "/srv/site.publish"). Empty when `out` has no name of
// its own (the file system's root).
std::string defaultHistoryFolder(const std::string& out);

// How a run releases what it builds.
struct PublishOptions {
    // The channel whose documents the run writes: empty for the tree's own paths, else the
    // documents below "channels/<name>/" (Release.h). Versions and zips serve every channel.
    std::string channel;
    // When set, the one pack the run builds: its new version goes to `rolloutShare` basis points
    // of the channel's devices, and every other pack keeps what the channel gives it.
    std::string rolloutPack;
    uint32_t rolloutShare = 0;
};

// Publishes `site` by `manifest` into the tree `out`, signing with `signer`, keeping what later
// runs build on in `history` (empty: `defaultHistoryFolder(out)`), which must lie outside the
// tree. A tree published by an earlier release kept that in "<out>/.publish/": the first run moves
// it to the history. A pack whose files did not change keeps its version; when none changed
// nothing is written and the result's version is 0. A pack's increment brings a device on its
// base or on any later version to the new one; when the history lacks a version since the base,
// the new version becomes the base and has no increment. False with `error` set when a file
// cannot be read, signed or written.
// A pack's new version is released to every device of the channel, and so is the newest version
// of a pack that the channel did not have; an unchanged pack keeps its release there (a rollout
// in progress, or one taken back, stays as it is).
bool publish(const std::string& site, const PublishManifest& manifest, const std::string& out,
             const std::string& history, const Signer& signer, PublishResult& result,
             std::string& error, const PublishProgress& progress = {},
             const PublishOptions& options = {});

// For the release commands (Release.h), which build on the same history.
// The history folder for `out` (`history`, or the default beside it), checked to lie outside the
// tree, with a history that an earlier release kept in the tree moved there.
bool historyFolderFor(const std::string& out, const std::string& history, std::string& folder,
                      std::string& error);
// The history's state document, an empty object when there is none; false when it is damaged.
bool readPublishState(const std::string& history, MarlLogger::json::JSON& state,
                      std::string& error);
bool writePublishState(const std::string& history, const MarlLogger::json::JSON& state,
                       std::string& error);
// Writes a file below the tree, atomically, making its folders.
bool writeTreeFile(const std::string& out, const std::string& relative, const std::string& content,
                   std::string& error);
// The signing plan of a run whose manifest names its key (planSigning); an empty plan when it
// names none. False with `error` set when that key may not sign the tree.
bool signingPlanOf(const MarlLogger::json::JSON& state, const PublishManifest& manifest,
                   SigningPlan& plan, std::string& error);
// The bytes a new version's patched increment starts from, read back from the full zips below
// `folder` in the tree `out` of the versions `since` (the first is `baseSeq`): for each `changed`
// path that every one of them has, one copy of each distinct older MD5 other than the new one
// (in `current`), read by entry name from the first version that lists it, checked against that
// MD5. A version with nothing still wanted is not read, so the walk ends once every MD5 has its
// bytes. Returns how many full zips it read (a zip that is gone counts for none).
size_t readPatchReferences(const std::string& out, const std::string& folder, uint64_t baseSeq,
                           const std::vector<PackListing>& since, const PackListing& current,
                           const std::vector<std::string>& changed, ReferenceFiles& references);
// Builds the version after the pack's newest (`before`, its record in the state) from `content`:
// its full zip, its increment from the base when the history lists every version since, and its
// list. A version that another key than `signing`'s signer signed before is a new base. `record`
// becomes the pack's new record, with what its own document says of each version under
// "builds". `onFile`, when set, is called after each file of the full zip.
bool buildVersion(const PublishPack& pack, const PackContent& content, const std::string& zipFolder,
                  const std::string& out, const std::string& history, const Signer& signer,
                  const MarlLogger::json::JSON& before, const SigningPlan& signing,
                  PublishedPack& done, MarlLogger::json::JSON& record, std::string& error,
                  const std::function<void(const std::string& path, uint64_t bytes)>& onFile = {});

}  // namespace FerritTools
