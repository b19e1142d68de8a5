#include "tools/keys/KeyCommand.h"

#include "tools/common/Ed25519Key.h"
#include "tools/keys/KeyRotation.h"

namespace FerritTools {
namespace {

std::shared_ptr<const Ed25519Key> load(const std::string& path, bool isPrivate,
                                       std::string& error) {
    return isPrivate ? std::shared_ptr<const Ed25519Key>(Ed25519Key::loadPrivate(path, error))
                     : std::shared_ptr<const Ed25519Key>(Ed25519Key::loadPublic(path, error));
}

}  // namespace

const char* const kKeySynopsis =
    "ferrit key rotate --key PEM --next PUBLIC.pem [--history DIR] [--valid-for DURATION] OUT\n"
    "    ferrit key rotate --key PEM --retire PUBLIC.pem [--history DIR] [--valid-for DURATION] "
    "OUT";

const char* const kKeyDescription =
    "Hands the published tree OUT from one signing key to another without a new app: the\n"
    "    devices take the successor from the documents and refuse the old key once it is "
    "retired.\n"
    "    A change of keys has three steps:\n"
    "      1. ferrit key rotate --key OLD.pem --next NEW.pub.pem OUT\n"
    "         signs every global configuration of OUT again with OLD, naming NEW as the key "
    "that\n"
    "         follows; devices trust NEW beside OLD from then on. OLD also endorses NEW, and "
    "the\n"
    "         documents NEW signs carry that endorsement, so a device that misses this step "
    "still\n"
    "         follows.\n"
    "      2. ferrit publish --key NEW.pem ...\n"
    "         signs with NEW from now on; every pack gets a new version whose signed list NEW\n"
    "         signs, even when its files did not change: a full one, a new base, as devices "
    "keep\n"
    "         the base's list beside an increment's.\n"
    "      3. ferrit key rotate --key NEW.pem --retire OLD.pub.pem OUT\n"
    "         signs the global configurations again, retiring OLD: a device that takes them "
    "refuses\n"
    "         every document and signed list of OLD from then on, even when its app still "
    "opens\n"
    "         with OLD as its public key. Refused while a pack's newest version is signed by "
    "OLD.\n"
    "    Each step also signs the documents with a new signing time and expiry (as publish "
    "does),\n"
    "    and keeps the tree's keys in the publishing history (by default OUT.publish), where\n"
    "    publish checks them: a retired key, or a key the tree was not handed to, cannot "
    "publish.\n"
    "    Keys are named by their id: the first 32 hexadecimal characters of the SHA-256 of the "
    "raw\n"
    "    public key.";

const char* const kKeyOptions =
    "    --key PEM             the private key that signs the tree now.\n"
    "    --next PUBLIC.pem     the public half of the successor (made by `ferrit keygen`).\n"
    "    --retire PUBLIC.pem   the public half of the key to retire.\n"
    "    --history DIR         the publishing history (default OUT.publish).\n"
    "    --valid-for DURATION  how long devices take the documents signed now: days, or a "
    "number\n"
    "                          with d, h, m or s (default 30d).\n";

int keyCommand(const std::vector<std::string>& arguments, ToolOutput& out) {
    using MarlLogger::json::JSON;
    if (arguments.empty() || arguments[0] != "rotate")
        return out.usage(arguments.empty() ? "needs a subcommand"
                                           : "unknown subcommand " + arguments[0]);
    out.setCommand("key rotate");
    std::string keyPath, nextPath, retirePath, historyPath, validFor;
    std::vector<std::string> positional;
    for (size_t i = 1; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        if (arg == "--key" || arg == "--next" || arg == "--retire" || arg == "--history" ||
            arg == "--valid-for") {
            if (i + 1 >= arguments.size()) return out.usage("missing value after " + arg);
            (arg == "--key"       ? keyPath
             : arg == "--next"    ? nextPath
             : arg == "--retire"  ? retirePath
             : arg == "--history" ? historyPath
                                  : validFor) = arguments[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return out.usage("unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    if (keyPath.empty() || positional.size() != 1 || nextPath.empty() == retirePath.empty())
        return out.usage("key rotate takes --key, either --next or --retire, and OUT");
    RotateRequest request;
    request.out = positional[0];
    request.history = historyPath;
    std::string error;
    if (!validFor.empty() && !parseDuration(validFor, request.validForMs, error))
        return out.usage(error);
    request.key = load(keyPath, true, error);
    if (request.key && !nextPath.empty()) request.next = load(nextPath, false, error);
    if (request.key && !retirePath.empty()) request.retire = load(retirePath, false, error);
    if (!request.key || (!nextPath.empty() && !request.next) ||
        (!retirePath.empty() && !request.retire))
        return out.fail(error);
    RotateResult result;
    if (!rotateKeys(request, result, error)) return out.fail(error);
    out.set("tree", JSON(request.out));
    out.set("signer", JSON(result.signerId));
    if (!result.nextId.empty()) out.set("next", JSON(result.nextId));
    if (!result.retiredId.empty()) out.set("retired", JSON(result.retiredId));
    out.set("issued", JSON(result.stamp.issued));
    out.set("expires", JSON(result.stamp.expires));
    out.set("resigned", JSON(result.resigned));
    if (!result.nextId.empty()) {
        out.text() << "key " << result.signerId << " names its successor " << result.nextId << "\n";
        out.text() << "next: ferrit publish with the successor's private key, then ferrit key "
                      "rotate --retire with the public half of this one\n";
    } else {
        out.text() << "key " << result.retiredId << " retired by " << result.signerId << "\n";
    }
    out.text() << "signed " << result.resigned.size() << " configuration documents at "
               << isoTime(result.stamp.issued) << ", valid until " << isoTime(result.stamp.expires)
               << "\n";
    return out.finish();
}

}  // namespace FerritTools
