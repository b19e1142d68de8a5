#include "base/Url.h"

#include <cstring>

#include "support/Ascii.h"

namespace FerritCore::Url {
namespace {

// Position of the first of ":/?#", or npos.
size_t firstDelimiter(std::string_view s) {
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (c == ':' || c == '/' || c == '?' || c == '#') return i;
    }
    return std::string_view::npos;
}

}  // namespace

bool isAbsolute(std::string_view s) {
    return s.starts_with("//") || s.starts_with("http://") || s.starts_with("https://");
}

size_t schemeLength(std::string_view s) {
    if (s.starts_with("//")) return 2;
    const size_t colon = firstDelimiter(s);
    if (colon == std::string_view::npos || colon == 0 || s[colon] != ':') return 0;
    if (s.substr(colon + 1, 2) == "//") return colon + 3;
    return colon + 1;
}

size_t terminator(std::string_view s) {
    // memchr finds each mark many bytes at a time: every request's URL and referrer pass here.
    const char* data = s.data();
    const size_t n = s.size();
    const void* hash = n > 0 ? std::memchr(data, '#', n) : nullptr;
    const size_t end =
        hash != nullptr ? static_cast<size_t>(static_cast<const char*>(hash) - data) : n;
    size_t from = 0;
    while (from < end) {
        const void* mark = std::memchr(data + from, '?', end - from);
        if (mark == nullptr) break;
        const size_t i = static_cast<size_t>(static_cast<const char*>(mark) - data);
        if (i + 1 < n && data[i + 1] == '?') {
            from = i + 2;  // "??" belongs to the path of an aggregate URL
            continue;
        }
        return i;
    }
    return end;
}

std::string_view bare(std::string_view s) {
    const size_t start = schemeLength(s);
    std::string_view rest = s.substr(start);
    return rest.substr(0, terminator(rest));
}

void keyInto(std::string_view s, std::string& out) {
    out.clear();
    s = s.substr(0, terminator(s));
    if (s.empty()) return;
    if (s.starts_with("//")) {
        out.assign(s);
        return;
    }
    const size_t delimiter = firstDelimiter(s);
    if (delimiter != std::string_view::npos && delimiter > 0 && s[delimiter] == ':') {
        // "https://a/b" -> "//a/b"; "host:8080/x" -> "8080/x", as every index key was made.
        out.assign(s.substr(delimiter + 1));
        return;
    }
    out.reserve(s.size() + 2);
    out.append("//");
    out.append(s);
}

std::string key(std::string_view s) {
    std::string out;
    keyInto(s, out);
    return out;
}

size_t authorityEnd(std::string_view s) {
    const size_t start = schemeLength(s);
    for (size_t i = start; i < s.size(); ++i) {
        if (s[i] == '/' || s[i] == '?') return i;
    }
    return s.size();
}

std::string_view origin(std::string_view s) {
    return s.substr(0, authorityEnd(s));
}

std::string_view pathPart(std::string_view s) {
    return s.substr(authorityEnd(s));
}

std::string extension(std::string_view s) {
    const size_t dot = s.rfind('.');
    if (dot == std::string_view::npos) return {};
    std::string out(s.substr(dot + 1));
    Ascii::lowerInPlace(out);
    return out;
}

void trimLeadingSlash(std::string& s) {
    if (!s.empty() && s[0] == '/' && !(s.size() > 1 && s[1] == '/')) s.erase(0, 1);
}

void ensureTrailingSlash(std::string& s) {
    if (!s.empty() && s.back() != '/') s.push_back('/');
}

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (Ascii::isAlphaNumeric(c) || c == '-' || c == '.' || c == '~' || c == '_') {
            out.push_back(c);
        } else if (c == ' ') {
            out.push_back('+');
        } else {
            out.push_back('%');
            out.push_back(Ascii::kUpperHexDigits[u >> 4]);
            out.push_back(Ascii::kUpperHexDigits[u & 0xF]);
        }
    }
    return out;
}

}  // namespace FerritCore::Url
