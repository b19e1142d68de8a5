// URL normal forms. Every stored key is produced by these functions, so lookups and indexes must
// agree on them to the byte. None checks validity: bad URLs simply find nothing. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace FerritCore::Url {

// Begins with "//", "http://" or "https://" (case-sensitive).
bool isAbsolute(std::string_view s);
// Position just after the scheme and its slashes: 2 for "//..."; after "://" or ":" when the
// first of ":/?#" is a ":" past position 0; otherwise 0.
size_t schemeLength(std::string_view s);
// Position of the first "#", or of the first "?" that is not part of "??"; the length when none.
// "??" is ordinary text so that an aggregate URL survives whole.
size_t terminator(std::string_view s);
// `s` from schemeLength, cut at terminator.
std::string_view bare(std::string_view s);
// `s` cut at terminator, in "//" form; empty for empty.
std::string key(std::string_view s);
// Appends key(s) to `out` (which is cleared first); lets hot paths reuse a buffer.
void keyInto(std::string_view s, std::string& out);
// First "/" or "?" from schemeLength, or the length.
size_t authorityEnd(std::string_view s);
std::string_view origin(std::string_view s);
std::string_view pathPart(std::string_view s);
// What follows the last "." of `s`, lower-cased; empty when there is no dot.
std::string extension(std::string_view s);
// Removes the first character when `s` begins with one "/" but not with "//".
void trimLeadingSlash(std::string& s);
// Appends "/" when `s` is non-empty and does not end with one.
void ensureTrailingSlash(std::string& s);
// `text` made safe for one component of a URL: letters, digits, "-", ".", "~" and "_" stay; a blank
// becomes "+"; any other byte "%XX" in capitals.
std::string escape(std::string_view text);

}  // namespace FerritCore::Url
