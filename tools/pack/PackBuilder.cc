#include "tools/pack/PackBuilder.h"

#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "base/Digest.h"
#include "marl/Json.h"
#include "storage/Patch.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/pack/ZipWriter.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;
namespace fs = std::filesystem;

namespace {

// Left out of a pack: what archivers and file browsers of one desktop system leave behind.
bool isLeftOut(const fs::path& relative) {
    for (const auto& piece : relative)
        if (piece == "__MACOSX") return true;
    return relative.filename() == ".DS_Store";
}

std::string rawMd5(std::string_view data) {
    const std::string hex = FerritCore::Digest::md5Hex(data);
    std::string raw(hex.size() / 2, '\0');
    auto nibble = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    for (size_t i = 0; i < raw.size(); ++i)
        raw[i] = static_cast<char>((nibble(hex[2 * i]) << 4) | nibble(hex[2 * i + 1]));
    return raw;
}

void appendBigEndian32(std::string& out, uint32_t value) {
    out.push_back(static_cast<char>(value >> 24));
    out.push_back(static_cast<char>(value >> 16));
    out.push_back(static_cast<char>(value >> 8));
    out.push_back(static_cast<char>(value));
}

// One PNG chunk: length, type, data, and the CRC-32 of type and data.
void appendChunk(std::string& out, std::string_view type, std::string_view data) {
    appendBigEndian32(out, static_cast<uint32_t>(data.size()));
    std::string typed(type);
    typed.append(data);
    out.append(typed);
    appendBigEndian32(out, FerritCore::Digest::crc32(typed));
}

// Signature, header and image data of a 1x1 grey image: everything but its IEND chunk.
std::string pngImage() {
    std::string png("\x89PNG\r\n\x1a\n", 8);
    std::string header;
    appendBigEndian32(header, 1);  // width
    appendBigEndian32(header, 1);  // height
    header.append(
        std::string("\x08\x00\x00\x00\x00", 5));  // depth 8, grey, deflate, no filter, no interlace
    appendChunk(png, "IHDR", header);
    // One scanline: filter byte 0 and one black pixel.
    const unsigned char scanline[2] = {0, 0};
    unsigned char compressed[64];
    uLongf length = sizeof(compressed);
    compress2(compressed, &length, scanline, sizeof(scanline), 9);
    appendChunk(png, "IDAT", std::string_view(reinterpret_cast<char*>(compressed), length));
    return png;
}

// An empty file is stored as it is, as archivers write one: no bytes of data, where a deflated
// entry would carry the two bytes of an empty stream.
bool storesAsDeflated(std::string_view content) {
    return !content.empty();
}

bool writeZip(const std::string& index, const PackContent& content,
              const std::vector<std::string>& paths, int level, std::string& zip,
              std::string& error,
              const std::function<void(const std::string&, uint64_t)>& onFile = {}) {
    ZipWriter writer;
    ZipWriter::Entry entry;
    entry.level = level;
    entry.name = std::string(kIndexEntry);
    entry.content = index;
    if (!writer.add(entry, error)) return false;
    for (const std::string& path : paths) {
        entry.name = std::string(kResourcePrefix) + path;
        entry.content = content.files.at(path);
        entry.deflate = storesAsDeflated(entry.content);
        if (!writer.add(entry, error)) return false;
        if (onFile) onFile(path, entry.content.size());
    }
    return writer.finish(zip, error);
}

bool signedIndexOf(const PackContent& content, const PackOptions& options,
                   const std::vector<std::string>& removed, std::string& index,
                   std::string& error) {
    std::string json;
    return indexJson(content, options.urlPrefix, removed, json, error) &&
           signIndex(json, options.token, options.signer, index, error);
}

}  // namespace

PackListing listingOf(const PackFiles& files) {
    PackListing listing;
    for (const auto& [path, content] : files)
        listing[path] =
            ListedFile{FerritCore::Digest::md5Hex(content), static_cast<int64_t>(content.size())};
    return listing;
}

Signer ed25519Signer(std::shared_ptr<const Ed25519Key> key) {
    return [key = std::move(key)](const std::string& md5Hex, std::string& signature,
                                  std::string& error) {
        if (!key) {
            error = "no key";
            return false;
        }
        return key->sign(md5Hex, signature, error);
    };
}

bool readFolder(const std::string& folder, PackFiles& files, std::string& error) {
    std::error_code code;
    if (!fs::is_directory(folder, code)) {
        error = folder + " is no directory";
        return false;
    }
    files.clear();
    fs::recursive_directory_iterator it(folder, code), end;
    for (; !code && it != end; it.increment(code)) {
        if (!it->is_regular_file(code)) continue;
        const fs::path relative = fs::relative(it->path(), folder, code);
        if (code || isLeftOut(relative)) continue;
        std::string content;
        if (!readWholeFile(it->path().string(), content)) {
            error = "cannot read " + it->path().string();
            return false;
        }
        files[relative.generic_string()] = std::move(content);
    }
    if (code) {
        error = "cannot list " + folder + ": " + code.message();
        return false;
    }
    return true;
}

bool indexJson(const PackContent& content, const std::string& urlPrefix,
               const std::vector<std::string>& removed, std::string& json, std::string& error) {
    for (const auto& [path, unused] : content.headers) {
        if (content.files.count(path) == 0) {
            error = "a header names no file: " + path;
            return false;
        }
    }
    JSONObject table;
    for (const auto& [path, data] : content.files) {
        JSONObject record{{"url", urlPrefix + path},
                          {"v", FerritCore::Digest::md5Hex(data)},
                          {"size", JSON(static_cast<uint64_t>(data.size()))}};
        const auto headers = content.headers.find(path);
        if (headers != content.headers.end() && !headers->second.empty()) {
            JSONObject header;
            for (const auto& [name, value] : headers->second) header.set(name, value);
            record.set("header", JSON(std::move(header)));
        }
        table.set(std::string(kResourcePrefix) + path, JSON(std::move(record)));
    }
    for (const std::string& path : removed) {
        if (content.files.count(path) != 0) {
            error = "a removed path is still a file: " + path;
            return false;
        }
        table.set(std::string(kResourcePrefix) + path, JSON(JSONObject{{"url", urlPrefix + path}}));
    }
    json = JSON(std::move(table)).toString();
    return true;
}

bool signIndex(const std::string& json, const std::string& token, const Signer& signer,
               std::string& signedIndex, std::string& error) {
    if (token.find('|') != std::string::npos) {
        error = "the token may not hold \"|\"";
        return false;
    }
    std::string signature;
    if (!signer) {
        error = "no signer";
        return false;
    }
    if (!signer(FerritCore::Digest::md5Hex(json), signature, error)) return false;
    signedIndex = json + "||" + token + "|" + base64Encode(signature);
    return true;
}

bool signDocument(const std::string& json, const Signer& signer, std::string& signedDocument,
                  std::string& error) {
    std::string signature;
    if (!signer) {
        error = "no signer";
        return false;
    }
    if (!signer(FerritCore::Digest::md5Hex(json), signature, error)) return false;
    signedDocument = json + "||" + base64Encode(signature);
    return true;
}

bool buildPack(const PackContent& content, const PackOptions& options, std::string& zip,
               std::string& error) {
    std::string index;
    if (!signedIndexOf(content, options, {}, index, error)) return false;
    std::vector<std::string> paths;
    for (const auto& [path, unused] : content.files) paths.push_back(path);
    return writeZip(index, content, paths, options.level, zip, error, options.onFile);
}

bool buildIncrement(const PackContent& previous, const PackContent& current,
                    const PackOptions& options, std::string& zip, std::string& error,
                    IncrementSummary* summary) {
    return buildIncrementSince({listingOf(previous.files)}, current, options, zip, error, summary);
}

namespace {

// What the plain increment's entry of `content` weighs: stored or deflated by the entry's own
// rule, and deflated raw at `level` as the zip writer does.
uint64_t wholeEntrySize(const std::string& content, int level) {
    return storesAsDeflated(content) ? rawDeflate(content, level).size() : content.size();
}

// The entries that carry `path` of a patched increment as patches, one per distinct MD5 it had
// since the base other than `md5` (its new one), newest version first; false when it travels
// whole: a version lacks it (a device there has nothing to patch), a reference's bytes are not at
// hand, a patch fails, or the patches together do not save the margin against the file whole:
// the zip carries every one of them, so it is their sum that must pay.
bool patchEntries(const std::string& path, const std::string& bytes, const std::string& md5,
                  const std::vector<PackListing>& since, const ReferenceFiles& references,
                  int level, std::vector<ZipWriter::Entry>& entries, PatchSummary& summary) {
    const auto held = references.find(path);
    std::vector<std::pair<std::string, const std::string*>> olds;
    // Newest first: the devices most likely to update are the most recent ones, and the patches
    // stop at the first that breaks the margin, so the likeliest are judged before the rest.
    for (auto list = since.rbegin(); list != since.rend(); ++list) {
        const auto file = list->find(path);
        if (file == list->end()) return false;
        const std::string& oldMd5 = file->second.md5;
        if (oldMd5 == md5 || std::any_of(olds.begin(), olds.end(),
                                         [&](const auto& old) { return old.first == oldMd5; }))
            continue;
        if (held == references.end()) return false;
        const auto stored = held->second.find(oldMd5);
        // Only bytes that are what the list says: a patch against others would fail every device.
        if (stored == held->second.end() || FerritCore::Digest::md5Hex(stored->second) != oldMd5)
            return false;
        olds.emplace_back(oldMd5, &stored->second);
    }
    const uint64_t whole = wholeEntrySize(bytes, level);
    std::vector<ZipWriter::Entry> made;
    uint64_t patchBytes = 0;
    for (const auto& [oldMd5, reference] : olds) {
        FerritCore::ErrorOr<std::string> patch = FerritCore::makePatch(*reference, bytes);
        // A file beyond what a device patches travels whole, as it would without patches.
        if (!patch.ok()) return false;
        ZipWriter::Entry entry;
        entry.name = FerritCore::patchEntryName(oldMd5, path);
        entry.content = std::move(*patch);
        entry.deflate = false;  // a zstd frame does not deflate further
        patchBytes += entry.content.size();
        // The sum only grows: once past the margin no further patch can bring it back, and each
        // costs a slow high-level compression.
        if (patchBytes + kPatchMarginBytes > whole) return false;
        made.push_back(std::move(entry));
    }
    if (made.empty()) return false;
    entries = std::move(made);
    summary.patched.push_back(path);
    summary.wholeBytes += whole;
    summary.patchBytes += patchBytes;
    return true;
}

// What an increment from the versions `since` to `current` holds, and the paths it carries with
// their new MD5s, in path order.
IncrementSummary incrementContent(const std::vector<PackListing>& since, const PackContent& current,
                                  std::vector<std::pair<std::string, std::string>>& paths) {
    const PackListing& base = since.front();
    IncrementSummary found;
    for (const auto& entry : current.files) {
        // A named reference, not a structured binding: the lambda below captures it.
        const std::string& path = entry.first;
        std::string md5 = FerritCore::Digest::md5Hex(entry.second);
        const bool sameEverywhere = std::all_of(since.begin(), since.end(), [&](const auto& list) {
            const auto file = list.find(path);
            return file != list.end() && file->second.md5 == md5;
        });
        if (sameEverywhere) continue;
        (base.count(path) != 0 ? found.changed : found.added).push_back(path);
        paths.emplace_back(path, std::move(md5));
    }
    std::set<std::string> removed;
    for (const PackListing& list : since) {
        for (const auto& [path, unused] : list)
            if (current.files.count(path) == 0) removed.insert(path);
    }
    found.removed.assign(removed.begin(), removed.end());
    return found;
}

// Adds the entries of the carried `paths` after the list: each file whole, or with `references`
// as its patches when they pay.
bool addIncrementEntries(ZipWriter& writer,
                         const std::vector<std::pair<std::string, std::string>>& paths,
                         const std::vector<PackListing>& since, const PackContent& current,
                         const PackOptions& options, const ReferenceFiles* references,
                         PatchSummary& patched, std::string& error) {
    ZipWriter::Entry entry;
    entry.level = options.level;
    std::vector<ZipWriter::Entry> asPatches;
    for (const auto& [path, md5] : paths) {
        const std::string& bytes = current.files.at(path);
        if (references != nullptr &&
            patchEntries(path, bytes, md5, since, *references, options.level, asPatches, patched)) {
            for (ZipWriter::Entry& patch : asPatches) {
                patch.level = options.level;
                if (!writer.add(patch, error)) return false;
            }
            continue;
        }
        entry.name = std::string(kResourcePrefix) + path;
        entry.content = bytes;
        entry.deflate = storesAsDeflated(bytes);
        if (!writer.add(entry, error)) return false;
    }
    return true;
}

}  // namespace

bool buildIncrementSince(const std::vector<PackListing>& since, const PackContent& current,
                         const PackOptions& options, std::string& zip, std::string& error,
                         IncrementSummary* summary, const ReferenceFiles* references,
                         PatchSummary* patches) {
    if (since.empty()) {
        error = "an increment needs the list of its base version";
        return false;
    }
    std::vector<std::pair<std::string, std::string>> paths;  // with the new MD5
    IncrementSummary found = incrementContent(since, current, paths);
    std::string index;
    if (!signedIndexOf(current, options, found.removed, index, error)) return false;
    // One writer for both forms: the plain increment is this with no references, entry for entry
    // what a device that knows no patches has always been given.
    ZipWriter writer;
    ZipWriter::Entry entry;
    entry.level = options.level;
    entry.name = std::string(kIndexEntry);
    entry.content = index;
    if (!writer.add(entry, error)) return false;
    PatchSummary patched;
    if (!addIncrementEntries(writer, paths, since, current, options, references, patched, error) ||
        !writer.finish(zip, error))
        return false;
    if (summary != nullptr) *summary = std::move(found);
    if (patches != nullptr) *patches = std::move(patched);
    return true;
}

bool buildPatchedIncrement(const PackContent& previous, const PackContent& current,
                           const PackOptions& options, std::string& zip, std::string& error,
                           PatchSummary* summary) {
    ReferenceFiles references;
    for (const auto& [path, bytes] : previous.files) {
        const auto now = current.files.find(path);
        // Only a file that changed is patched.
        if (now != current.files.end() && now->second != bytes)
            references[path][FerritCore::Digest::md5Hex(bytes)] = bytes;
    }
    PatchSummary found;
    if (!buildIncrementSince({listingOf(previous.files)}, current, options, zip, error, nullptr,
                             &references, &found))
        return false;
    if (summary != nullptr) *summary = std::move(found);
    return true;
}

bool buildPreload(const std::string& version, const std::vector<PreloadPack>& packs,
                  const PackOptions& options, std::string& zip, std::string& error) {
    std::vector<ConfigPack> records;
    for (const PreloadPack& pack : packs) records.push_back(pack.record);
    std::string document;
    if (!buildConfig(version, records, options.signer, document, error)) return false;
    ZipWriter writer;
    ZipWriter::Entry entry;
    entry.level = options.level;
    entry.name = std::string(kPreloadConfigEntry);
    entry.content = document;
    if (!writer.add(entry, error)) return false;
    for (const PreloadPack& pack : packs) {
        const std::string folder = pack.record.name + "/" + std::to_string(pack.record.seq) + "/";
        PackOptions packOptions = options;
        if (!pack.urlPrefix.empty()) packOptions.urlPrefix = pack.urlPrefix;
        std::string index;
        if (!signedIndexOf(pack.content, packOptions, {}, index, error)) return false;
        entry.name = folder + std::string(kIndexEntry);
        entry.content = index;
        entry.deflate = true;
        if (!writer.add(entry, error)) return false;
        for (const auto& [path, content] : pack.content.files) {
            entry.name = folder + std::string(kResourcePrefix) + path;
            entry.content = content;
            entry.deflate = storesAsDeflated(entry.content);
            if (!writer.add(entry, error)) return false;
        }
    }
    return writer.finish(zip, error);
}

bool wrapPayload(std::string_view zip, uint64_t seq, std::string& png, std::string& error) {
    // A PNG chunk's length is at most 2^31 - 1, and the MD5 comes first.
    if (zip.size() > 0x7FFFFFFFu - 16) {
        error = "the zip is too large for one PNG chunk";
        return false;
    }
    std::string out = pngImage();
    // Readers take the first "IEND" of the file as the chunk; the image must not hold one.
    if (out.find("IEND") != std::string::npos) {
        error = "the image holds the bytes \"IEND\"";
        return false;
    }
    const auto key = static_cast<char>(seq & 0xFF);
    std::string data = rawMd5(zip);
    data.reserve(16 + zip.size());
    for (char c : zip) data.push_back(static_cast<char>(c ^ key));
    appendChunk(out, "IEND", data);
    png = std::move(out);
    return true;
}

std::string plainPng() {
    std::string png = pngImage();
    appendChunk(png, "IEND", {});
    return png;
}

bool buildConfig(const std::string& version, const std::vector<ConfigPack>& packs,
                 const Signer& signer, std::string& document, std::string& error) {
    if (version.empty()) {
        error = "a configuration document needs a version";
        return false;
    }
    JSONObject members;
    for (const ConfigPack& pack : packs) {
        if (pack.name.empty()) {
            error = "a pack needs a name";
            return false;
        }
        if (members.find(pack.name) != nullptr) {
            error = "pack " + pack.name + " is named twice";
            return false;
        }
        JSONObject record;
        if (pack.seq != 0) record.set("s", JSON(pack.seq));
        if (pack.flags != 0) record.set("f", JSON(pack.flags));
        if (pack.baseSeq != 0) record.set("b", JSON(pack.baseSeq));
        if (pack.publishTime != 0) record.set("t", JSON(pack.publishTime));
        if (!pack.md5.empty()) record.set("c", JSON(pack.md5));
        if (!pack.incrMd5.empty()) record.set("ci", JSON(pack.incrMd5));
        if (!pack.patchMd5.empty()) record.set("cp", JSON(pack.patchMd5));
        if (!pack.prefixes.empty()) record.set("p", JSON(pack.prefixes));
        if (pack.gray != 0) record.set("g", JSON(pack.gray));
        // A rollout names its version even at a share of 0 (taken back), so that a device that
        // holds it knows to go back when nothing is released yet.
        if (pack.rolloutSeq != 0) {
            record.set("rs", JSON(pack.rolloutSeq));
            record.set("rp", JSON(pack.rolloutShare));
            if (pack.rolloutTime != 0) record.set("rt", JSON(pack.rolloutTime));
        }
        if (pack.status != 0) record.set("status", JSON(pack.status));
        members.set(pack.name, JSON(std::move(record)));
    }
    const std::string json =
        JSON(JSONObject{{"v", JSON(version)}, {"packs", JSON(std::move(members))}}).toString();
    return signDocument(json, signer, document, error);
}

}  // namespace FerritTools
