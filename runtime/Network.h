// The three kinds of network request the system makes, all through the host's Proxy, with their
// headers, timeouts and judgement of the answer. Any thread; completions as each says.
//
// Every request has a deadline from Settings ("configRequestDeadline", "resourceRequestDeadline",
// "packRequestDeadline"): a host that has not answered by then gets its request ended on the
// worker with 1003, "request \"<url>\" failed: 110, no answer within N s". Each completion runs
// exactly once: an answer after the deadline, or a second answer, is dropped.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/Folder.h"
#include "base/ProxyRequest.h"
#include "ferritcore/Error.h"

namespace FerritCore::Network {

// A configuration document, in memory. The completion is posted to the worker (never the host's
// thread) with the content or: 1003 transport failure, 1006 empty body, 1202 a body of "{}",
// 1004 a status outside 200..299, 1007 a body above "configMaxSize" (refused before anyone parses
// it). An empty URL (1001) or no proxy (9991) completes at once.
void requestConfig(const std::string& url, const std::string& traceId,
                   std::function<void(std::string content, Error error)> completion);

// A resource, in memory, with every response header. Completes on whatever thread the proxy
// answered on: 1003, 1006 (2xx without a body), 1004 (any other status; 304 only with
// `allow304`). An empty URL (1001) or no proxy (9991) completes at once.
void requestResource(const std::string& url, const std::string& traceId, const HeaderMap& header,
                     bool allow304,
                     std::function<void(ProxyResponse response, Error error)> completion);

// A pack, written by the proxy to `target`, which the caller owns before and after. The completion
// is posted to the worker with the "Content-Length" (0 when absent) or: 1003, 1004, 1006 (no file).
void requestPack(const std::string& url, const Folder& target, const std::string& traceId,
                 uint32_t progressId, std::function<void(uint64_t length, Error error)> completion);

// Whether a pack with these update flags may download now. False with the reason ("None",
// "Slow cellular", "Fast cellular") or, for an unknown status, an empty reason.
bool downloadAllowed(uint64_t packFlags, std::string& reason);

}  // namespace FerritCore::Network
