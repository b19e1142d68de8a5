// ferrit keygen, ferrit index sign and ferrit config sign: the Ed25519 key pair that signs, the
// signed resource list "app-res.hvc" of a pack folder, and a signed configuration document.
//
//   ferrit keygen [--force] PRIVATE.pem PUBLIC.pem
//   ferrit index sign --key PRIVATE.pem --url-prefix URL [--header PATH=NAME:VALUE]...
//                     [--table-out FILE] PACKDIR
//   ferrit config sign --key PRIVATE.pem JSONFILE OUTFILE
//
// keygen refuses to replace an existing key file unless --force is given, and creates the private
// key readable by its owner only.
//
// `index sign` lists every file below PACKDIR/res/ (".DS_Store" and "__MACOSX" left out), in path
// order, as {"res/<path>": {"url": URL + <path>, "v": <MD5 of the file>, "header": {...}}}, and
// writes PACKDIR/app-res.hvc as that JSON, "||", a token, "|", and the base64 Ed25519 signature
// of the JSON's lower-case hexadecimal MD5. --table-out also writes the bare JSON, the resource
// table that a built-in configuration embeds. Ed25519 is deterministic: the same files and key
// give the same bytes.
//
// `config sign` writes a configuration document as a configuration endpoint serves it: the
// JSON text, "||", and the base64 Ed25519 signature of the text's lower-case hexadecimal MD5.
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "marl/Json.h"
#include "tools/ToolCommands.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/common/ToolOutput.h"
#include "tools/pack/PackBuilder.h"

using FerritTools::Ed25519Key;
using FerritTools::ToolOutput;
using MarlLogger::json::JSON;
namespace fs = std::filesystem;

namespace {

// What the index carries between its two separators; readers skip it.
constexpr const char* kToken = "ed25519";

// Whether the folder that `path` would be written into exists; `error` names it when not.
bool folderExists(const std::string& path, std::string& error) {
    fs::path folder = fs::path(path).parent_path();
    if (folder.empty()) folder = ".";
    std::error_code code;
    if (fs::is_directory(folder, code)) return true;
    error = "cannot write " + path + ": the folder " + folder.string() + " does not exist";
    return false;
}

int keygen(const std::vector<std::string>& arguments, ToolOutput& out) {
    bool force = false;
    std::vector<std::string> paths;
    for (const std::string& arg : arguments) {
        if (arg == "--force") {
            force = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            paths.push_back(arg);
        }
    }
    if (paths.size() != 2) return out.usage("keygen takes PRIVATE.pem and PUBLIC.pem");
    const std::string& privatePath = paths[0];
    const std::string& publicPath = paths[1];
    if (fs::path(privatePath).lexically_normal() == fs::path(publicPath).lexically_normal())
        return out.usage("PRIVATE.pem and PUBLIC.pem must be two files");
    std::string error;
    for (const std::string& path : paths) {
        std::error_code code;
        if (!force && fs::exists(fs::symlink_status(path, code))) {
            return out.fail(path +
                            " already exists; keygen does not replace a key (--force replaces it)");
        }
        if (!folderExists(path, error)) return out.fail(error);
    }
    std::unique_ptr<Ed25519Key> key = Ed25519Key::generate(error);
    if (!key) return out.fail(error);
    // Without --force an existing file is never replaced, not even one that another process made
    // after the check above: each file gets its name by a link, which fails when the name exists.
    const Ed25519Key::Existing existing =
        force ? Ed25519Key::Existing::Replace : Ed25519Key::Existing::Keep;
    if (!key->writePrivatePem(privatePath, error, existing)) return out.fail(error);
    if (!key->writePublicPem(publicPath, error, existing)) {
        // Half a pair is no key: the private file this run made goes too.
        std::error_code ignored;
        if (!force) fs::remove(privatePath, ignored);
        return out.fail(error);
    }
    out.text() << "wrote " << privatePath << " and " << publicPath << "\n";
    out.set("private", MarlLogger::json::JSON(privatePath));
    out.set("public", MarlLogger::json::JSON(publicPath));
    return out.finish();
}

FerritTools::Signer signerOf(const std::string& privatePath, std::string& error) {
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(privatePath, error);
    return key ? FerritTools::ed25519Signer(std::move(key)) : FerritTools::Signer();
}

int sign(int argc, char** argv, ToolOutput& out) {
    std::string keyPath, urlPrefix, tableOut, folder;
    FerritTools::PackContent content;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--key" || arg == "--url-prefix" || arg == "--table-out" || arg == "--header") {
            const char* v = value();
            if (v == nullptr) return out.usage("missing value after " + arg);
            if (arg == "--key") keyPath = v;
            if (arg == "--url-prefix") urlPrefix = v;
            if (arg == "--table-out") tableOut = v;
            if (arg == "--header") {
                const std::string h = v;
                const size_t equals = h.find('=');
                const size_t colon = h.find(':', equals == std::string::npos ? 0 : equals);
                if (equals == std::string::npos || colon == std::string::npos)
                    return out.usage("a header is PATH=NAME:VALUE");
                size_t start = colon + 1;
                while (start < h.size() && h[start] == ' ') ++start;
                content.headers[h.substr(0, equals)][h.substr(equals + 1, colon - equals - 1)] =
                    h.substr(start);
            }
        } else if (!arg.empty() && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            folder = arg;
        }
    }
    if (keyPath.empty() || urlPrefix.empty() || folder.empty())
        return out.usage("sign needs --key, --url-prefix and PACKDIR");
    std::string error, body, index;
    if (!FerritTools::readFolder((fs::path(folder) / "res").string(), content.files, error) ||
        !FerritTools::indexJson(content, urlPrefix, {}, body, error)) {
        return out.fail(error);
    }
    const FerritTools::Signer signer = signerOf(keyPath, error);
    if (!signer || !FerritTools::signIndex(body, kToken, signer, index, error))
        return out.fail(error);
    const fs::path indexPath = fs::path(folder) / FerritTools::kIndexEntry;
    if (!FerritTools::writeFileAtomically(indexPath.string(), index))
        return out.fail("cannot write " + indexPath.string());
    if (!tableOut.empty() && !FerritTools::writeFileAtomically(tableOut, body + "\n"))
        return out.fail("cannot write " + tableOut);
    out.text() << "wrote " << indexPath.string() << " (" << content.files.size()
               << (content.files.size() == 1 ? " file)\n" : " files)\n");
    out.set("list", JSON(indexPath.string()));
    out.set("files", JSON(static_cast<uint64_t>(content.files.size())));
    if (!tableOut.empty()) out.set("table", JSON(tableOut));
    return out.finish();
}

int signDocumentCommand(int argc, char** argv, ToolOutput& out) {
    std::string keyPath;
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--key" && i + 1 < argc) {
            keyPath = argv[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            files.push_back(arg);
        }
    }
    if (keyPath.empty() || files.size() != 2)
        return out.usage("sign takes --key, JSONFILE and OUTFILE");
    std::string body;
    if (!FerritTools::readWholeFile(files[0], body)) return out.fail("cannot read " + files[0]);
    while (!body.empty() && (body.back() == '\n' || body.back() == '\r')) body.pop_back();
    std::string parseError;
    if (JSON::parse(body, &parseError).isNull() || !parseError.empty())
        return out.fail(files[0] + ": " + parseError);
    std::string error, document;
    const FerritTools::Signer signer = signerOf(keyPath, error);
    if (!signer || !FerritTools::signDocument(body, signer, document, error))
        return out.fail(error);
    if (!FerritTools::writeFileAtomically(files[1], document))
        return out.fail("cannot write " + files[1]);
    out.text() << "wrote " << files[1] << "\n";
    out.set("document", JSON(files[1]));
    return out.finish();
}

}  // namespace

int FerritTools::runSignIndexTool(int argc, char** argv, ToolOutput& out) {
    if (argc < 2) return out.usage("needs a subcommand");
    const std::string command = argv[1];
    if (command == "keygen") return keygen(std::vector<std::string>(argv + 2, argv + argc), out);
    if (command == "sign") return sign(argc, argv, out);
    if (command == "sign-document") return signDocumentCommand(argc, argv, out);
    return out.usage("unknown subcommand " + command);
}
