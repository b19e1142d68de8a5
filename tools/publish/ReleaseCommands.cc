#include "tools/publish/ReleaseCommands.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>

#include "marl/Json.h"
#include "tools/common/Ed25519Key.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Release.h"

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

int usage(const std::string& command, const std::string& message) {
    std::cerr << "ferrit " << command << ": " << message << "\nsee: ferrit " << command
              << " --help\n";
    return kUsage;
}

int failure(const std::string& command, const std::string& message) {
    std::cerr << "ferrit " << command << ": " << message << "\n";
    return kFailure;
}

// The command line of a release command: options with a value, the flag --json, and the
// positional arguments in order.
struct Arguments {
    std::map<std::string, std::string> values;
    std::vector<std::string> positional;
    bool json = false;
};

bool parseArguments(const std::string& command, const std::vector<std::string>& arguments,
                    const std::vector<std::string>& valued, Arguments& parsed, int& status) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        if (arg == "--json") {
            parsed.json = true;
        } else if (std::find(valued.begin(), valued.end(), arg) != valued.end()) {
            if (i + 1 >= arguments.size()) {
                status = usage(command, "missing value after " + arg);
                return false;
            }
            parsed.values[arg] = arguments[++i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            status = usage(command, "unknown option " + arg);
            return false;
        } else {
            parsed.positional.push_back(arg);
        }
    }
    return true;
}

// The manifest and the signing key that every release command needs.
bool loadInputs(const std::string& command, const Arguments& parsed, PublishManifest& manifest,
                Signer& signer, int& status) {
    const auto manifestPath = parsed.values.find("--manifest");
    const auto keyPath = parsed.values.find("--key");
    if (manifestPath == parsed.values.end() || keyPath == parsed.values.end()) {
        status = usage(command, "needs --key and --manifest");
        return false;
    }
    std::string text, error;
    if (!readWholeFile(manifestPath->second, text)) {
        status = failure(command, "cannot read " + manifestPath->second);
        return false;
    }
    if (!parseManifest(text, manifest, error)) {
        status = failure(command, manifestPath->second + ": " + error);
        return false;
    }
    std::shared_ptr<const Ed25519Key> key = Ed25519Key::loadPrivate(keyPath->second, error);
    if (!key) {
        status = failure(command, error);
        return false;
    }
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

// The report of a release command: one JSON document with --json, else lines for a reader.
int report(const std::string& command, const ReleaseResult& result, bool json) {
    if (json) {
        JSON out(JSONObject{});
        out.set("command", JSON(command));
        out.set("pack", JSON(result.pack));
        out.set("channel", JSON(result.channel));
        out.set("before", releaseJson(result.before));
        out.set("after", releaseJson(result.after));
        out.set("configVersion", JSON(result.version));
        out.set("built", JSON(result.built));
        out.set("written", JSON(result.written));
        std::cout << out.toString() << "\n";
        return kSuccess;
    }
    const std::string where = result.channel.empty() ? "" : " in channel " + result.channel;
    if (result.version == 0) {
        std::cout << result.pack << where << ": nothing changed (" << describe(result.after)
                  << ")\n";
        return kSuccess;
    }
    std::cout << result.pack << where << ": " << describe(result.after) << " (was "
              << describe(result.before) << ")\n"
              << "configuration version " << result.version << "\n";
    for (const std::string& path : result.written) std::cout << "  wrote " << path << "\n";
    return kSuccess;
}

bool checkChannel(const std::string& command, const std::string& channel, int& status) {
    if (validChannelName(channel)) return true;
    status = usage(command, "the channel \"" + channel +
                                "\" is not a plain name (letters, digits, \".\", \"_\", \"-\")");
    return false;
}

}  // namespace

int rolloutCommand(const std::vector<std::string>& arguments) {
    const std::string command = "rollout";
    Arguments parsed;
    int status = kUsage;
    if (!parseArguments(command, arguments,
                        {"--key", "--manifest", "--history", "--channel", "--percent"}, parsed,
                        status))
        return status;
    if (parsed.positional.size() != 3) return usage(command, "takes PACK, SITE and OUT");
    const std::string percent = valueOr(parsed, "--percent");
    if (percent.empty()) return usage(command, "needs --percent N");
    char* end = nullptr;
    const double value = std::strtod(percent.c_str(), &end);
    const double scaled = value * kSharePerPercent;
    if (end == percent.c_str() || *end != '\0' || !(value > 0) || value > 100 ||
        std::fabs(scaled - std::round(scaled)) > 1e-6)
        return usage(command, "--percent takes a number above 0 and at most 100, in steps of 0.01");
    const std::string channel = valueOr(parsed, "--channel");
    if (!checkChannel(command, channel, status)) return status;
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(command, parsed, manifest, signer, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!rollout(parsed.positional[1], manifest, parsed.positional[2], valueOr(parsed, "--history"),
                 signer, channel, parsed.positional[0], static_cast<uint32_t>(std::lround(scaled)),
                 result, error))
        return failure(command, error);
    return report(command, result, parsed.json);
}

int promoteCommand(const std::vector<std::string>& arguments) {
    const std::string command = "promote";
    Arguments parsed;
    int status = kUsage;
    if (!parseArguments(command, arguments,
                        {"--key", "--manifest", "--history", "--channel", "--from"}, parsed,
                        status))
        return status;
    if (parsed.positional.size() != 2) return usage(command, "takes PACK and OUT");
    const std::string channel = valueOr(parsed, "--channel");
    const std::string from = valueOr(parsed, "--from", channel);
    if (!checkChannel(command, channel, status) || !checkChannel(command, from, status))
        return status;
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(command, parsed, manifest, signer, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!promote(manifest, parsed.positional[1], valueOr(parsed, "--history"), signer, channel,
                 from, parsed.positional[0], result, error))
        return failure(command, error);
    return report(command, result, parsed.json);
}

int rollbackCommand(const std::vector<std::string>& arguments) {
    const std::string command = "rollback";
    Arguments parsed;
    int status = kUsage;
    if (!parseArguments(command, arguments,
                        {"--key", "--manifest", "--history", "--channel", "--to"}, parsed, status))
        return status;
    if (parsed.positional.size() != 2) return usage(command, "takes PACK and OUT");
    const std::string channel = valueOr(parsed, "--channel");
    if (!checkChannel(command, channel, status)) return status;
    uint64_t to = 0;
    const std::string toText = valueOr(parsed, "--to");
    if (!toText.empty()) {
        if (toText.find_first_not_of("0123456789") != std::string::npos || toText.size() > 19 ||
            (to = std::stoull(toText)) == 0)
            return usage(command, "--to takes a version number above 0");
    }
    PublishManifest manifest;
    Signer signer;
    if (!loadInputs(command, parsed, manifest, signer, status)) return status;
    ReleaseResult result;
    std::string error;
    if (!rollback(manifest, parsed.positional[1], valueOr(parsed, "--history"), signer, channel,
                  parsed.positional[0], to, result, error))
        return failure(command, error);
    return report(command, result, parsed.json);
}

}  // namespace FerritTools
