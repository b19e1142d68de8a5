// Arbitrary bytes as a pack zip: open, walk every entry, read the resource list by name, and
// extract into a private folder on the disk. Nothing may crash; every name the walk delivers must
// be one that stays inside a folder; and after the extract, nothing may exist in the sandbox but
// the target folder and its parents, which sit deep enough that any ".." escape would land in the
// sandbox where it shows. Every entry the walk delivers has the size and the CRC-32 that the
// archive's directory records for it, as minizip reads that directory on its own.
#include <minizip/unzip.h>
#include <unistd.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <unordered_map>

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

struct Recorded {
    uint64_t size = 0;
    uint32_t crc = 0;
};

// What the archive's central directory records of each entry, read apart from ZipFile. A walk
// that delivers anything has checked every entry and refuses a name given twice, so a name
// stands for one entry; a directory this walk cannot read whole delivers nothing.
std::unordered_map<std::string, Recorded> recordedEntries(std::string_view bytes) {
    std::unordered_map<std::string, Recorded> entries;
    if (bytes.empty()) return entries;
    zlib_filefunc64_def table;
    ZipMemoryIo::fill(table);
    const std::string name =
        ZipMemoryIo::nameOf(bytes.data(), static_cast<unsigned long>(bytes.size()));
    unzFile handle = unzOpen2_64(name.c_str(), &table);
    if (handle == nullptr) return entries;
    for (int status = unzGoToFirstFile(handle); status == UNZ_OK;
         status = unzGoToNextFile(handle)) {
        unz_file_info64 info;
        if (unzGetCurrentFileInfo64(handle, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK)
            break;
        std::string entry(info.size_filename + 1, '\0');
        if (unzGetCurrentFileInfo64(handle, &info, entry.data(), info.size_filename + 1, nullptr, 0,
                                    nullptr, 0) != UNZ_OK) {
            break;
        }
        entry.resize(info.size_filename);
        entries[entry] = Recorded{info.uncompressed_size, static_cast<uint32_t>(info.crc)};
    }
    unzClose(handle);
    return entries;
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
    const auto recorded = recordedEntries(bytes);
    zip.forEachEntry(
        [&recorded](const std::string& name, std::string content) {
            if (leavesItsFolder(name) || content.size() > ZipFile::kMaxEntrySize) std::abort();
            const auto entry = recorded.find(name);
            if (entry == recorded.end() || content.size() != entry->second.size) std::abort();
            // zlib's own CRC, not the one the library under test computes.
            const uLong crc =
                ::crc32_z(::crc32_z(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(content.data()),
                          content.size());
            if (crc != entry->second.crc) std::abort();
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
