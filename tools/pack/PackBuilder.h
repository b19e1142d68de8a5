// The pack kit: what the publishing side makes for the library to download, from folders of
// files: a pack zip with its signed resource list, the incremental zip between two versions, the
// wrapped image form of a zip, and the signed pack configuration document. Every output is
// deterministic: the same input (and key) gives the same bytes. Plain functions; any thread, as
// long as the signer may be called from it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace FerritTools {

class Ed25519Key;

// Produces the raw signature bytes of an MD5 text; false with `error` set when it cannot.
using Signer =
    std::function<bool(const std::string& md5Hex, std::string& signature, std::string& error)>;
// A signer with the Ed25519 key (which must hold its private half).
Signer ed25519Signer(std::shared_ptr<const Ed25519Key> key);

// Relative path below the resources ("css/app.css", no "res/") to content; ordered by path.
using PackFiles = std::map<std::string, std::string>;
// Response headers of one resource, by name.
using HeaderFields = std::map<std::string, std::string>;

struct PackContent {
    PackFiles files;
    // Headers for some paths of `files`; a path that names no file is an error.
    std::map<std::string, HeaderFields> headers;
};

struct PackOptions {
    // Each resource's URL is the prefix followed by its path.
    std::string urlPrefix;
    // What the index carries between its two separators; readers skip it.
    std::string token = "ed25519";
    Signer signer;
    int level = 9;  // deflate level of every entry
    // Called after each file of a full zip is written into it, with its path and size: what a
    // progress bar of a long build counts.
    std::function<void(const std::string& path, uint64_t bytes)> onFile;
};

// What an incremental zip holds, by path.
struct IncrementSummary {
    std::vector<std::string> changed;  // in the base too, but not the same in every version since
    std::vector<std::string> added;    // not in the base
    std::vector<std::string> removed;  // in the base or a later version, not in the new one
};

// What a version's list says of one file: the MD5 of its bytes (lower-case hexadecimal) and their
// count; `size` is negative when it is not known.
struct ListedFile {
    std::string md5;
    int64_t size = -1;
    bool operator==(const ListedFile& other) const = default;
};
// A version's files as its list describes them, by path below the resources.
using PackListing = std::map<std::string, ListedFile>;
PackListing listingOf(const PackFiles& files);

// Where a pack zip puts its files and its resource list.
inline constexpr std::string_view kResourcePrefix = "res/";
inline constexpr std::string_view kIndexEntry = "app-res.hvc";

// Every regular file below `folder`, by path relative to it with "/" separators; ".DS_Store"
// files and "__MACOSX" folders are left out. False with `error` set when the folder or a file
// cannot be read.
bool readFolder(const std::string& folder, PackFiles& files, std::string& error);

// The resource list's JSON: {"res/<path>": {"url": prefix + path, "v": MD5, "size": bytes,
// "header": {...}}} for each file in path order (an empty file has the MD5 of no bytes and size 0),
// then {"res/<path>": {"url": prefix + path}} for each removed path: a record without "v" hides
// that path.
bool indexJson(const PackContent& content, const std::string& urlPrefix,
               const std::vector<std::string>& removed, std::string& json, std::string& error);
// A signed resource list: json, "||", token, "|", base 64 signature of the JSON's MD5 text.
bool signIndex(const std::string& json, const std::string& token, const Signer& signer,
               std::string& signedIndex, std::string& error);
// A signed configuration document: json, "||", base 64 signature of the JSON's MD5 text.
bool signDocument(const std::string& json, const Signer& signer, std::string& signedDocument,
                  std::string& error);

// The full pack zip: "app-res.hvc" first, then every file as "res/<path>" in path order.
bool buildPack(const PackContent& content, const PackOptions& options, std::string& zip,
               std::string& error);
// The incremental zip from `previous` to `current`: its "app-res.hvc" lists every file of
// `current` and a record without "v" for each path that `current` no longer has, so that it
// describes the new version whole; its entries are only the changed and added files.
bool buildIncrement(const PackContent& previous, const PackContent& current,
                    const PackOptions& options, std::string& zip, std::string& error,
                    IncrementSummary* summary = nullptr);

// A changed file travels as patches only when its patches together are at least this many bytes
// smaller than the file as the plain increment carries it: below that the saving does not pay
// for a device's patching.
inline constexpr uint64_t kPatchMarginBytes = 256;

// What a patched increment did with the changed files.
struct PatchSummary {
    std::vector<std::string> patched;  // paths that travel as patches
    uint64_t wholeBytes = 0;           // those files deflated, as the plain increment has them
    uint64_t patchBytes = 0;           // their patches
};
// The bytes of older versions' files that patches start from: by path, then by the MD5 of the
// bytes, each held once however many versions had it. An older MD5 without its bytes here makes
// its path travel whole.
using ReferenceFiles = std::map<std::string, std::map<std::string, std::string>>;

// The incremental zip that brings a device on any of the versions `since` (the base first, then
// every version published after it, in order) to `current`: a device copies what the zip leaves
// out from the version it has, so the zip carries every file of `current` that is not the same in
// all of them (a file changed and changed back, or removed and restored, differs on the device of
// the version between), and its list names as removed every path that any of them had and
// `current` has not. False with `error` set when `since` is empty.
// With `references`, the patched increment instead: the same signed list, and each such file
// either whole as "res/<path>" or, when every version since the base has the path and each
// distinct older MD5 (other than the new one) has its bytes in `references` and a patch, and the
// patches together save at least kPatchMarginBytes against the file as the plain increment
// carries it, as one stored entry "patch/<older MD5>/<path>" per such MD5, the newest version's
// first. `patches`, when set, says what travelled as patches.
bool buildIncrementSince(const std::vector<PackListing>& since, const PackContent& current,
                         const PackOptions& options, std::string& zip, std::string& error,
                         IncrementSummary* summary = nullptr,
                         const ReferenceFiles* references = nullptr,
                         PatchSummary* patches = nullptr);
// The patched increment from `previous` to `current`: buildIncrementSince with `previous` as the
// one version since the base, and its files as the references.
bool buildPatchedIncrement(const PackContent& previous, const PackContent& current,
                           const PackOptions& options, std::string& zip, std::string& error,
                           PatchSummary* summary = nullptr);

// A valid 1x1 grey PNG image whose IEND chunk carries the zip: its raw MD5, the zip with every
// byte combined by exclusive-or with the low 8 bits of `seq`, and the chunk's CRC-32. False when
// the zip is too large for one PNG chunk.
bool wrapPayload(std::string_view zip, uint64_t seq, std::string& png, std::string& error);
// The same image with an empty IEND chunk: an ordinary PNG.
std::string plainPng();

// One pack of a configuration document; members equal to their default are left out.
struct ConfigPack {
    std::string name;
    uint64_t seq = 0;                   // "s"
    uint64_t flags = 0;                 // "f"
    uint64_t baseSeq = 0;               // "b"
    double publishTime = 0;             // "t", milliseconds since the epoch
    std::string md5;                    // "c": MD5 of the full zip
    std::string incrMd5;                // "ci": MD5 of the incremental zip
    std::string patchMd5;               // "cp": MD5 of the patched increment, from the same base
    std::vector<std::string> prefixes;  // "p"
    uint64_t gray = 0;                  // "g": 1 released after a gray version, 2 gray
    uint64_t rolloutSeq = 0;            // "rs": the version in rollout beside this one
    uint32_t rolloutShare = 0;          // "rp": its share of the devices, in basis points
    double rolloutTime = 0;             // "rt": its publish time
    uint32_t status = 0;                // "status": 4 marks the pack deleted
};
// The signed document {"v": version, "packs": {name: {...}}} with the packs in the given order.
// A version is required (a document without one is refused by the reader).
bool buildConfig(const std::string& version, const std::vector<ConfigPack>& packs,
                 const Signer& signer, std::string& document, std::string& error);

// One pack of a preload zip: its record in the zip's configuration and its files.
struct PreloadPack {
    ConfigPack record;
    PackContent content;
    // The prefix of this pack's resource URLs in its list; empty takes the options' prefix, so
    // that packs serving different sites can share one zip.
    std::string urlPrefix;
};
// The configuration entry of a preload zip.
inline constexpr std::string_view kPreloadConfigEntry = "fconfig.config";
// A preload zip, which an app ships among its raw files: "fconfig.config", the signed document
// of the records (version `version`), then each pack as its installed version folder holds it:
// "<name>/<seq>/app-res.hvc" and "<name>/<seq>/res/<path>" in path order.
bool buildPreload(const std::string& version, const std::vector<PreloadPack>& packs,
                  const PackOptions& options, std::string& zip, std::string& error);

}  // namespace FerritTools
