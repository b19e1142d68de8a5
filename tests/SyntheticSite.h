// A web site made up from a fixed seed, for the tests and benchmarks that install packs of a
// realistic shape: pages, scripts and style sheets of word-like text that compresses as web text
// does, JSON data, and images of bytes that do not compress, in about the proportions of a real
// app (by bytes, seven parts text to three parts images). The same arguments always give the same
// files. Plain functions; any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace FerritTest {

// Relative path below the resources to content, as the pack kit takes it.
using SiteFiles = std::map<std::string, std::string>;

namespace SyntheticSite {

// Every fourth file is an image; images are three tenths of the bytes.
constexpr int kImageEvery = 4;
constexpr double kImageShare = 0.3;

inline std::string words(std::mt19937_64& random, size_t bytes) {
    static const char* const kWords[] = {
        "const",  "function", "return", "div",    "class",   "span",   "value",  "item",
        "render", "state",    "props",  "button", "display", "margin", "color",  "width",
        "export", "import",   "async",  "await",  "=>",      "{",      "}",      ";",
        "<p>",    "</p>",     "data",   "title",  "shop",    "cart",   "price",  "user",
        "list",   "index",    "map",    "filter", "px",      "flex",   "center", "null"};
    constexpr size_t kCount = sizeof(kWords) / sizeof(kWords[0]);
    std::string text;
    text.reserve(bytes + 16);
    while (text.size() < bytes) {
        text.append(kWords[random() % kCount]);
        text.push_back(random() % 9 == 0 ? '\n' : ' ');
        // Numbers and names vary as they do in real code, which keeps compression honest.
        if (random() % 5 == 0) text.append(std::to_string(random() % 10000));
    }
    text.resize(bytes);
    return text;
}

inline std::string imageBytes(std::mt19937_64& random, size_t bytes) {
    std::string image("\x89PNG\r\n\x1a\n", 8);
    image.reserve(bytes);
    while (image.size() < bytes) {
        const uint64_t chunk = random();
        image.append(reinterpret_cast<const char*>(&chunk),
                     std::min<size_t>(sizeof(chunk), bytes - image.size()));
    }
    return image;
}

inline std::string pathOf(int index) {
    const int folder = index % 16;
    switch (index % kImageEvery == 0 ? 4 : index % 5) {
        case 0:
            return "pages/" + std::to_string(folder) + "/p" + std::to_string(index) + ".html";
        case 1:
            return "js/" + std::to_string(folder) + "/m" + std::to_string(index) + ".js";
        case 2:
            return "css/s" + std::to_string(index) + ".css";
        case 3:
            return "data/d" + std::to_string(index) + ".json";
        default:
            return "img/" + std::to_string(folder) + "/i" + std::to_string(index) + ".png";
    }
}

// `count` files of about `totalBytes` together.
inline SiteFiles make(int count, size_t totalBytes, uint64_t seed) {
    std::mt19937_64 random(seed);
    const int images = (count + kImageEvery - 1) / kImageEvery;
    const int texts = count - images;
    const size_t imageMean =
        images > 0 ? static_cast<size_t>(totalBytes * kImageShare) / images : 0;
    const size_t textMean =
        texts > 0 ? static_cast<size_t>(totalBytes * (1 - kImageShare)) / texts : 0;
    SiteFiles files;
    for (int i = 0; i < count; ++i) {
        const bool image = i % kImageEvery == 0;
        const size_t mean = image ? imageMean : textMean;
        // Between a half and one and a half of the mean, never empty.
        const size_t size = std::max<size_t>(1, mean / 2 + random() % (mean + 1));
        files.emplace(pathOf(i), image ? imageBytes(random, size) : words(random, size));
    }
    return files;
}

// A later version: `fraction` of the files changed, and a few added and removed.
inline SiteFiles nextVersion(const SiteFiles& files, double fraction, uint64_t seed) {
    std::mt19937_64 random(seed);
    SiteFiles next = files;
    std::vector<std::string> paths;
    for (const auto& [path, content] : files) paths.push_back(path);
    const size_t changes = static_cast<size_t>(paths.size() * fraction);
    std::shuffle(paths.begin(), paths.end(), random);
    for (size_t i = 0; i < changes && i < paths.size(); ++i) {
        std::string& content = next[paths[i]];
        const std::string edit = words(random, 64);
        content.replace(content.size() / 2, std::min<size_t>(edit.size(), content.size() / 2),
                        edit);
    }
    // One in a hundred changes is a file that goes, and one a file that comes.
    const size_t moves = std::max<size_t>(1, changes / 100);
    for (size_t i = 0; i < moves && changes + i < paths.size(); ++i) next.erase(paths[changes + i]);
    for (size_t i = 0; i < moves; ++i)
        next.emplace("added/n" + std::to_string(seed % 1000) + "_" + std::to_string(i) + ".js",
                     words(random, 2048));
    return next;
}

}  // namespace SyntheticSite
}  // namespace FerritTest
