// ferrit: the one command-line tool of the project: keys, packs, signed documents, publishing a
// site as a static tree, and the library's own start-up, requests, checks and inspector commands
// against a root folder. `ferrit help` lists the commands and `ferrit COMMAND --help` describes
// one.
#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "tools/ToolCommands.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/common/ToolOutput.h"
#include "tools/common/ToolProgress.h"
#include "tools/keys/KeyCommand.h"
#include "tools/pack/PackBuilder.h"
#include "tools/publish/Publisher.h"
#include "tools/publish/Release.h"
#include "tools/publish/ReleaseCommands.h"

using namespace FerritTools;

namespace {

const char* const kExitStatus = R"(
EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

const char* const kOutput = R"(
OUTPUT
    Lines for a reader on stdout; errors, warnings and logs on stderr, each message as
    "ferrit COMMAND: ...". With --json a command writes nothing on stdout but one JSON
    document when it ends, whatever its exit status: {"command", "ok", "exit", the command's
    own members, and "error" when it failed}. Long work (publish, installs) draws a progress
    bar of files and bytes on stderr when stderr is a terminal, and nothing when it is not.
)";

// The option of every command: they all report.
const char* const kJsonOption =
    "    --json                one JSON document on stdout (see OUTPUT in `ferrit help`).\n";

// Options shared by the commands that run the library against a root folder.
const char* const kRootOptions = R"(
    --root DIR            the library's root folder (required).
    --assets DIR          the app's raw-file folder, with its built-in configuration.
    --public-key PEM      Ed25519 public key that signed lists and documents verify with.
    --config FILE         pack records that stand for what an earlier run installed.
    --serve DIR           answers requests from files: "scheme://host/a" is DIR/host/a.
    --app-key KEY, --app-version V
                          the app, for commands that run setup.
    --config-prefix URL   the host's configuration endpoint, for commands that fetch it.
    --zip-prefix URL      where the host downloads pack zips from (a published tree's URL
                          followed by its zips folder, such as https://cdn.example.com/packs/).
    --locale L            the locale a published tree's configuration is for (the manifest's
                          "locale"); startup only.
    --log-level N         log entries at or above level N on stderr (1 most severe).
)";

struct Command {
    const char* synopsis;
    const char* description;
    const char* options;  // without the shared root options
    bool rootOptions;
};

// One table of every command's help page: split up, the pages would no longer read side by side.
// NOLINTNEXTLINE(readability-function-size)
const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table{
        {"keygen",
         {"ferrit keygen [--force] PRIVATE.pem PUBLIC.pem",
          "Makes an Ed25519 key pair: the private key signs packs and documents, the public key\n"
          "    is what hosts verify them with. The private key's file is created readable and\n"
          "    writable by its owner only (mode 0600). An existing file is never replaced without\n"
          "    --force: a lost publisher's key strands every device that trusts it.",
          "    --force               replace existing key files.\n", false}},
        {"key", {kKeySynopsis, kKeyDescription, kKeyOptions, false}},
        {"pack",
         {"ferrit pack build --key PEM --url-prefix URL [--header PATH=NAME:VALUE]... FOLDER "
          "OUT.zip\n"
          "    ferrit pack diff  --key PEM --url-prefix URL [--header PATH=NAME:VALUE]... OLD NEW "
          "OUT.zip\n"
          "    ferrit pack wrap  --seq N IN.zip OUT.png\n"
          "    ferrit pack config --key PEM --version V --pack NAME [PACK OPTIONS]... OUT\n"
          "    ferrit pack preload --key PEM --version V --pack NAME --seq N --folder DIR\n"
          "                        --url-prefix URL [PACK OPTIONS]... [--pack NAME ...]... OUT.zip",
          "build writes the full zip of one version of a pack with its signed resource list, diff\n"
          "    the incremental zip from one version to the next, wrap hides a zip in a PNG image, "
          "config\n"
          "    writes a signed pack configuration document, and preload writes the zip of "
          "several\n"
          "    packs and their signed configuration that an app ships among its raw files.\n"
          "    `ferrit pack SUBCOMMAND --help` describes each in full.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --url-prefix URL      prefix of every resource URL.\n"
          "    --header PATH=NAME:VALUE\n"
          "                          a response header of one file; repeatable.\n",
          false}},
        {"config",
         {"ferrit config sign --key PEM DOCUMENT.json OUT",
          "Signs a configuration document as a configuration endpoint serves it: the JSON text,\n"
          "    \"||\", and the base64 Ed25519 signature of the text's lower-case hexadecimal MD5.",
          "    --key PEM             Ed25519 private key that signs.\n", false}},
        {"index",
         {"ferrit index sign --key PEM --url-prefix URL [--header PATH=NAME:VALUE]...\n"
          "                      [--table-out FILE] PACKDIR",
          "Writes PACKDIR/app-res.hvc, the signed list of the files below PACKDIR/res/, for a "
          "pack\n"
          "    that is installed as a folder rather than downloaded as a zip.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --url-prefix URL      prefix of every resource URL.\n"
          "    --table-out FILE      also write the bare list, as a built-in configuration embeds "
          "it.\n",
          false}},
        {"publish",
         {"ferrit publish --key PEM --manifest FILE [--history DIR] [--channel NAME]\n"
          "                   [--valid-for DURATION] [--resign] SITE OUT",
          "Writes a static tree under OUT that any static web server serves as it is: the signed\n"
          "    global configuration at each path a client's configuration request asks for\n"
          "    (fconfig/<app>/<app version>/0~<its version>/<locale>~<its locale>), each changed "
          "pack's\n"
          "    signed configuration at packconfig/<name>/<seq>, its full zip at "
          "<zips>/<name>/<seq>.zip\n"
          "    and, when the pack was published before, the increment from its base (first) "
          "version\n"
          "    at <zips>/<name>/i/<seq>.zip, which brings a device on the base or on any later\n"
          "    version to the new one. Beside it, at <zips>/<name>/p/<seq>.zip, goes the\n"
          "    patched increment when it is smaller: the same signed list, with each changed\n"
          "    file that every version since the base has as zstd patches against those\n"
          "    versions' bytes (read back from their full zips in OUT; a version whose zip is\n"
          "    gone sends its paths whole), and its MD5 as \"cp\" in the pack's documents. A\n"
          "    device that knows patches fetches it first; any other takes the increment or the\n"
          "    full zip as before. Each pack's line says what the patched and the plain\n"
          "    increment weigh and the share saved.\n"
          "    A pack whose files did not change keeps its version; when\n"
          "    none changed nothing is written (unless the configuration is due to be signed "
          "again,\n"
          "    below). What the next run builds on (the sequence "
          "numbers and\n"
          "    each version's list of files with their MD5 and size) is the history, kept outside "
          "the\n"
          "    tree so that the server does not serve it: by default beside OUT, in "
          "OUT.publish. A\n"
          "    tree whose history an earlier release kept in OUT/.publish has it moved out on the "
          "first\n"
          "    run. Without the list of every version since a pack's base, its new version "
          "becomes\n"
          "    a new base, with no increment.\n"
          "    The manifest is JSON: {\"app\": {\"key\", \"version\", \"locale\"}, \"zips\": "
          "\"packs/\",\n"
          "    \"packs\": [{\"name\", \"folder\" (below SITE), \"prefix\" (URL), \"priority\" "
          "(0-15),\n"
          "    \"headers\": {PATH: {NAME: VALUE}}}]}. Clients set their configuration prefix to "
          "the\n"
          "    tree's URL and their zip prefix to that URL followed by <zips>.\n"
          "    The global configuration carries when it was signed and until when devices take "
          "it\n"
          "    (--valid-for, 30 days unless told): a device ignores a copy past its expiry, and "
          "one\n"
          "    signed before the copy it has, and keeps what it has. So sign it again before it "
          "lapses:\n"
          "    a run with nothing changed signs it again, as a new version, once less than half "
          "of its\n"
          "    time is left (run publish daily, e.g. from cron), and --resign does so at once.\n"
          "    Beside OUT go its cache rules: OUT.nginx.conf, locations for nginx's server block "
          "whose\n"
          "    root is OUT, and OUT.headers.json, the same rules as path patterns and headers for\n"
          "    other servers: configuration documents (fconfig/, packconfig/, channels/) are "
          "cached\n"
          "    for a minute, zips, written once at paths named by their version, for a year as\n"
          "    immutable; a zip's path is never written again with other bytes. Keys change with "
          "`ferrit key "
          "rotate`.\n"
          "    Progress goes to the terminal; nothing but the summary when not on one.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --manifest FILE       the publishing manifest.\n"
          "    --history DIR         where the history is kept (default OUT.publish); outside "
          "OUT.\n"
          "    --channel NAME        writes the channel's documents under OUT/channels/NAME/ "
          "instead\n"
          "                          of the tree's own; versions and zips serve every channel.\n"
          "    --valid-for DURATION  how long devices take the global configuration: days, or "
          "a\n"
          "                          number with d, h, m or s (default 30d).\n"
          "    --resign              sign the global configuration again although nothing "
          "changed.\n",
          false}},
        {"rollout",
         {"ferrit rollout --key PEM --manifest FILE --percent N [--channel NAME] [--history DIR]\n"
          "                   [--valid-for DURATION] PACK SITE OUT",
          "Publishes the files of PACK in SITE as a new version that N% of the devices take\n"
          "    (N from 0.01 to 100), while every other device keeps the released version. Each\n"
          "    device places itself by its install identifier and the pack's name, so a device\n"
          "    that took the version keeps it when N grows: run the command again with a larger\n"
          "    N and the same files. Other packs keep what they have. No server logic: the\n"
          "    documents are the same for every device.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --manifest FILE       the publishing manifest (see ferrit publish).\n"
          "    --percent N           share of the devices, which may only grow.\n"
          "    --channel NAME        the channel's documents (default: the tree's own).\n"
          "    --history DIR         where the history is kept (default OUT.publish).\n"
          "    --valid-for DURATION  how long devices take the global configuration (see ferrit\n"
          "                          publish; default 30d).\n",
          false}},
        {"promote",
         {"ferrit promote --key PEM --manifest FILE [--channel NAME] [--from CHANNEL]\n"
          "                   [--history DIR] [--valid-for DURATION] PACK OUT",
          "Releases to every device the version of PACK in rollout; with --from, the version\n"
          "    that CHANNEL releases, into the channel of --channel. Only documents are signed\n"
          "    again: zips serve every channel and none is copied.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --manifest FILE       the publishing manifest (see ferrit publish).\n"
          "    --channel NAME        the channel that releases (default: the tree's own).\n"
          "    --from CHANNEL        the channel whose released version is promoted (\"\" for\n"
          "                          the tree's own).\n"
          "    --history DIR         where the history is kept (default OUT.publish).\n"
          "    --valid-for DURATION  how long devices take the global configuration (see ferrit\n"
          "                          publish; default 30d).\n",
          false}},
        {"rollback",
         {"ferrit rollback --key PEM --manifest FILE [--channel NAME] [--to SEQ]\n"
          "                   [--history DIR] [--valid-for DURATION] PACK OUT",
          "Takes back the version of PACK in rollout: every device that took it returns to the\n"
          "    released version (or loses the pack when none was released). With no rollout, or\n"
          "    with --to, publishes the files of an earlier version (by default the one released\n"
          "    before) as a new version that every device takes, whatever version it has, and\n"
          "    ends with exactly those files.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --manifest FILE       the publishing manifest (see ferrit publish).\n"
          "    --channel NAME        the channel (default: the tree's own).\n"
          "    --to SEQ              the version whose files return.\n"
          "    --history DIR         where the history is kept (default OUT.publish).\n"
          "    --valid-for DURATION  how long devices take the global configuration (see ferrit\n"
          "                          publish; default 30d).\n",
          false}},
        {"get",
         {"ferrit get [ROOT OPTIONS] [--referrer URL] [--header NAME:VALUE]... [--async] [--body]\n"
          "               [--events] [--preload FILE] URL",
          "Runs one request through the library against the root folder and prints the outcome,\n"
          "    the response headers and the body size (--body: the body too).",
          "    --async               the asynchronous form, which also reads on-demand packs.\n"
          "    --body                print the body.\n"
          "    --events              print performance records as they arrive.\n"
          "    --preload FILE        first install the preload zip FILE of the --assets folder.\n",
          true}},
        {"check",
         {"ferrit check [ROOT OPTIONS] [--preload FILE]",
          "Checks what a host installed under the root: that the configuration it stored reads,\n"
          "    and every installed pack: its signed list, then the MD5 and size of each file.\n"
          "    With --config, the records of that file stand for the stored configuration. Fails\n"
          "    (exit 1) naming each pack or document that is wrong, and on a root with nothing\n"
          "    installed. get, check, status, inspect and cleanup never make a missing root.",
          "    --preload FILE        first install the preload zip FILE of the --assets folder.\n",
          true}},
        {"startup",
         {"ferrit startup --serve DIR --app-key KEY --app-version V --root DIR --public-key PEM\n"
          "                   [ROOT OPTIONS] [URL]",
          "Runs the host's start-up order (setProxy, setup, the first configuration, startUpdate)\n"
          "    on the library's own worker, against a configuration endpoint served from files, "
          "and\n"
          "    prints the status report after each step. With --zip-prefix it then installs every\n"
          "    pack the configuration names, as a host's prefetch does, and waits until they are\n"
          "    on the disk (a bar of files and bytes on a terminal). Then serves URL, if one is\n"
          "    given. The only command of a root that makes the root when it does not exist.",
          "", true}},
        {"status",
         {"ferrit status [ROOT OPTIONS]",
          "Starts the library against the root and prints the status report, then the size report\n"
          "    (packs, caches, stores and the disk budget), each a JSON document after its label\n"
          "    (\"status: \", \"size: \"); --json gives both in one document.",
          "", true}},
        {"inspect",
         {"ferrit inspect [ROOT OPTIONS] COMMAND [JSON]",
          "Sends one command to the developer inspector (such as \"FerritDev.info\",\n"
          "    \"FerritDev.size\" or \"FerritDev.getURLList\" '{\"packName\":\"shop\"}') and "
          "prints the reply,\n"
          "    a JSON document; exits 1 when the command failed.",
          "", true}},
        {"cleanup",
         {"ferrit cleanup [ROOT OPTIONS]",
          "Runs the library's cleanup through the inspector command \"FerritDev.cleanup\" and "
          "prints\n"
          "    what it answered.",
          "", true}},
    };
    return table;
}

void printHelp(const std::string& name, const Command& command) {
    std::cout << "NAME\n    ferrit " << name << "\n\nSYNOPSIS\n    " << command.synopsis
              << "\n\nDESCRIPTION\n    " << command.description << "\n\nOPTIONS\n"
              << command.options << (command.rootOptions ? kRootOptions + 1 : "") << kJsonOption
              << "    --help                this text.\n"
              << kOutput << kExitStatus;
}

void printOverview() {
    std::cout << "NAME\n    ferrit - make, publish and inspect the packs of the offline resource "
                 "cache\n\nSYNOPSIS\n";
    for (const auto& [name, command] : commands()) std::cout << "    " << command.synopsis << "\n";
    std::cout << "    ferrit help [COMMAND]\n    ferrit COMMAND --help\n" << kOutput << kExitStatus;
}

// Runs an entry point over a new argument vector.
int forward(int (*entry)(int, char**, ToolOutput&), std::vector<std::string> arguments,
            ToolOutput& out) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return entry(static_cast<int>(arguments.size()), pointers.data(), out);
}

MarlLogger::json::JSON stringsJson(const std::vector<std::string>& strings) {
    return MarlLogger::json::JSON(strings);
}

// What the patched increment weighs against the plain one, and what it saves of it.
std::string patchedLine(const PublishedPack& pack) {
    const uint64_t plain = pack.incrementBytes;
    const uint64_t patched = pack.patchedBytes;
    std::string line = "patched increment " + std::to_string(patched) + " bytes, increment " +
                       std::to_string(plain) + " bytes";
    if (!pack.patched) return line + ": not smaller, not written";
    // In tenths of a percent, rounded down: a saving is never shown larger than it is.
    const uint64_t permille = plain == 0 ? 0 : (plain - patched) * 1000 / plain;
    return line + " (" + std::to_string(pack.patches.patched.size()) + " patched, " +
           std::to_string(permille / 10) + "." + std::to_string(permille % 10) + "% saved)";
}

// What --json says of one pack of a publish.
MarlLogger::json::JSON packReport(const PublishedPack& pack) {
    using MarlLogger::json::JSON;
    using MarlLogger::json::JSONObject;
    JSONObject record{{"name", JSON(pack.name)},
                      {"seq", JSON(pack.seq)},
                      {"baseSeq", JSON(pack.baseSeq)},
                      {"changed", JSON(pack.changed)}};
    if (pack.changed) {
        record.set("kind", JSON(pack.incremental              ? "increment"
                                : pack.rebased || pack.newKey ? "new base"
                                                              : "full"));
        if (pack.newKey) record.set("newKey", JSON(/*value=*/true));
        if (!pack.skipped.empty()) {
            MarlLogger::json::JSONArray skipped;
            for (uint64_t seq : pack.skipped) skipped.push_back(JSON(seq));
            record.set("skipped", JSON(std::move(skipped)));
        }
        if (pack.incremental) {
            record.set("increment",
                       JSON(JSONObject{{"changed", stringsJson(pack.summary.changed)},
                                       {"added", stringsJson(pack.summary.added)},
                                       {"removed", stringsJson(pack.summary.removed)}}));
            record.set("patched",
                       JSON(JSONObject{{"written", JSON(pack.patched)},
                                       {"patchedFiles", stringsJson(pack.patches.patched)},
                                       {"bytes", JSON(pack.patchedBytes)},
                                       {"incrementBytes", JSON(pack.incrementBytes)},
                                       {"fullBytes", JSON(pack.fullBytes)}}));
        }
        record.set("written", stringsJson(pack.written));
    }
    return JSON(std::move(record));
}

// The lines of one pack of a publish that changed the configuration.
void printPack(const PublishedPack& pack, std::ostream& text) {
    text << pack.name << " " << pack.seq;
    if (!pack.changed) {
        text << " unchanged\n";
        return;
    }
    if (pack.incremental) {
        text << " (increment from " << pack.baseSeq << ": " << pack.summary.changed.size()
             << " changed, " << pack.summary.added.size() << " added, "
             << pack.summary.removed.size() << " removed)";
    } else if (pack.newKey) {
        text << " (full; a new base, signed by the new key)";
    } else if (pack.rebased) {
        text << " (full; a new base, as the history lacks a version since the old one)";
    } else {
        text << " (full)";
    }
    text << "\n";
    if (pack.incremental) text << "  " << patchedLine(pack) << "\n";
    for (uint64_t seq : pack.skipped) {
        text << "  skipped " << seq << ": its zips were left by a publish that did not finish\n";
    }
    for (const std::string& path : pack.written) text << "  wrote " << path << "\n";
}

int publishCommand(const std::vector<std::string>& arguments, ToolOutput& out) {
    using MarlLogger::json::JSON;
    using MarlLogger::json::JSONObject;
    std::string keyPath, manifestPath, historyPath, validFor;
    bool resign = false;
    PublishOptions options;
    std::vector<std::string> positional;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        if (arg == "--resign") {
            resign = true;
        } else if (arg == "--valid-for") {
            if (i + 1 >= arguments.size()) return out.usage("missing value after " + arg);
            validFor = arguments[++i];
        } else if (arg == "--key" || arg == "--manifest" || arg == "--history" ||
                   arg == "--channel") {
            if (i + 1 >= arguments.size()) return out.usage("missing value after " + arg);
            (arg == "--key"        ? keyPath
             : arg == "--manifest" ? manifestPath
             : arg == "--channel"  ? options.channel
                                   : historyPath) = arguments[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    if (keyPath.empty() || manifestPath.empty() || positional.size() != 2)
        return out.usage("publish takes --key, --manifest, SITE and OUT");
    if (!validChannelName(options.channel))
        return out.usage("the channel \"" + options.channel + "\" is not a plain name");
    std::string error, text;
    if (!readWholeFile(manifestPath, text)) return out.fail("cannot read " + manifestPath);
    PublishManifest manifest;
    if (!parseManifest(text, manifest, error)) return out.fail(manifestPath + ": " + error);
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(keyPath, error);
    if (!key) return out.fail(error);
    ToolProgress bar("publish");
    if (!validFor.empty() && !parseDuration(validFor, manifest.validForMs, error))
        return out.usage(error);
    manifest.signerKeyId = key->publicKey()->id();
    manifest.signerPublicKey = FerritCore::Digest::base64Encode(key->publicKey()->raw());
    manifest.resign = resign;
    PublishProgress progress;
    if (bar.enabled()) {
        progress = [&bar](const PublishStep& step) {
            bar.setTotal(step.totalFiles, step.totalBytes);
            bar.update(step.files, step.bytes, step.step);
        };
    }
    PublishResult result;
    const bool published =
        FerritTools::publish(positional[0], manifest, positional[1], historyPath,
                             ed25519Signer(std::move(key)), result, error, progress, options);
    bar.done();
    if (!published) return out.fail(error);
    out.set("tree", JSON(positional[1]));
    out.set("history",
            JSON(historyPath.empty() ? defaultHistoryFolder(positional[1]) : historyPath));
    out.set("channel", JSON(options.channel));
    out.set("changed", JSON(result.version != 0));
    if (result.version == 0) {
        out.text() << "nothing changed: every pack keeps its version\n";
    } else {
        out.text() << "configuration version " << result.version << " at "
                   << result.configPaths.size() << " paths\n";
        out.set("version", JSON(result.version));
        out.set("configPaths", stringsJson(result.configPaths));
    }
    if (result.version != 0) {
        out.text() << "signed at " << isoTime(result.issued) << ", valid until "
                   << isoTime(result.expires) << (result.resigned ? " (signed again)" : "") << "\n";
        out.set("issued", JSON(result.issued));
        out.set("expires", JSON(result.expires));
        out.set("resigned", JSON(result.resigned));
    }
    out.set("removed", stringsJson(result.removed));
    for (const std::string& name : result.removed)
        out.text() << name << " removed: it left the manifest, and no channel releases it\n";
    for (const PublishedPack& pack : result.packs) {
        out.append("packs", packReport(pack));
        if (result.version != 0) printPack(pack, out.text());
    }
    return out.finish();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> rest(argv + std::min(argc, 2), argv + argc);
    const bool json = ToolOutput::takeJsonFlag(rest);
    const std::string name = argc < 2 ? std::string() : std::string(argv[1]);
    if (name == "help" || name == "--help" || name == "-h") {
        if (!rest.empty() && rest[0] != "help" && rest[0] != "--help" && rest[0] != "-h") {
            const auto it = commands().find(rest[0]);
            if (it == commands().end()) {
                ToolOutput out("", json);
                return out.usage("unknown command " + rest[0]);
            }
            printHelp(it->first, it->second);
            return kExitSuccess;
        }
        printOverview();
        return kExitSuccess;
    }
    const auto it = commands().find(name);
    if (it == commands().end()) {
        ToolOutput out("", json);
        return out.usage(name.empty() ? "no command" : "unknown command " + name);
    }
    ToolOutput out(name, json);
    // The pack subcommands have full pages of their own.
    const bool packPage = name == "pack" && !rest.empty() && rest[0] != "--help" && rest[0] != "-h";
    for (const std::string& arg : rest) {
        if ((arg == "--help" || arg == "-h") && !packPage) {
            printHelp(it->first, it->second);
            return kExitSuccess;
        }
    }
    const std::string program = "ferrit " + name;
    if (name == "keygen") {
        std::vector<std::string> arguments{program, "keygen"};
        arguments.insert(arguments.end(), rest.begin(), rest.end());
        return forward(runSignIndexTool, arguments, out);
    }
    if (name == "pack" || name == "config" || name == "index") {
        if (rest.empty()) return out.usage("needs a subcommand");
        std::vector<std::string> arguments{program};
        if (name == "pack") {
            arguments.insert(arguments.end(), rest.begin(), rest.end());
            return forward(runPackTool, arguments, out);
        }
        if (rest[0] != "sign") return out.usage("unknown subcommand " + rest[0]);
        out.setCommand(name + " sign");
        arguments.push_back(name == "config" ? "sign-document" : "sign");
        arguments.insert(arguments.end(), rest.begin() + 1, rest.end());
        return forward(runSignIndexTool, arguments, out);
    }
    if (name == "publish") return publishCommand(rest, out);
    if (name == "rollout") return rolloutCommand(rest, out);
    if (name == "promote") return promoteCommand(rest, out);
    if (name == "rollback") return rollbackCommand(rest, out);
    if (name == "key") return keyCommand(rest, out);
    std::vector<std::string> arguments{program};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    if (name == "check") arguments.push_back("--check");
    if (name == "startup") arguments.push_back("--startup");
    if (name == "status" || name == "inspect") arguments.insert(arguments.begin() + 1, name);
    if (name == "cleanup") {
        arguments.push_back("inspect");
        arguments.push_back("FerritDev.cleanup");
    }
    return forward(runRequestTool, arguments, out);
}
