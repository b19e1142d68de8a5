// ferrit: the one command-line tool of the project: keys, packs, signed documents, publishing a
// site as a static tree, and the library's own start-up, requests, checks and inspector commands
// against a root folder. `ferrit help` lists the commands and `ferrit COMMAND --help` describes
// one.
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "tools/ToolCommands.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/keys/KeyCommand.h"
#include "tools/pack/PackBuilder.h"
#include "tools/publish/Publisher.h"

using namespace FerritTools;

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

const char* const kExitStatus = R"(
EXIT STATUS
    0 on success, 1 when the work failed, 2 on a wrong command line.
)";

// Options shared by the commands that run the library against a root folder.
const char* const kRootOptions = R"(
    --root DIR            the library's root folder (required).
    --assets DIR          the app's raw-file folder, with its built-in configuration.
    --public-key PEM      Ed25519 public key that signed lists and documents verify with.
    --config FILE         pack records that stand for what an earlier run installed.
    --serve DIR           answers requests from files: "scheme://host/a" is DIR/host/a.
    --app-key KEY, --app-version V
                          the app, for commands that run setup.
    --log-level N         log entries at or above level N on stderr (1 most severe).
)";

struct Command {
    const char* synopsis;
    const char* description;
    const char* options;  // without the shared root options
    bool rootOptions;
};

const std::map<std::string, Command>& commands() {
    static const std::map<std::string, Command> table{
        {"keygen",
         {"ferrit keygen PRIVATE.pem PUBLIC.pem",
          "Makes an Ed25519 key pair: the private key signs packs and documents, the public key\n"
          "    is what hosts verify them with.",
          "", false}},
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
         {"ferrit publish --key PEM --manifest FILE [--history DIR] [--valid-for DURATION]\n"
          "                   [--resign] SITE OUT",
          "Writes a static tree under OUT that any static web server serves as it is: the signed\n"
          "    global configuration at each path a client's configuration request asks for\n"
          "    (fconfig/<app>/<app version>/0~<its version>/<locale>~<its locale>), each changed "
          "pack's\n"
          "    signed configuration at packconfig/<name>/<seq>, its full zip at "
          "<zips>/<name>/<seq>.zip\n"
          "    and, when the pack was published before, the increment from its base (first) "
          "version\n"
          "    at <zips>/<name>/i/<seq>.zip, which brings a device on the base or on any later\n"
          "    version to the new one. A pack whose files did not change keeps its version; when\n"
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
          "    other servers: configuration documents (fconfig/, packconfig/) are cached for a "
          "minute,\n"
          "    zips, written once at paths named by their version, for a year as immutable; a "
          "zip's\n"
          "    path is never written again with other bytes. Keys change with `ferrit key "
          "rotate`.\n"
          "    Progress goes to the terminal; nothing but the summary when not on one.",
          "    --key PEM             Ed25519 private key that signs.\n"
          "    --manifest FILE       the publishing manifest.\n"
          "    --history DIR         where the history is kept (default OUT.publish); outside "
          "OUT.\n"
          "    --valid-for DURATION  how long devices take the global configuration: days, or "
          "a\n"
          "                          number with d, h, m or s (default 30d).\n"
          "    --resign              sign the global configuration again although nothing "
          "changed.\n",
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
          "Verifies every installed pack: its signed list, then the MD5 of each file.",
          "    --preload FILE        first install the preload zip FILE of the --assets folder.\n",
          true}},
        {"startup",
         {"ferrit startup --serve DIR --app-key KEY --app-version V --root DIR --public-key PEM\n"
          "                   [ROOT OPTIONS] [URL]",
          "Runs the host's start-up order (setProxy, setup, the first configuration, startUpdate)\n"
          "    on the library's own worker, against a configuration endpoint served from files, "
          "and\n"
          "    prints the status report after each step; then serves URL, if one is given.",
          "", true}},
        {"status",
         {"ferrit status [ROOT OPTIONS]",
          "Starts the library against the root and prints the status report, then the size report\n"
          "    (packs, caches, stores and the disk budget).",
          "", true}},
        {"inspect",
         {"ferrit inspect [ROOT OPTIONS] COMMAND [JSON]",
          "Sends one command to the developer inspector (such as \"FerritDev.info\",\n"
          "    \"FerritDev.size\" or \"FerritDev.getURLList\" '{\"packName\":\"shop\"}') and "
          "prints the reply.",
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
              << command.options << (command.rootOptions ? kRootOptions + 1 : "")
              << "    --help                this text.\n"
              << kExitStatus;
}

void printOverview() {
    std::cout << "NAME\n    ferrit - make, publish and inspect the packs of the offline resource "
                 "cache\n\nSYNOPSIS\n";
    for (const auto& [name, command] : commands()) std::cout << "    " << command.synopsis << "\n";
    std::cout << "    ferrit help [COMMAND]\n    ferrit COMMAND --help\n" << kExitStatus;
}

int usage(const std::string& message) {
    std::cerr << "ferrit: " << message << "\nsee: ferrit help\n";
    return kUsage;
}

// Runs an entry point over a new argument vector.
int forward(int (*entry)(int, char**), std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return entry(static_cast<int>(arguments.size()), pointers.data());
}

int publishCommand(const std::vector<std::string>& arguments) {
    std::string keyPath, manifestPath, historyPath, validFor;
    bool resign = false;
    std::vector<std::string> positional;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        if (arg == "--resign") {
            resign = true;
        } else if (arg == "--valid-for") {
            if (i + 1 >= arguments.size()) return usage("missing value after " + arg);
            validFor = arguments[++i];
        } else if (arg == "--key" || arg == "--manifest" || arg == "--history") {
            if (i + 1 >= arguments.size()) return usage("missing value after " + arg);
            (arg == "--key"        ? keyPath
             : arg == "--manifest" ? manifestPath
                                   : historyPath) = arguments[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage("unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    if (keyPath.empty() || manifestPath.empty() || positional.size() != 2)
        return usage("publish takes --key, --manifest, SITE and OUT");
    std::string error, text;
    if (!readWholeFile(manifestPath, text)) {
        std::cerr << "ferrit: cannot read " << manifestPath << "\n";
        return kFailure;
    }
    PublishManifest manifest;
    if (!parseManifest(text, manifest, error)) {
        std::cerr << "ferrit: " << manifestPath << ": " << error << "\n";
        return kFailure;
    }
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(keyPath, error);
    if (!key) {
        std::cerr << "ferrit: " << error << "\n";
        return kFailure;
    }
    if (!validFor.empty() && !parseDuration(validFor, manifest.validForMs, error))
        return usage(error);
    manifest.signerKeyId = key->publicKey()->id();
    manifest.resign = resign;
    const bool terminal = isatty(STDERR_FILENO) == 1;
    PublishProgress progress;
    if (terminal) {
        progress = [](const std::string& step, size_t done, size_t total) {
            std::cerr << "\r\033[Kpublish [" << done + 1 << "/" << total << "] " << step
                      << std::flush;
        };
    }
    PublishResult result;
    const bool published =
        FerritTools::publish(positional[0], manifest, positional[1], historyPath,
                             ed25519Signer(std::move(key)), result, error, progress);
    if (terminal) std::cerr << "\r\033[K" << std::flush;
    if (!published) {
        std::cerr << "ferrit: " << error << "\n";
        return kFailure;
    }
    if (result.version == 0) {
        std::cout << "nothing changed: every pack keeps its version\n";
        return kSuccess;
    }
    std::cout << "configuration version " << result.version << " at " << result.configPaths.size()
              << " paths\n";
    std::cout << "signed at " << isoTime(result.issued) << ", valid until "
              << isoTime(result.expires) << (result.resigned ? " (signed again)" : "") << "\n";
    for (const PublishedPack& pack : result.packs) {
        std::cout << pack.name << " " << pack.seq;
        if (!pack.changed) {
            std::cout << " unchanged\n";
            continue;
        }
        if (pack.incremental) {
            std::cout << " (increment from " << pack.baseSeq << ": " << pack.summary.changed.size()
                      << " changed, " << pack.summary.added.size() << " added, "
                      << pack.summary.removed.size() << " removed)";
        } else if (pack.newKey) {
            std::cout << " (full; a new base, signed by the new key)";
        } else if (pack.rebased) {
            std::cout << " (full; a new base, as the history lacks a version since the old one)";
        } else {
            std::cout << " (full)";
        }
        std::cout << "\n";
        for (const std::string& path : pack.written) std::cout << "  wrote " << path << "\n";
    }
    return kSuccess;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage("no command");
    const std::string name = argv[1];
    std::vector<std::string> rest(argv + 2, argv + argc);
    if (name == "help" || name == "--help" || name == "-h") {
        if (!rest.empty()) {
            const auto it = commands().find(rest[0]);
            if (it == commands().end()) return usage("unknown command " + rest[0]);
            printHelp(it->first, it->second);
            return kSuccess;
        }
        printOverview();
        return kSuccess;
    }
    const auto it = commands().find(name);
    if (it == commands().end()) return usage("unknown command " + name);
    // The pack subcommands have full pages of their own.
    const bool packPage = name == "pack" && !rest.empty() && rest[0] != "--help" && rest[0] != "-h";
    for (const std::string& arg : rest) {
        if ((arg == "--help" || arg == "-h") && !packPage) {
            printHelp(it->first, it->second);
            return kSuccess;
        }
    }
    const std::string program = std::string("ferrit ") + name;
    if (name == "keygen") {
        if (rest.size() != 2) return usage("keygen takes PRIVATE.pem and PUBLIC.pem");
        return forward(runSignIndexTool, {program, "keygen", rest[0], rest[1]});
    }
    if (name == "pack" || name == "config" || name == "index") {
        if (rest.empty()) return usage(name + " needs a subcommand");
        std::vector<std::string> arguments{program};
        if (name == "pack") {
            if (rest[0] != "build" && rest[0] != "diff" && rest[0] != "wrap" &&
                rest[0] != "config" && rest[0] != "preload")
                return usage("unknown subcommand pack " + rest[0]);
            arguments.insert(arguments.end(), rest.begin(), rest.end());
            return forward(runPackTool, arguments);
        }
        if (rest[0] != "sign") return usage("unknown subcommand " + name + " " + rest[0]);
        arguments.push_back(name == "config" ? "sign-document" : "sign");
        arguments.insert(arguments.end(), rest.begin() + 1, rest.end());
        return forward(runSignIndexTool, arguments);
    }
    if (name == "publish") return publishCommand(rest);
    if (name == "key") return keyCommand(rest);
    std::vector<std::string> arguments{program};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    if (name == "check") arguments.push_back("--check");
    if (name == "startup") arguments.push_back("--startup");
    if (name == "status" || name == "inspect") arguments.insert(arguments.begin() + 1, name);
    if (name == "cleanup") {
        arguments.push_back("inspect");
        arguments.push_back("FerritDev.cleanup");
    }
    return forward(runRequestTool, arguments);
}
