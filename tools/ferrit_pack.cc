// ferrit pack: makes what a pack server publishes: pack zips, incremental zips, their wrapped
// image form and the signed pack configuration document; and the preload zip that an app ships
// among its raw files. `ferrit pack --help` and `ferrit pack SUBCOMMAND --help` describe them.
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "marl/Json.h"
#include "tools/ToolCommands.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/common/ToolOutput.h"
#include "tools/pack/PackBuilder.h"

using namespace FerritTools;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;

namespace {

// Whether two paths name one file, whether or not it exists yet ("out.zip" and "./out.zip").
bool sameFilePath(const std::string& a, const std::string& b) {
    std::error_code error;
    const std::filesystem::path left = std::filesystem::weakly_canonical(a, error);
    if (error) return a == b;
    const std::filesystem::path right = std::filesystem::weakly_canonical(b, error);
    return error ? a == b : left == right;
}

constexpr int kSuccess = kExitSuccess;

const char* const kOverview = R"(NAME
    ferrit pack - build the packs, increments and configuration documents that clients download

SYNOPSIS
    ferrit pack build  --key PEM --url-prefix URL [OPTIONS] FOLDER OUT.zip
    ferrit pack diff   --key PEM --url-prefix URL [OPTIONS] [--patches OUT-P.zip] OLD NEW OUT.zip
    ferrit pack wrap   --seq N IN.zip OUT.png
    ferrit pack config --key PEM --version V --pack NAME [PACK OPTIONS]... OUT
    ferrit pack preload --key PEM --version V --pack NAME --seq N --folder DIR --url-prefix URL
                        [PACK OPTIONS]... [--pack NAME ...]... OUT.zip
    ferrit pack SUBCOMMAND --help

DESCRIPTION
    A pack is a zip of web resources under "res/" with a signed list of them, "app-res.hvc".
    build makes the full zip of one version, diff the incremental zip from one version to the
    next, wrap hides a zip inside a PNG image for servers that must serve images, config
    writes the signed document that tells clients which version to fetch and the MD5 of each
    zip, and preload puts several packs and their signed document in one zip that an app ships
    among its raw files and installs without a download. Every output is deterministic: the
    same input and key give the same bytes.

    Signatures are Ed25519 over the lower-case hexadecimal MD5 of the signed text, in base 64.
    `ferrit keygen` makes a key pair.

EXIT STATUS
    0 on success, 1 when the work failed (a file could not be read, signed or written), 2 on a
    wrong command line.
)";

const char* const kBuildHelp = R"(NAME
    ferrit pack build - write the full zip of one version of a pack

SYNOPSIS
    ferrit pack build --key PEM --url-prefix URL [--header PATH=NAME:VALUE]... [--token TEXT]
                      FOLDER OUT.zip

DESCRIPTION
    Every regular file below FOLDER becomes the entry "res/<path>" of OUT.zip, in path order
    (".DS_Store" files and "__MACOSX" folders are left out). The first entry, "app-res.hvc",
    lists each as {"res/<path>": {"url": URL + <path>, "v": <MD5>, "size": <bytes>,
    "header": {...}}}, followed by "||", the token, "|" and the signature. An empty file is
    listed with the MD5 of no bytes and size 0. Entries are deflated (an empty one is stored)
    and carry a fixed time, so the same FOLDER and key always give the same bytes. Prints the
    zip's MD5, which the pack configuration names as "c".

OPTIONS
    --key PEM             Ed25519 private key (PEM) that signs the list.
    --url-prefix URL      prefix of every resource URL, normally ending in "/".
    --header PATH=NAME:VALUE
                          a response header of the file PATH (relative to FOLDER); repeatable.
    --token TEXT          the text between the list's separators (default "ed25519"); no "|".
    --json                report as one JSON document on stdout (see `ferrit help`).
    --help                this text.

EXAMPLES
    ferrit pack build --key keys/pack.pem --url-prefix https://shop.example.com/app/ \
        --header css/app.css=Access-Control-Allow-Origin:* site/ shop-3.zip

EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

const char* const kDiffHelp = R"(NAME
    ferrit pack diff - write the incremental zip from one version of a pack to the next

SYNOPSIS
    ferrit pack diff --key PEM --url-prefix URL [--header PATH=NAME:VALUE]... [--token TEXT]
                     [--patches OUT-P.zip] OLD NEW OUT.zip

DESCRIPTION
    OLD and NEW are the folders of two versions, as build takes them. OUT.zip holds the files of
    NEW that are new or whose content changed, as "res/<path>", and an "app-res.hvc" that lists
    every file of NEW and, for each file of OLD that NEW no longer has, a record without "v":
    the client then drops that path while it copies the unchanged files from its installed
    version. Prints what changed, was added and was removed, and the zip's MD5, which the pack
    configuration names as "ci".

    With --patches, also writes the patched increment: the same list and entries, except that
    a changed file whose zstd patch against its bytes in OLD is at least 256 bytes smaller than
    the file as OUT.zip carries it (deflated or stored, by the zip's own rule) travels as
    "patch/<MD5 of the OLD bytes>/<path>"; `ferrit publish`, which patches against every version
    since the base, judges all of a path's patches together. Prints each patched file,
    the patched zip's MD5, the bytes it saves against OUT.zip, both sizes and the share saved.
    OUT.zip stays the increment that every device can take; the patched one goes beside it at
    <zips>/<name>/p/<seq>.zip, named by "cp" in the configuration (config --patch), and a device
    that knows patches fetches it first. `ferrit publish` writes both itself.

OPTIONS
    --key PEM             Ed25519 private key (PEM) that signs the list.
    --url-prefix URL      prefix of every resource URL.
    --header PATH=NAME:VALUE
                          a response header of the file PATH of NEW; repeatable.
    --token TEXT          the text between the list's separators (default "ed25519").
    --patches OUT-P.zip   also write the patched increment there.
    --json                report as one JSON document on stdout (see `ferrit help`).
    --help                this text.

EXAMPLES
    ferrit pack diff --key keys/pack.pem --url-prefix https://shop.example.com/app/ \
        site-3/ site-4/ shop-i-4.zip
    ferrit pack diff --key keys/pack.pem --url-prefix https://shop.example.com/app/ \
        --patches shop-p-4.zip site-3/ site-4/ shop-i-4.zip

EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

const char* const kWrapHelp = R"(NAME
    ferrit pack wrap - hide a zip inside a PNG image

SYNOPSIS
    ferrit pack wrap --seq N IN.zip OUT.png

DESCRIPTION
    Writes a valid 1x1 PNG image whose IEND chunk carries the 16 raw bytes of the zip's MD5 and
    then the zip, each byte combined by exclusive-or with the low 8 bits of N, with the chunk's
    correct CRC-32. N must be the sequence number of the version the zip holds: clients undo the
    combination with it. With N a multiple of 256 the zip is stored as it is. Prints the zip's
    MD5, which the client computes after unwrapping.

OPTIONS
    --seq N               the pack's sequence number (decimal).
    --json                report as one JSON document on stdout (see `ferrit help`).
    --help                this text.

EXAMPLES
    ferrit pack wrap --seq 4 shop-4.zip shop-4.png

EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

const char* const kConfigHelp = R"(NAME
    ferrit pack config - write a signed pack configuration document

SYNOPSIS
    ferrit pack config --key PEM --version V --pack NAME [--seq N] [--base-seq N] [--flags N]
                       [--zip FILE | --md5 HEX] [--incr FILE | --incr-md5 HEX]
                       [--patch FILE | --patch-md5 HEX] [--prefix URL]...
                       [--publish-time MS] [--pack NAME ...]... OUT

DESCRIPTION
    Writes {"v": V, "packs": {NAME: {"s", "f", "b", "t", "c", "ci", "cp", "p"}}} followed by
    "||" and the signature, the form in which a configuration endpoint serves documents. The
    options after each --pack describe that pack; members equal to 0 or empty are left out, and
    a pack with none is written as {}, which clients read as deleted. "c" is the MD5 of the full zip
    and "ci" that of the incremental zip, "cp" that of the patched increment from the same base
    (readers that do not know it ignore it); --zip, --incr and --patch compute them from the
    files (give the plain zip, not its wrapped image). Packs appear in the order given.

OPTIONS
    --key PEM             Ed25519 private key (PEM) that signs the document.
    --version V           the document's version, a decimal number such as a time in ms.
    --pack NAME           starts the description of the pack NAME.
    --seq N               "s", the sequence number of the current version.
    --base-seq N          "b", the version an incremental zip builds on.
    --flags N             "f", the pack's flags (priority, type, payload kind 65536 for images).
    --zip FILE            "c" from the MD5 of FILE.
    --md5 HEX             "c" as given.
    --incr FILE           "ci" from the MD5 of FILE.
    --incr-md5 HEX        "ci" as given.
    --patch FILE          "cp" from the MD5 of FILE, the patched increment (pack diff --patches).
    --patch-md5 HEX       "cp" as given.
    --prefix URL          an entry of "p", a URL prefix the pack serves; repeatable.
    --publish-time MS     "t", milliseconds since the epoch.
    --json                report as one JSON document on stdout (see `ferrit help`).
    --help                this text.

EXAMPLES
    ferrit pack config --key keys/pack.pem --version 1700000000000 --pack shop --seq 4 \
        --base-seq 3 --flags 88 --zip shop-4.zip --incr shop-i-4.zip \
        --prefix https://shop.example.com/app/ shop-config

EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

const char* const kPreloadHelp = R"(NAME
    ferrit pack preload - write the preload zip that an app ships with its packs

SYNOPSIS
    ferrit pack preload --key PEM --version V
                        --pack NAME --seq N --folder DIR --url-prefix URL [--base-seq N]
                        [--flags N] [--prefix URL]... [--header PATH=NAME:VALUE]...
                        [--pack NAME ...]... OUT.zip

DESCRIPTION
    OUT.zip holds first "fconfig.config", the configuration document {"v": V, "packs": {NAME:
    {"s", "f", "b", "p"}}} signed like the one a configuration endpoint serves, then each pack as
    the folder of its installed version: "NAME/N/app-res.hvc", its signed list, and
    "NAME/N/res/<path>" for every regular file below DIR, in path order. The options after each
    --pack describe that pack; packs appear in the order given. A client installs every pack
    that it does not already hold at N or later, once per app version, without a download.
    The same folders and key always give the same bytes.

OPTIONS
    --key PEM             Ed25519 private key (PEM) that signs the document and every list.
    --version V           the document's version, a decimal number such as a time in ms.
    --pack NAME           starts the description of the pack NAME; a name may be given once.
    --seq N               "s", the version the zip holds (required, not 0).
    --folder DIR          the pack's files (required).
    --url-prefix URL      prefix of the pack's resource URLs (required); also its "p" when no
                          --prefix is given.
    --base-seq N          "b" (default: the same as --seq).
    --flags N             "f", the pack's flags (priority and type).
    --prefix URL          an entry of "p", a URL prefix the pack serves; repeatable.
    --header PATH=NAME:VALUE
                          a response header of the file PATH of the pack; repeatable.
    --json                report as one JSON document on stdout (see `ferrit help`).
    --help                this text.

EXAMPLES
    ferrit pack preload --key keys/pack.pem --version 1700000000000 \
        --pack shop --seq 3 --flags 80 --folder site/shop --url-prefix https://shop.example.com/app/ \
        --pack help --seq 7 --folder site/help --url-prefix https://help.example.com/ \
        preload.zip

EXIT STATUS
    0 on success, 1 when the work failed (a folder or the key could not be read, or the zip not
    written), 2 on a wrong command line (a pack named twice, or without --seq, --folder or
    --url-prefix).
)";

bool wantsHelp(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") return true;
    }
    return false;
}

// A decimal unsigned number, whole.
bool parseNumber(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

constexpr const char* kHeaderForm = "a header is PATH=NAME:VALUE";

// Adds the header of a "--header PATH=NAME:VALUE" option; false when the value has another form.
bool addHeader(const std::string& value, std::map<std::string, HeaderFields>& headers) {
    const size_t equals = value.find('=');
    const size_t colon = equals == std::string::npos ? std::string::npos : value.find(':', equals);
    if (colon == std::string::npos || colon == equals + 1) return false;
    size_t start = colon + 1;
    while (start < value.size() && value[start] == ' ') ++start;
    headers[value.substr(0, equals)][value.substr(equals + 1, colon - equals - 1)] =
        value.substr(start);
    return true;
}

// What build and diff share: the key, the prefix, headers and token, then positional arguments.
struct PackArguments {
    std::string keyPath;
    PackOptions options;
    std::map<std::string, HeaderFields> headers;
    std::vector<std::string> positional;
    std::string patchesPath;  // diff only: where the patched increment goes
};

int parsePackArguments(const std::string& command, int argc, char** argv, ToolOutput& out,
                       PackArguments& parsed) {
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--key" || arg == "--url-prefix" || arg == "--header" || arg == "--token" ||
            (arg == "--patches" && command == "diff")) {
            if (i + 1 >= argc) return out.usage("missing value after " + arg);
            const std::string value = argv[++i];
            if (arg == "--patches") parsed.patchesPath = value;
            if (arg == "--key") parsed.keyPath = value;
            if (arg == "--url-prefix") parsed.options.urlPrefix = value;
            if (arg == "--token") parsed.options.token = value;
            if (arg == "--header" && !addHeader(value, parsed.headers))
                return out.usage(kHeaderForm);
        } else if (arg.size() > 1 && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            parsed.positional.push_back(arg);
        }
    }
    if (parsed.keyPath.empty()) return out.usage(command + " needs --key");
    if (parsed.options.urlPrefix.empty()) return out.usage(command + " needs --url-prefix");
    std::string error;
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(parsed.keyPath, error);
    if (!key) return out.fail(error);
    parsed.options.signer = ed25519Signer(std::move(key));
    return kSuccess;
}

int build(int argc, char** argv, ToolOutput& out) {
    PackArguments arguments;
    if (const int status = parsePackArguments("build", argc, argv, out, arguments)) return status;
    if (arguments.positional.size() != 2) return out.usage("build takes FOLDER and OUT.zip");
    PackContent content;
    content.headers = arguments.headers;
    std::string error, zip;
    if (!readFolder(arguments.positional[0], content.files, error)) return out.fail(error);
    if (!buildPack(content, arguments.options, zip, error)) return out.fail(error);
    if (!writeFileAtomically(arguments.positional[1], zip))
        return out.fail("cannot write " + arguments.positional[1]);
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    out.text() << "wrote " << arguments.positional[1] << " (" << content.files.size()
               << (content.files.size() == 1 ? " file" : " files") << ", md5 " << md5 << ")\n";
    out.set("zip", JSON(arguments.positional[1]));
    out.set("files", JSON(static_cast<uint64_t>(content.files.size())));
    out.set("bytes", JSON(static_cast<uint64_t>(zip.size())));
    out.set("md5", JSON(md5));
    return out.finish();
}

// The patched increment beside the plain one, and what it saves against it.
int writePatched(const PackContent& previous, const PackContent& current,
                 const PackArguments& arguments, uint64_t plainBytes, ToolOutput& out) {
    std::string error, zip;
    FerritTools::PatchSummary summary;
    if (!buildPatchedIncrement(previous, current, arguments.options, zip, error, &summary))
        return out.fail(error);
    if (!writeFileAtomically(arguments.patchesPath, zip))
        return out.fail("cannot write " + arguments.patchesPath);
    for (const std::string& path : summary.patched) out.text() << "patched " << path << "\n";
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    const int64_t saved = static_cast<int64_t>(plainBytes) - static_cast<int64_t>(zip.size());
    out.text() << "wrote " << arguments.patchesPath << " (" << summary.patched.size()
               << " patched, md5 " << md5 << ", " << saved << " bytes saved)\n";
    // In tenths of a percent, rounded toward zero: a saving is never shown larger than it is.
    const int64_t permille = plainBytes == 0 ? 0 : saved * 1000 / static_cast<int64_t>(plainBytes);
    out.text() << "patched increment " << zip.size() << " bytes, increment " << plainBytes
               << " bytes (" << (permille < 0 ? "-" : "") << std::abs(permille) / 10 << "."
               << std::abs(permille) % 10 << "% saved)\n";
    out.set("patched", JSON(summary.patched));
    out.set("patchedZip", JSON(arguments.patchesPath));
    out.set("patchedBytes", JSON(static_cast<uint64_t>(zip.size())));
    out.set("patchedMd5", JSON(md5));
    out.set("bytesSaved", JSON(saved));
    out.set("incrementBytes", JSON(plainBytes));
    return kSuccess;
}

int diff(int argc, char** argv, ToolOutput& out) {
    PackArguments arguments;
    if (const int status = parsePackArguments("diff", argc, argv, out, arguments)) return status;
    if (arguments.positional.size() != 3) return out.usage("diff takes OLD, NEW and OUT.zip");
    // The patched increment is written second, and would replace the plain one unseen.
    if (!arguments.patchesPath.empty() &&
        sameFilePath(arguments.patchesPath, arguments.positional[2]))
        return out.usage("--patches names OUT.zip itself: give the patched increment its own file");
    PackContent previous, current;
    current.headers = arguments.headers;
    std::string error, zip;
    if (!readFolder(arguments.positional[0], previous.files, error)) return out.fail(error);
    if (!readFolder(arguments.positional[1], current.files, error)) return out.fail(error);
    IncrementSummary summary;
    if (!buildIncrement(previous, current, arguments.options, zip, error, &summary))
        return out.fail(error);
    if (!writeFileAtomically(arguments.positional[2], zip))
        return out.fail("cannot write " + arguments.positional[2]);
    auto list = [&out](const char* what, const std::vector<std::string>& paths) {
        for (const std::string& path : paths) out.text() << what << " " << path << "\n";
        out.set(what, JSON(paths));
    };
    list("changed", summary.changed);
    list("added", summary.added);
    list("removed", summary.removed);
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    out.text() << "wrote " << arguments.positional[2] << " ("
               << summary.changed.size() + summary.added.size() << " files, "
               << summary.removed.size() << " removed, md5 " << md5 << ")\n";
    out.set("zip", JSON(arguments.positional[2]));
    out.set("bytes", JSON(static_cast<uint64_t>(zip.size())));
    out.set("md5", JSON(md5));
    if (!arguments.patchesPath.empty()) {
        if (const int status = writePatched(previous, current, arguments, zip.size(), out))
            return status;
    }
    return out.finish();
}

int wrap(int argc, char** argv, ToolOutput& out) {
    uint64_t seq = 0;
    bool hasSeq = false;
    std::vector<std::string> positional;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--seq") {
            if (i + 1 >= argc || !parseNumber(argv[i + 1], seq))
                return out.usage("--seq takes a decimal number");
            hasSeq = true;
            ++i;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    if (!hasSeq) return out.usage("wrap needs --seq");
    if (positional.size() != 2) return out.usage("wrap takes IN.zip and OUT.png");
    std::string zip, png, error;
    if (!readWholeFile(positional[0], zip)) return out.fail("cannot read " + positional[0]);
    if (!wrapPayload(zip, seq, png, error)) return out.fail(error);
    if (!writeFileAtomically(positional[1], png)) return out.fail("cannot write " + positional[1]);
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    out.text() << "wrote " << positional[1] << " (key byte " << (seq & 0xFF) << ", zip md5 " << md5
               << ")\n";
    out.set("png", JSON(positional[1]));
    out.set("keyByte", JSON(static_cast<uint64_t>(seq & 0xFF)));
    out.set("md5", JSON(md5));
    return out.finish();
}

// What every command that writes a signed document is given besides its packs.
struct SignedDocumentLine {
    std::string keyPath, version;
    std::vector<std::string> positional;
};

// Walks the arguments after the command's name: positional ones and --key and --version are taken
// here; every other option is handed with its value to `option`, whose nonzero exit code stops
// the walk and is returned.
int walkSignedDocumentLine(
    int argc, char** argv, ToolOutput& out, SignedDocumentLine& line,
    const std::function<int(const std::string&, const std::string&)>& option) {
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.size() <= 1 || arg[0] != '-') {
            line.positional.push_back(arg);
            continue;
        }
        if (i + 1 >= argc) return out.usage("missing value after " + arg);
        const std::string value = argv[++i];
        if (arg == "--key") {
            line.keyPath = value;
        } else if (arg == "--version") {
            line.version = value;
        } else if (const int code = option(arg, value); code != kSuccess) {
            return code;
        }
    }
    return kSuccess;
}

// What every such command needs once its line is walked: a key, a version, a pack and one output.
int checkSignedDocumentLine(ToolOutput& out, const std::string& command,
                            const SignedDocumentLine& line, size_t packCount,
                            const std::string& output) {
    if (line.keyPath.empty()) return out.usage(command + " needs --key");
    if (line.version.empty()) return out.usage(command + " needs --version");
    if (packCount == 0) return out.usage(command + " needs at least one --pack");
    if (line.positional.size() != 1) return out.usage(command + " takes one " + output);
    return kSuccess;
}

// The MD5 of a configuration's pack that an option names: "c" (--zip, --md5), "ci" (--incr,
// --incr-md5) or "cp" (--patch, --patch-md5).
std::string& md5Field(ConfigPack& pack, const std::string& option) {
    if (option.starts_with("--incr")) return pack.incrMd5;
    if (option.starts_with("--patch")) return pack.patchMd5;
    return pack.md5;
}

int config(int argc, char** argv, ToolOutput& out) {
    SignedDocumentLine line;
    std::vector<ConfigPack> packs;
    const int walked = walkSignedDocumentLine(
        argc, argv, out, line, [&](const std::string& arg, const std::string& value) {
            if (arg == "--pack") {
                packs.emplace_back();
                packs.back().name = value;
                return kSuccess;
            }
            if (packs.empty()) return out.usage(arg + " comes before any --pack");
            ConfigPack& pack = packs.back();
            uint64_t number = 0;
            if (arg == "--seq" || arg == "--base-seq" || arg == "--flags" ||
                arg == "--publish-time") {
                if (!parseNumber(value, number)) return out.usage(arg + " takes a decimal number");
                if (arg == "--seq") pack.seq = number;
                if (arg == "--base-seq") pack.baseSeq = number;
                if (arg == "--flags") pack.flags = number;
                if (arg == "--publish-time") pack.publishTime = static_cast<double>(number);
            } else if (arg == "--zip" || arg == "--incr" || arg == "--patch") {
                std::string zip;
                if (!readWholeFile(value, zip)) return out.fail("cannot read " + value);
                md5Field(pack, arg) = FerritCore::Digest::md5Hex(zip);
            } else if (arg == "--md5" || arg == "--incr-md5" || arg == "--patch-md5") {
                if (value.size() != 32 ||
                    value.find_first_not_of("0123456789abcdef") != std::string::npos)
                    return out.usage(arg + " takes 32 lower-case hexadecimal digits");
                md5Field(pack, arg) = value;
            } else if (arg == "--prefix") {
                pack.prefixes.push_back(value);
            } else {
                return out.usage("unknown option " + arg);
            }
            return kSuccess;
        });
    if (walked != kSuccess) return walked;
    if (const int code = checkSignedDocumentLine(out, "config", line, packs.size(), "OUT");
        code != kSuccess)
        return code;
    std::string error, document;
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(line.keyPath, error);
    if (!key) return out.fail(error);
    if (!buildConfig(line.version, packs, ed25519Signer(std::move(key)), document, error))
        return out.fail(error);
    if (!writeFileAtomically(line.positional[0], document))
        return out.fail("cannot write " + line.positional[0]);
    out.text() << "wrote " << line.positional[0] << " (" << packs.size()
               << (packs.size() == 1 ? " pack)\n" : " packs)\n");
    out.set("document", JSON(line.positional[0]));
    out.set("version", JSON(line.version));
    JSONArray names;
    for (const ConfigPack& pack : packs) names.push_back(JSON(pack.name));
    out.set("packs", JSON(std::move(names)));
    return out.finish();
}

// One pack of a preload zip as the command line describes it.
struct PreloadArguments {
    PreloadPack pack;
    std::string folder;
    bool hasSeq = false;
    bool hasBaseSeq = false;
};

int preload(int argc, char** argv, ToolOutput& out) {
    SignedDocumentLine line;
    std::vector<PreloadArguments> packs;
    std::set<std::string> names;
    const int walked = walkSignedDocumentLine(
        argc, argv, out, line, [&](const std::string& arg, const std::string& value) {
            if (arg == "--pack") {
                // The zip holds one folder per name: a second description would be lost.
                if (value.empty() || value.find('/') != std::string::npos)
                    return out.usage("a pack name is not empty and holds no \"/\"");
                if (!names.insert(value).second)
                    return out.usage("pack " + value + " is named twice");
                packs.emplace_back();
                packs.back().pack.record.name = value;
                return kSuccess;
            }
            if (packs.empty()) return out.usage(arg + " comes before any --pack");
            PreloadArguments& pack = packs.back();
            ConfigPack& record = pack.pack.record;
            uint64_t number = 0;
            if (arg == "--seq" || arg == "--base-seq" || arg == "--flags") {
                if (!parseNumber(value, number)) return out.usage(arg + " takes a decimal number");
                if (arg == "--seq") {
                    record.seq = number;
                    pack.hasSeq = true;
                }
                if (arg == "--base-seq") {
                    record.baseSeq = number;
                    pack.hasBaseSeq = true;
                }
                if (arg == "--flags") record.flags = number;
            } else if (arg == "--folder") {
                pack.folder = value;
            } else if (arg == "--url-prefix") {
                pack.pack.urlPrefix = value;
            } else if (arg == "--prefix") {
                record.prefixes.push_back(value);
            } else if (arg == "--header") {
                if (!addHeader(value, pack.pack.content.headers)) return out.usage(kHeaderForm);
            } else {
                return out.usage("unknown option " + arg);
            }
            return kSuccess;
        });
    if (walked != kSuccess) return walked;
    if (const int code = checkSignedDocumentLine(out, "preload", line, packs.size(), "OUT.zip");
        code != kSuccess)
        return code;
    for (PreloadArguments& pack : packs) {
        const std::string& name = pack.pack.record.name;
        // A client skips a record of sequence 0: it would ship files that never install.
        if (!pack.hasSeq || pack.pack.record.seq == 0)
            return out.usage("pack " + name + " needs --seq, not 0");
        if (pack.folder.empty()) return out.usage("pack " + name + " needs --folder");
        if (pack.pack.urlPrefix.empty()) return out.usage("pack " + name + " needs --url-prefix");
        if (!pack.hasBaseSeq) pack.pack.record.baseSeq = pack.pack.record.seq;
        if (pack.pack.record.prefixes.empty())
            pack.pack.record.prefixes.push_back(pack.pack.urlPrefix);
    }

    std::string error;
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(line.keyPath, error);
    if (!key) return out.fail(error);
    PackOptions options;
    options.signer = ed25519Signer(std::move(key));
    std::vector<PreloadPack> contents;
    size_t files = 0;
    for (PreloadArguments& pack : packs) {
        if (!readFolder(pack.folder, pack.pack.content.files, error))
            return out.fail("pack " + pack.pack.record.name + ": " + error);
        files += pack.pack.content.files.size();
        contents.push_back(pack.pack);
    }
    std::string zip;
    if (!buildPreload(line.version, contents, options, zip, error)) return out.fail(error);
    if (!writeFileAtomically(line.positional[0], zip))
        return out.fail("cannot write " + line.positional[0]);
    const std::string md5 = FerritCore::Digest::md5Hex(zip);
    out.text() << "wrote " << line.positional[0] << " (" << packs.size()
               << (packs.size() == 1 ? " pack, " : " packs, ") << files
               << (files == 1 ? " file, md5 " : " files, md5 ") << md5 << ")\n";
    out.set("zip", JSON(line.positional[0]));
    out.set("version", JSON(line.version));
    JSONArray packNames;
    for (const PreloadArguments& pack : packs) packNames.push_back(JSON(pack.pack.record.name));
    out.set("packs", JSON(std::move(packNames)));
    out.set("files", JSON(static_cast<uint64_t>(files)));
    out.set("md5", JSON(md5));
    return out.finish();
}

struct Command {
    int (*run)(int, char**, ToolOutput&);
    const char* help;
};

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table{
        {"build", {build, kBuildHelp}},       {"diff", {diff, kDiffHelp}},
        {"wrap", {wrap, kWrapHelp}},          {"config", {config, kConfigHelp}},
        {"preload", {preload, kPreloadHelp}},
    };
    return table;
}

}  // namespace

int FerritTools::runPackTool(int argc, char** argv, ToolOutput& out) {
    if (argc < 2) return out.usage("needs a subcommand");
    const std::string name = argv[1];
    if (name == "help" || name == "--help" || name == "-h") {
        std::cout << kOverview;
        return kSuccess;
    }
    const auto it = commands().find(name);
    if (it == commands().end()) return out.usage("unknown subcommand " + name);
    out.setCommand("pack " + name);
    if (wantsHelp(argc, argv)) {
        std::cout << it->second.help;
        return kSuccess;
    }
    return it->second.run(argc, argv, out);
}
