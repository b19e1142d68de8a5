#include "tools/common/ToolOutput.h"

#include <algorithm>
#include <iostream>
#include <ostream>

namespace FerritTools {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

namespace {

// A stream that keeps nothing: the plain text of a command run with --json.
class DiscardBuffer : public std::streambuf {
  protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

std::ostream& discarded() {
    static DiscardBuffer buffer;
    static std::ostream stream(&buffer);
    return stream;
}

constexpr const char* kJsonFlag = "--json";

}  // namespace

ToolOutput::ToolOutput(std::string command, bool json)
    : command_(std::move(command)), json_(json) {}

ToolOutput::~ToolOutput() = default;

bool ToolOutput::takeJsonFlag(std::vector<std::string>& arguments) {
    const auto end = std::remove(arguments.begin(), arguments.end(), kJsonFlag);
    const bool found = end != arguments.end();
    arguments.erase(end, arguments.end());
    return found;
}

std::ostream& ToolOutput::text() {
    return json_ ? discarded() : std::cout;
}

void ToolOutput::set(std::string key, JSON value) {
    members_.set(std::move(key), std::move(value));
}

void ToolOutput::append(const std::string& key, JSON value) {
    JSON* existing = members_.find(key);
    if (existing == nullptr || !existing->isArray()) {
        members_.set(key, JSON(JSONArray{std::move(value)}));
        return;
    }
    existing->push(std::move(value));
}

void ToolOutput::note(const std::string& message) const {
    std::cerr << "ferrit" << (command_.empty() ? "" : " ") << command_ << ": " << message << "\n";
}

int ToolOutput::finish(int status) {
    if (finished_) return status;
    finished_ = true;
    if (!json_) return status;
    JSONObject report{
        {"command", JSON(command_)}, {"ok", JSON(status == kExitSuccess)}, {"exit", JSON(status)}};
    for (const auto& [key, value] : members_) report.set(key, value);
    if (status != kExitSuccess && !error_.empty()) report.set("error", JSON(error_));
    std::cout << JSON(std::move(report)).toString() << "\n" << std::flush;
    return status;
}

int ToolOutput::fail(const std::string& message) {
    note(message);
    error_ = message;
    return finish(kExitFailure);
}

int ToolOutput::usage(const std::string& message) {
    note(message);
    std::cerr << "see: ferrit " << (command_.empty() ? "help" : command_ + " --help") << "\n";
    error_ = message;
    return finish(kExitUsage);
}

}  // namespace FerritTools
