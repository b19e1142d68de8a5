// Arbitrary bytes as a pack zip: open, walk every entry, read the resource list by name, and
// extract into a private folder on the disk. Nothing may crash; every name the walk delivers must
// be one that stays inside a folder; and after the extract, nothing may exist in the sandbox but
// the target folder and its parents, which sit deep enough that any ".." escape would land in the
// sandbox where it shows.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "base/Errors.h"
#include "base/Folder.h"
#include "storage/ZipFile.h"

using namespace FerritCore;
namespace fs = std::filesystem;

namespace {

// The target, below parents that only the fuzzer makes.
constexpr std::string_view kTarget = "d1/d2/d3/d4/out/";

const fs::path& sandbox() {
    static const fs::path path = [] {
        std::string pattern = (fs::temp_directory_path() / "ferrit-zip-fuzz-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(sandbox(), ignored);
        });
        return fs::path(pattern);
    }();
    return path;
}

bool leavesItsFolder(const std::string& name) {
    if (name.empty() || name.front() == '/' || name.find('\\') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        return true;
    }
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        if (std::string_view(name).substr(start, end - start) == "..") return true;
        start = end + 1;
    }
    return false;
}

void expectOnlyTheTarget() {
    std::error_code code;
    for (fs::recursive_directory_iterator it(sandbox(), code), end; !code && it != end;
         it.increment(code)) {
        const std::string path = fs::relative(it->path(), sandbox()).generic_string() + "/";
        // Either a parent of the target or something inside it.
        if (!std::string_view(kTarget).starts_with(path) && !path.starts_with(kTarget)) {
            std::abort();
        }
        // A link could point anywhere; the extract never makes one.
        if (it->is_symlink()) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        setRootPath(sandbox().string() + "/");
        return true;
    }();
    (void)ready;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("in.zip"), bytes, error);
    if (!zip) {
        if (error.code() != Errors::kUnzipFailed) std::abort();
        return 0;
    }
    zip.forEachEntry(
        [](const std::string& name, std::string content) {
            if (leavesItsFolder(name) || content.size() > ZipFile::kMaxEntrySize) std::abort();
            return true;
        },
        error);
    if (error && error.code() != Errors::kUnzipFailed) std::abort();
    const std::string index = zip.readEntry("app-res.hvc", error);
    if (error && (error.code() != Errors::kUnzipFailed || !index.empty())) std::abort();

    const Folder target = Folder::disk(kTarget);
    const uint64_t total = zip.extractTo(target, error);
    if (error && total != 0) std::abort();
    expectOnlyTheTarget();
    Folder::removeFile(Folder::disk("d1/"), Removal::kGone);
    return 0;
}
