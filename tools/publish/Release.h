// Releases: which version of each pack a channel gives to which devices, with nothing but static
// files. Versions (their numbers, zips, increments and lists) are shared by every channel of a
// tree; a channel is a set of signed documents, the tree's own paths for the default channel and
// "channels/<name>/" below it for any other, that name for each pack the version released to
// every device and, during a staged rollout, the version given to a share of them. Devices place
// themselves in a rollout by their install identifier (docs/rollout.md), so the documents are the
// same for every device. A channel's state lives in the publish history beside the versions'.
//
// The commands: rollout (a new version to part of the devices, a share that only grows), promote
// (the version in rollout to every device, or another channel's released version into this one:
// documents re-signed, no zip copied), rollback (the version in rollout taken back, or, for a
// released pack, an earlier version's files published as a new version that every device takes
// whole). One command at a time per tree; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "marl/Json.h"
#include "model/Rollout.h"
#include "tools/publish/Publisher.h"

namespace FerritTools {

// Shares are basis points of the devices, as the documents carry them and devices read them.
using FerritCore::Rollout::kShareScale;
inline constexpr uint32_t kSharePerPercent = 100;

// Below a tree, the folder of the named channels.
inline constexpr const char* kChannelsFolder = "channels/";

// "" for the default channel, else "channels/<name>/": where a channel's documents lie below the
// tree, and what a host adds to the tree's address to read it.
std::string channelFolder(const std::string& channel);
// A channel's name is plain: letters, digits, ".", "_" and "-", not starting with ".".
bool validChannelName(const std::string& channel);

// Every channel that `state` knows: the default one ("") first, then the named ones.
std::vector<std::string> channelsOf(const MarlLogger::json::JSON& state);

// One pack's release in one channel, as the history keeps it.
struct PackRelease {
    uint64_t seq = 0;            // released to every device; 0 when none is yet
    double time = 0;             // its publish time
    uint64_t graySeq = 0;        // in rollout; 0 when none
    double grayTime = 0;         // its publish time
    uint32_t share = 0;          // basis points; 0 with a gray sequence: the rollout was taken back
    std::vector<uint64_t> past;  // versions released before `seq`, oldest first

    static PackRelease fromJSON(const MarlLogger::json::JSON& value);
    MarlLogger::json::JSON toJSON() const;
};

// The release of `pack` in `channel` that `state` (the history's state document) holds. A tree
// published before channels existed released each pack's newest version in the default channel.
PackRelease releaseOf(const MarlLogger::json::JSON& state, const std::string& channel,
                      const std::string& pack);
// Stores a release in the state document.
void setRelease(MarlLogger::json::JSON& state, const std::string& channel, const std::string& pack,
                const PackRelease& release);

// Forgets every channel's release of `pack`, which left the manifest: no channel names it again,
// and the release commands refuse it as not published. The state keeps its last sequence under
// "gone", so that a pack of that name added back later goes on after it, with zips at new paths.
void dropPack(MarlLogger::json::JSON& state, const std::string& pack, uint64_t lastSeq);
// The last sequence of a pack that left the manifest; 0 for any other.
uint64_t goneSeq(const MarlLogger::json::JSON& state, const std::string& pack);

// What one release command did, for its report.
struct ReleaseResult {
    std::string pack;
    std::string channel;
    PackRelease before;
    PackRelease after;
    uint64_t version = 0;              // of the channel's global configuration
    std::vector<std::string> written;  // paths below the tree
    bool built = false;                // a new version was built (a rollout's or a rollback's)
    uint64_t issued = 0;               // when the channel's global configuration was signed
    uint64_t expires = 0;              // until when devices take it
};

// Writes every document of `channel` that `state` asks for: each pack's own document for its
// released and its gray version (written when missing or when it says another gray state), and
// the global configuration at every path a client of the app asks for, with version `version`,
// stamped (`stamp`: signed now, valid for the manifest's time, with `signing`'s keys). The other
// channels' global documents are signed again with the same stamp, as they are. The paths
// written are added to `written`; the state records the stamp and the signing keys.
bool writeChannel(MarlLogger::json::JSON& state, const std::string& channel,
                  const PublishManifest& manifest, const std::string& out, const Signer& signer,
                  const SigningPlan& signing, uint64_t version, std::vector<std::string>& written,
                  DocumentStamp& stamp, std::string& error);
// The next configuration version of `channel`: above its last one and at least now in ms.
uint64_t nextChannelVersion(const MarlLogger::json::JSON& state, const std::string& channel,
                            uint64_t wanted);

// Publishes the pack's files in `site` as a new version given to `share` basis points of the
// devices of `channel` (the same files as the version in rollout only change its share, which
// may only grow). Other packs keep what the channel gives them.
bool rollout(const std::string& site, const PublishManifest& manifest, const std::string& out,
             const std::string& history, const Signer& signer, const std::string& channel,
             const std::string& pack, uint32_t share, ReleaseResult& result, std::string& error);
// Releases to every device of `channel` the pack's version in rollout there, or, with `from`,
// the version that the channel `from` releases: documents only, no zip is copied.
bool promote(const PublishManifest& manifest, const std::string& out, const std::string& history,
             const Signer& signer, const std::string& channel, const std::string& from,
             const std::string& pack, ReleaseResult& result, std::string& error);
// Takes back the pack's version in rollout in `channel`; with none, publishes the files of
// version `to` (0: the one released before the present one) as a new version released to every
// device, which brings a device on any version to exactly those files.
bool rollback(const PublishManifest& manifest, const std::string& out, const std::string& history,
              const Signer& signer, const std::string& channel, const std::string& pack,
              uint64_t to, ReleaseResult& result, std::string& error);

}  // namespace FerritTools
