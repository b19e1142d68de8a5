// What a server needs to cache each kind of path of a published tree correctly, written beside
// the tree (never in it): global and pack configuration documents are rewritten in place by later
// publishes, so caches keep them briefly and revalidate; zips are written once, at a path named by
// their pack and version, and never rewritten, so caches keep them as immutable. Two forms: an
// nginx snippet of locations to include in the server block whose root is the tree, and a plain
// manifest of path patterns and headers for any other server or for an upload to an object store.
// Plain functions; one publish per tree at a time.
#pragma once

#include <string>

namespace FerritTools {

// The Cache-Control values of the two kinds of path.
inline constexpr const char* kConfigurationCacheControl = "public, max-age=60, must-revalidate";
inline constexpr const char* kImmutableCacheControl = "public, max-age=31536000, immutable";

// Where the rules of the tree `out` go: "<out>.nginx.conf" and "<out>.headers.json" beside it
// ("/srv/site" has "/srv/site.nginx.conf"); empty when `out` has no name of its own.
std::string nginxRulesPath(const std::string& out);
std::string headersManifestPath(const std::string& out);

// Writes both for a tree whose zips lie below `zipFolder` ("packs/"). False with `error` set when
// a file cannot be written.
bool writeCacheRules(const std::string& out, const std::string& zipFolder, std::string& error);

// Writes `content` at `relative` below `out` when nothing is there yet, or when the same bytes
// are: a path that caches hold as immutable is never given other bytes. False with `error`
// naming the path otherwise.
bool writeImmutable(const std::string& out, const std::string& relative, const std::string& content,
                    std::string& error);

}  // namespace FerritTools
