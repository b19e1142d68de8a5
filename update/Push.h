// Push: the handlers of the host's push topics "wpb.fconfig" and "wpb.packconfig". Any thread
// (the host calls them on its own); each change goes through one configuration transaction.
//
// A configuration message is an unsigned document: only its records are merged at once, and the
// client then fetches the real, signed document after a random share of the message's delay. A
// pack message is an object of pack records, merged as they are. Neither origin is checked here:
// the host's push transport is trusted. A message that does not parse adds nothing and reaches
// no caller as an error.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace FerritCore {

class Push {
  public:
    // Follows the first message that is newer than the current configuration version (compared
    // as strings); the rest are not looked at. An empty list does nothing.
    static void onConfigPush(const std::vector<std::string>& messages);
    // Merges the records of every message that is not a configuration; a name already met in an
    // earlier message keeps that record. An empty list does nothing.
    static void onPackConfigPush(const std::vector<std::string>& messages);
    // Whether a message is a configuration: it holds a string "v" member.
    static bool isConfigMessage(std::string_view message);
};

}  // namespace FerritCore
