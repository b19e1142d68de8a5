#include "tools/publish/ReleaseCommands.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>

#include "base/Digest.h"
#include "marl/Json.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Release.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

namespace {

// The command line of a release command: options with a value and the positional arguments in
// order (--json is the tool's, taken before).
struct Arguments {
    std::map<std::string, std::string> values;
    std::vector<std::string> positional;
};

bool parseArguments(const std::vector<std::string>& arguments,
                    const std::vector<std::string>& valued, Arguments& parsed, ToolOutput& out,
                    int& status) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        if (std::find(valued.begin(), valued.end(), arg) != valued.end()) {
            if (i + 1 >= arguments.size()) {
                status = out.usage("missing value after " + arg);
                return false;
            }
            parsed.values[arg] = arguments[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            status = out.usage("unknown option " + arg);
            return false;
        } else {
            parsed.positional.push_back(arg);
        }
    }
    return true;
}

// The manifest and the signing key that every release command needs.
bool loadInputs(const Arguments& parsed, PublishManifest& manifest, Signer& signer, ToolOutput& out,
                int& status) {
    const auto manifestPath = parsed.values.find("--manifest");
    const auto keyPath = parsed.values.find("--key");
    if (manifestPath == parsed.values.end() || keyPath == parsed.values.end()) {
        status = out.usage("needs --key and --manifest");
        return false;
    }
    std::string text, error;
    if (!readWholeFile(manifestPath->second, text)) {
        status = out.fail("cannot read " + manifestPath->second);
        return false;
    }
    if (!parseManifest(text, manifest, error)) {
        status = out.fail(manifestPath->second + ": " + error);
        return false;
    }
    const auto validFor = parsed.values.find("--valid-for");
    if (validFor != parsed.values.end() &&
        !parseDuration(validFor->second, manifest.validForMs, error)) {
        status = out.usage(error);
        return false;
    }
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(keyPath->second, error);
    if (!key) {
        status = out.fail(error);
        return false;
    }
    manifest.signerKeyId = key->publicKey()->id();
    manifest.signerPublicKey = FerritCore::Digest::base64Encode(key->publicKey()->raw());
    signer = ed25519Signer(std::move(key));
    return true;
}

std::string valueOr(const Arguments& parsed, const std::string& name,
                    const std::string& fallback = {}) {
    const auto it = parsed.values.find(name);
    return it == parsed.values.end() ? fallback : it->second;
}

std::string percentText(uint32_t share) {
    const uint32_t whole = share / kSharePerPercent;
    const uint32_t part = share % kSharePerPercent;
    if (part == 0) return std::to_string(whole) + "%";
    return std::to_string(whole) + "." + (part < 10 ? "0" : "") + std::to_string(part) + "%";
}

JSON releaseJson(const PackRelease& release) {
    JSON value(JSONObject{});
    value.set("released", JSON(release.seq));
    if (release.graySeq != 0) {
        value.set("rollout", JSON(release.graySeq));
        value.set("percent", JSON(static_cast<double>(release.share) / kSharePerPercent));
    }
    return value;
}

std::string describe(const PackRelease& release) {
    std::string text = release.seq == 0 ? std::string("no version released")
                                        : "version " + std::to_string(release.seq) + " released";
    if (release.graySeq != 0) {
        text += release.share == 0
                    ? ", version " + std::to_string(release.graySeq) + "'s rollout taken back"
                    : ", version " + std::to_string(release.graySeq) + " to " +
                          percentText(release.share) + " of devices";
    }
    return text;
}

// The report of a release command: lines for a reader, and with --json the same facts as members.
int report(const ReleaseResult& result, ToolOutput& out) {
    out.set("pack", JSON(result.pack));
    out.set("channel", JSON(result.channel));
    out.set("before", releaseJson(result.before));
    out.set("after", releaseJson(result.after));
    out.set("configVersion", JSON(result.version));
    out.set("built", JSON(result.built));
    out.set("written", JSON(result.written));
    if (result.version != 0) {
        out.set("issued", JSON(result.issued));
        out.set("expires", JSON(result.expires));
    }
    const std::string where = result.channel.empty() ? "" : " in channel " + result.channel;
    if (result.version == 0) {
        out.text() << result.pack << where << ": nothing changed (" << describe(result.after)
                   << ")\n";
        return out.finish();
    }
    out.text() << result.pack << where << ": " << describe(result.after) << " (was "
               << describe(result.before) << ")\n"
               << "configuration version " << result.version << ", signed at "
               << isoTime(result.issued) << ", valid until " << isoTime(result.expires) << "\n";
    for (const std::string& path : result.written) out.text() << "  wrote " << path << "\n";
    return out.finish();
}

bool checkChannel(const std::string& channel, ToolOutput& out, int& status) {
    if (validChannelName(channel)) return true;
    status = out.usage("the channel \"" + channel +
                       "\" is not a plain name (letters, digits, \".\", \"_\", \"-\")");
    return false;
}

}  // namespace

int rolloutCommand(const std::vector<std::string>& arguments, ToolOutput& out) {
    Arguments parsed;
    int status = kExitUsage;
    if (!parseArguments(
            arguments,
            {"--key", "--manifest", "--history", "--channel", "--percent", "--valid-for"}, parsed,
            out, status))
        return status;
    if (parsed.positional.size() != 3) return out.usage("takes PACK, SITE and OUT");
    const std::string percent = valueOr(parsed, "--percent");
    if (percent.empty()) return out.usage("needs --percent N");
    char* end = nullptr;
    const double value = std::strtod(percent.c_str(), &end);
    const double scaled = value * kSharePerPercent;
    if (end == percent.c_str() || *end != '\0' || !(value > 0) || value > 100 ||
        std::fabs(scaled - std::round(scaled)) > 1e-6)
        return out.usage("--percent takes a number above 0 and at most 100, in steps of 0.01");
    const std::string channel = valueOr(parsed, "--channel");
    if (!checkChannel(channel, out, status)) return status;
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(parsed, manifest, signer, out, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!rollout(parsed.positional[1], manifest, parsed.positional[2], valueOr(parsed, "--history"),
                 signer, channel, parsed.positional[0], static_cast<uint32_t>(std::lround(scaled)),
                 result, error))
        return out.fail(error);
    return report(result, out);
}

int promoteCommand(const std::vector<std::string>& arguments, ToolOutput& out) {
    Arguments parsed;
    int status = kExitUsage;
    if (!parseArguments(arguments,
                        {"--key", "--manifest", "--history", "--channel", "--from", "--valid-for"},
                        parsed, out, status))
        return status;
    if (parsed.positional.size() != 2) return out.usage("takes PACK and OUT");
    const std::string channel = valueOr(parsed, "--channel");
    const std::string from = valueOr(parsed, "--from", channel);
    if (!checkChannel(channel, out, status) || !checkChannel(from, out, status)) return status;
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(parsed, manifest, signer, out, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!promote(manifest, parsed.positional[1], valueOr(parsed, "--history"), signer, channel,
                 from, parsed.positional[0], result, error))
        return out.fail(error);
    return report(result, out);
}

int rollbackCommand(const std::vector<std::string>& arguments, ToolOutput& out) {
    Arguments parsed;
    int status = kExitUsage;
    if (!parseArguments(arguments,
                        {"--key", "--manifest", "--history", "--channel", "--to", "--valid-for"},
                        parsed, out, status))
        return status;
    if (parsed.positional.size() != 2) return out.usage("takes PACK and OUT");
    const std::string channel = valueOr(parsed, "--channel");
    if (!checkChannel(channel, out, status)) return status;
    uint64_t to = 0;
    const std::string toText = valueOr(parsed, "--to");
    if (!toText.empty()) {
        if (toText.find_first_not_of("0123456789") != std::string::npos || toText.size() > 19 ||
            (to = std::stoull(toText)) == 0)
            return out.usage("--to takes a version number above 0");
    }
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(parsed, manifest, signer, out, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!rollback(manifest, parsed.positional[1], valueOr(parsed, "--history"), signer, channel,
                  parsed.positional[0], to, result, error))
        return out.fail(error);
    return report(result, out);
}

}  // namespace FerritTools
