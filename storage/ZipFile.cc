#include "storage/ZipFile.h"

#include <libdeflate.h>
#include <minizip/unzip.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_set>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "runtime/Settings.h"

namespace FerritCore {

namespace {

// ---- Memory as a file -------------------------------------------------------------------------

struct MemoryStream {
    unsigned char* base;
    uint64_t size;
    uint64_t highWater;  // end of what the stream holds: size when reading, written bytes else
    uint64_t position;
};

voidpf ZCALLBACK memoryOpen(voidpf, const void* filename, int mode) {
    if (filename == nullptr) return nullptr;
    const char* name = static_cast<const char*>(filename);
    void* base = nullptr;
    unsigned long size = 0;
    int consumed = 0;
    // The whole name must be the form nameOf writes; anything else names no memory.
    if (std::sscanf(name, "%p+%lu%n", &base, &size, &consumed) != 2 ||
        static_cast<size_t>(consumed) != std::strlen(name) || (base == nullptr && size != 0)) {
        return nullptr;
    }
    const uint64_t highWater = (mode & ZLIB_FILEFUNC_MODE_CREATE) != 0 ? 0 : size;
    return new (std::nothrow) MemoryStream{static_cast<unsigned char*>(base), size, highWater, 0};
}

uLong ZCALLBACK memoryRead(voidpf, voidpf stream, void* buffer, uLong size) {
    auto* s = static_cast<MemoryStream*>(stream);
    const uint64_t left = s->position < s->highWater ? s->highWater - s->position : 0;
    const uint64_t count = size < left ? size : left;
    if (count != 0) std::memcpy(buffer, s->base + s->position, count);
    s->position += count;
    return static_cast<uLong>(count);
}

uLong ZCALLBACK memoryWrite(voidpf, voidpf stream, const void* buffer, uLong size) {
    auto* s = static_cast<MemoryStream*>(stream);
    const uint64_t left = s->position < s->size ? s->size - s->position : 0;
    const uint64_t count = size < left ? size : left;
    if (count != 0) std::memcpy(s->base + s->position, buffer, count);
    s->position += count;
    if (s->position > s->highWater) s->highWater = s->position;
    return static_cast<uLong>(count);
}

ZPOS64_T ZCALLBACK memoryTell(voidpf, voidpf stream) {
    return static_cast<MemoryStream*>(stream)->position;
}

long ZCALLBACK memorySeek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
    auto* s = static_cast<MemoryStream*>(stream);
    uint64_t start = 0;
    switch (origin) {
        case ZLIB_FILEFUNC_SEEK_SET:
            start = 0;
            break;
        case ZLIB_FILEFUNC_SEEK_CUR:
            start = s->position;
            break;
        case ZLIB_FILEFUNC_SEEK_END:
            start = s->highWater;
            break;
        default:
            return -1;
    }
    // position and highWater never pass size, so the subtraction cannot wrap.
    if (offset > s->size - start) return 1;
    const uint64_t target = start + offset;
    if (target > s->highWater) {
        std::memset(s->base + s->highWater, 0, target - s->highWater);
        s->highWater = target;
    }
    s->position = target;
    return 0;
}

int ZCALLBACK memoryClose(voidpf, voidpf stream) {
    delete static_cast<MemoryStream*>(stream);
    return 0;
}

int ZCALLBACK memoryError(voidpf, voidpf) {
    return 0;
}

// ---- Entry checks -----------------------------------------------------------------------------

std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatText(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int needed = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text;
    if (needed > 0) {
        text.resize(static_cast<size_t>(needed) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<size_t>(needed));
    }
    va_end(again);
    return text;
}

unsigned long long ull(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

// A status of minizip (or of zlib, whose inflate errors minizip passes on) with its name and
// meaning: "-103 (UNZ_BADZIPFILE: not a zip archive or damaged)".
std::string statusText(int status) {
    const char* name = nullptr;
    const char* meaning = nullptr;
    switch (status) {
        case UNZ_OK:
            name = "UNZ_OK";
            meaning = "no error";
            break;
        case UNZ_ERRNO:
            name = "UNZ_ERRNO";
            meaning = "the archive could not be read";
            break;
        case UNZ_END_OF_LIST_OF_FILE:
            name = "UNZ_END_OF_LIST_OF_FILE";
            meaning = "no such entry";
            break;
        case UNZ_PARAMERROR:
            name = "UNZ_PARAMERROR";
            meaning = "the archive is not open";
            break;
        case UNZ_BADZIPFILE:
            name = "UNZ_BADZIPFILE";
            meaning = "not a zip archive or damaged";
            break;
        case UNZ_INTERNALERROR:
            name = "UNZ_INTERNALERROR";
            meaning = "internal error of minizip";
            break;
        case UNZ_CRCERROR:
            name = "UNZ_CRCERROR";
            meaning = "content does not match its CRC-32";
            break;
        case Z_STREAM_ERROR:
            name = "Z_STREAM_ERROR";
            meaning = "inconsistent deflate stream";
            break;
        case Z_DATA_ERROR:
            name = "Z_DATA_ERROR";
            meaning = "invalid or damaged deflate data";
            break;
        case Z_MEM_ERROR:
            name = "Z_MEM_ERROR";
            meaning = "out of memory while inflating";
            break;
        case Z_BUF_ERROR:
            name = "Z_BUF_ERROR";
            meaning = "deflate data ends early";
            break;
        default:
            return formatText("%d (unknown minizip status)", status);
    }
    return formatText("%d (%s: %s)", status, name, meaning);
}

// Left out of every walk: what archivers of one desktop system add beside the real content.
bool isSkipped(std::string_view name) {
    return name.starts_with("__MACOSX/") || name.ends_with(".DS_Store");
}

// Why a name could not be written below a target folder; empty when it can.
std::string nameProblem(const std::string& name) {
    if (name.empty()) return "Entry name is empty";
    if (name.find('\0') != std::string::npos)
        return formatText("Entry name \"%s\" holds a NUL byte", name.c_str());
    if (name.find('\\') != std::string::npos)
        return formatText("Entry name \"%s\" holds a backslash", name.c_str());
    if (name.front() == '/') return formatText("Entry name \"%s\" is absolute", name.c_str());
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        if (std::string_view(name).substr(start, end - start) == "..")
            return formatText("Entry name \"%s\" climbs out of its folder", name.c_str());
        start = end + 1;
    }
    return {};
}

// Unix file types in the high half of the external attributes.
constexpr uint32_t kUnixTypeMask = 0170000;
constexpr uint32_t kUnixRegular = 0100000;
constexpr uint32_t kUnixDirectory = 0040000;
constexpr uint32_t kUnixSymlink = 0120000;

std::string typeProblem(const unz_file_info64& info, const std::string& name) {
    const uint32_t type = static_cast<uint32_t>(info.external_fa >> 16) & kUnixTypeMask;
    if (type == kUnixSymlink) return formatText("Entry \"%s\" is a symbolic link", name.c_str());
    // No type at all is what archivers of systems without Unix modes write.
    if (type != 0 && type != kUnixRegular && type != kUnixDirectory)
        return formatText("Entry \"%s\" is a special file", name.c_str());
    if ((info.flag & 1) != 0) return formatText("Entry \"%s\" is encrypted", name.c_str());
    return {};
}

// Whether the recorded sizes can be believed before a byte is allocated for the content.
std::string sizeProblem(const unz_file_info64& info, const std::string& name, uint64_t archiveSize,
                        uint32_t maxRatio) {
    const uint64_t compressed = info.compressed_size;
    const uint64_t size = info.uncompressed_size;
    if (compressed > archiveSize) {
        return formatText("Entry \"%s\" declares %llu compressed bytes in an archive of %llu",
                          name.c_str(), ull(compressed), ull(archiveSize));
    }
    if (info.compression_method == 0) {
        if (size != compressed) {
            return formatText("Entry \"%s\" is stored with %llu bytes but declares %llu",
                              name.c_str(), ull(compressed), ull(size));
        }
    } else if (info.compression_method == Z_DEFLATED) {
        if (size > compressed * ZipFile::kMaxDeflateRatio + ZipFile::kDeflateSlack) {
            return formatText("Entry \"%s\" declares %llu bytes from %llu compressed", name.c_str(),
                              ull(size), ull(compressed));
        }
    } else {
        return formatText("Entry \"%s\" uses compression method %lu", name.c_str(),
                          static_cast<unsigned long>(info.compression_method));
    }
    if (info.compression_method == Z_DEFLATED && size > ZipFile::kRatioFreeSize &&
        size > compressed * maxRatio) {
        return formatText(
            "Entry \"%s\" inflates %llu bytes from %llu compressed, a ratio above the limit of %u "
            "(\"maxInflationRatio\")",
            name.c_str(), ull(size), ull(compressed), maxRatio);
    }
    if (size > ZipFile::kMaxEntrySize) {
        return formatText("Entry \"%s\" declares %llu bytes, above the limit of %llu", name.c_str(),
                          ull(size), ull(ZipFile::kMaxEntrySize));
    }
    return {};
}

// The current entry's information and name: once for the sizes, then with a name buffer of the
// reported length plus one.
int currentInfo(unzFile handle, unz_file_info64& info, std::string& name) {
    int status = unzGetCurrentFileInfo64(handle, &info, nullptr, 0, nullptr, 0, nullptr, 0);
    if (status != UNZ_OK) return status;
    name.assign(info.size_filename + 1, '\0');
    status = unzGetCurrentFileInfo64(handle, &info, name.data(), info.size_filename + 1, nullptr, 0,
                                     nullptr, 0);
    name.resize(status == UNZ_OK ? info.size_filename : 0);
    return status;
}

// Opens the current entry raw and reads its information, and its name unless `name` is null. Raw,
// because the content is then inflated from the archive's bytes in one call, and through zlib only
// when that fails. Empty on success, else what failed; nothing is left open after a failure.
std::string openCurrentRaw(unzFile handle, unz_file_info64& info, std::string* name) {
    int status = unzOpenCurrentFile2(handle, nullptr, nullptr, 1);
    if (status != UNZ_OK) return "Open zip file failed: " + statusText(status);
    status = name != nullptr
                 ? currentInfo(handle, info, *name)
                 : unzGetCurrentFileInfo64(handle, &info, nullptr, 0, nullptr, 0, nullptr, 0);
    if (status == UNZ_OK) return {};
    unzCloseCurrentFile(handle);
    return "Read zip file info: " + statusText(status);
}

}  // namespace

// ---- ZipMemoryIo ------------------------------------------------------------------------------

namespace ZipMemoryIo {

std::string nameOf(const void* base, unsigned long size) {
    char name[64];
    std::snprintf(name, sizeof(name), "%p+%lu", base, size);
    return name;
}

void fill(zlib_filefunc64_def_s& table) {
    table.zopen64_file = memoryOpen;
    table.zread_file = memoryRead;
    table.zwrite_file = memoryWrite;
    table.ztell64_file = memoryTell;
    table.zseek64_file = memorySeek;
    table.zclose_file = memoryClose;
    table.zerror_file = memoryError;
    table.opaque = nullptr;
}

}  // namespace ZipMemoryIo

// ---- ZipFile ----------------------------------------------------------------------------------

ZipFile::~ZipFile() {
    if (handle_ != nullptr) unzClose(handle_);
    if (inflater_ != nullptr) libdeflate_free_decompressor(inflater_);
}

ZipFile::ZipFile(ZipFile&& other) noexcept
    : source_(std::move(other.source_)),
      archive_(other.archive_),
      handle_(other.handle_),
      inflater_(other.inflater_),
      empty_(other.empty_),
      archiveSize_(other.archiveSize_),
      maxRatio_(other.maxRatio_),
      declaredTotal_(other.declaredTotal_) {
    other.handle_ = nullptr;
    other.inflater_ = nullptr;
    other.empty_ = false;
}

ZipFile& ZipFile::operator=(ZipFile&& other) noexcept {
    if (this != &other) {
        if (handle_ != nullptr) unzClose(handle_);
        if (inflater_ != nullptr) libdeflate_free_decompressor(inflater_);
        source_ = std::move(other.source_);
        archive_ = other.archive_;
        handle_ = other.handle_;
        inflater_ = other.inflater_;
        empty_ = other.empty_;
        archiveSize_ = other.archiveSize_;
        maxRatio_ = other.maxRatio_;
        declaredTotal_ = other.declaredTotal_;
        other.handle_ = nullptr;
        other.inflater_ = nullptr;
        other.empty_ = false;
    }
    return *this;
}

Error ZipFile::failure(const std::string& reason) const {
    return Errors::unzipFailed(source_.describe(), reason);
}

ZipFile ZipFile::open(const Folder& source, std::string_view archive, Error& error) {
    ZipFile zip;
    zip.source_ = source;
    zlib_filefunc64_def table;
    ZipMemoryIo::fill(table);
    const std::string name =
        ZipMemoryIo::nameOf(archive.data(), static_cast<unsigned long>(archive.size()));
    // minizip reports no status for a failed open: whatever it could not find, the bytes are no
    // zip archive it can read.
    zip.handle_ = archive.empty() ? nullptr : unzOpen2_64(name.c_str(), &table);
    zip.empty_ = zip.handle_ == nullptr && holdsNoEntries(archive);
    if (zip.handle_ == nullptr && !zip.empty_) {
        error = zip.failure("Open zip file failed: " + statusText(UNZ_BADZIPFILE));
        return zip;
    }
    zip.archive_ = archive;
    zip.archiveSize_ = archive.size();
    zip.maxRatio_ = Settings::current()->maxInflationRatioValue();
    error.clear();
    return zip;
}

uint64_t ZipFile::unpackFile(const Folder& archive, const Folder& target, Error& error) {
    const std::string bytes = Folder::readFile(archive, error);
    if (error) return 0;
    ZipFile zip = open(archive, bytes, error);
    if (!zip) return 0;
    return zip.extractTo(target, error);
}

bool ZipFile::wholeContent(uint64_t size, char* out, std::string_view& content) {
    const uint64_t at = unzGetCurrentFileZStreamPos64(handle_);
    if (at > archive_.size() || current_.compressed > archive_.size() - at) return false;
    const std::string_view input = archive_.substr(at, current_.compressed);
    if (current_.method == 0) {
        if (input.size() != size) return false;
        content = input;  // stored: the archive's own bytes, not copied
    } else {
        if (inflater_ == nullptr) inflater_ = libdeflate_alloc_decompressor();
        if (inflater_ == nullptr) return false;
        size_t produced = 0;
        // Bytes after the end of the stream are ignored, as zlib's stream ignores them; a stream
        // that would go past `size` stops with no room, and is left to zlib.
        const libdeflate_result result = libdeflate_deflate_decompress(
            inflater_, input.data(), input.size(), out, size, &produced);
        if (result != LIBDEFLATE_SUCCESS || produced != size) return false;
        content = std::string_view(out, size);
    }
    return Digest::crc32(content) == current_.crc;
}

bool ZipFile::reopenForStream(Error& error) {
    unzCloseCurrentFile(handle_);
    const int status = unzOpenCurrentFile(handle_);
    if (status != UNZ_OK) {
        error = failure("Open zip file failed: " + statusText(status));
        return false;
    }
    return true;
}

bool ZipFile::readCurrent(const std::string& name, uint64_t size, std::string& content,
                          Error& error) {
    try {
        content.resize(size);
    } catch (const std::bad_alloc&) {
        unzCloseCurrentFile(handle_);
        error = failure(formatText("std::bad_alloc, reserve: %llu", ull(size)));
        return false;
    }
    std::string_view whole;
    if (wholeContent(size, content.data(), whole)) {
        if (whole.data() != content.data() && size != 0)
            std::memcpy(content.data(), whole.data(), size);
        unzCloseCurrentFile(handle_);
        return true;
    }
    if (!reopenForStream(error)) return false;
    // The read never inflates past the recorded size: minizip stops there whatever the stream
    // holds, and a stream that ends early gives a short count.
    const int read =
        size == 0 ? 0 : unzReadCurrentFile(handle_, content.data(), static_cast<unsigned>(size));
    if (read < 0) {
        unzCloseCurrentFile(handle_);
        error = failure(
            formatText("Read zip file \"%s\" failed: %s", name.c_str(), statusText(read).c_str()));
        return false;
    }
    if (static_cast<uint64_t>(read) != size) {
        unzCloseCurrentFile(handle_);
        error = failure(formatText("Read zip file \"%s\" failed: %d of %llu bytes", name.c_str(),
                                   read, ull(size)));
        return false;
    }
    // Closing compares the CRC-32 of what was read with the recorded one.
    const int closed = unzCloseCurrentFile(handle_);
    if (closed != UNZ_OK) {
        error = failure(formatText("Read zip file \"%s\" failed: %s", name.c_str(),
                                   statusText(closed).c_str()));
        return false;
    }
    return true;
}

bool ZipFile::holdsNoEntries(std::string_view archive) {
    // An archive of no entries is its end record alone, at the very start: minizip searches for
    // that record everywhere but at offset 0, and so refuses the one archive it would find there.
    constexpr std::string_view kEndSignature("PK\x05\x06", 4);
    constexpr size_t kEndRecordSize = 22;
    constexpr size_t kEntryCountOffset = 10;
    constexpr size_t kCommentLengthOffset = 20;
    if (archive.size() < kEndRecordSize || !archive.starts_with(kEndSignature)) return false;
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(archive[at]); };
    const size_t entries = byte(kEntryCountOffset) | (byte(kEntryCountOffset + 1) << 8);
    const size_t comment = byte(kCommentLengthOffset) | (byte(kCommentLengthOffset + 1) << 8);
    return entries == 0 && archive.size() == kEndRecordSize + comment;
}

bool ZipFile::hasEntry(const std::string& name) {
    return handle_ != nullptr && unzLocateFile(handle_, name.c_str(), 1) == UNZ_OK;
}

std::string ZipFile::readEntry(const std::string& name, Error& error) {
    std::string content;
    if (empty_) {
        error = failure("Open zip file failed: " + statusText(UNZ_END_OF_LIST_OF_FILE));
        return content;
    }
    if (handle_ == nullptr) {
        error = failure("Open zip file failed: " + statusText(UNZ_PARAMERROR));
        return content;
    }
    const int status = unzLocateFile(handle_, name.c_str(), 1);
    if (status != UNZ_OK) {
        error = failure("Open zip file failed: " + statusText(status));
        return content;
    }
    unz_file_info64 info;
    if (std::string opened = openCurrentRaw(handle_, info, nullptr); !opened.empty()) {
        error = failure(opened);
        return content;
    }
    std::string problem = typeProblem(info, name);
    if (problem.empty()) problem = sizeProblem(info, name, archiveSize_, maxRatio_);
    if (!problem.empty()) {
        unzCloseCurrentFile(handle_);
        error = failure(problem);
        return content;
    }
    current_ = {info.compression_method, info.compressed_size, static_cast<uint32_t>(info.crc)};
    if (!readCurrent(name, info.uncompressed_size, content, error)) {
        content.clear();
        content.shrink_to_fit();
        return content;
    }
    error.clear();
    return content;
}

bool ZipFile::isEmptyArchive() const {
    if (empty_) return true;
    // minizip's first-entry step reads a central directory that an archive without entries does
    // not have, and reports a bad archive (-103); the count in the end record says it is empty.
    unz_global_info64 info;
    return unzGetGlobalInfo64(handle_, &info) == UNZ_OK && info.number_entry == 0;
}

bool ZipFile::checkEntries(Error& error) {
    declaredTotal_ = 0;
    if (isEmptyArchive()) return true;
    int status = unzGoToFirstFile(handle_);
    if (status != UNZ_OK) {
        error = failure("Enum first zip file failed: " + statusText(status));
        return false;
    }
    std::unordered_set<std::string> seen;
    unz_file_info64 info;
    std::string name;
    for (;;) {
        status = currentInfo(handle_, info, name);
        if (status != UNZ_OK) {
            error = failure("Read zip file info: " + statusText(status));
            return false;
        }
        // Skipped entries are never read nor written, so their names cannot do harm.
        if (!isSkipped(name)) {
            std::string problem = nameProblem(name);
            if (problem.empty()) problem = typeProblem(info, name);
            if (problem.empty()) problem = sizeProblem(info, name, archiveSize_, maxRatio_);
            // Names that differ only in separators land on one file.
            if (problem.empty() && !seen.insert(normalizePath(name)).second)
                problem = formatText("Duplicate entry \"%s\"", name.c_str());
            if (!problem.empty()) {
                error = failure(problem);
                return false;
            }
            declaredTotal_ += info.uncompressed_size;
        }
        status = unzGoToNextFile(handle_);
        if (status == UNZ_END_OF_LIST_OF_FILE) return true;
        if (status != UNZ_OK) {
            error = failure("Enum next zip file failed: " + statusText(status));
            return false;
        }
    }
}

bool ZipFile::walkEntries(const EntryVisit& visit, Error& error) {
    if (empty_) {
        error.clear();
        return true;
    }
    if (handle_ == nullptr) {
        error = failure("Open zip file failed: " + statusText(UNZ_PARAMERROR));
        return false;
    }
    // The whole directory is checked first, so that a refused archive delivers nothing at all.
    if (!checkEntries(error)) return false;
    error.clear();
    if (isEmptyArchive()) return true;
    int status = unzGoToFirstFile(handle_);
    if (status != UNZ_OK) {
        error = failure("Enum first zip file failed: " + statusText(status));
        return false;
    }
    unz_file_info64 info;
    std::string name;
    for (;;) {
        if (std::string opened = openCurrentRaw(handle_, info, &name); !opened.empty()) {
            error = failure(opened);
            return false;
        }
        if (isSkipped(name)) {
            unzCloseCurrentFile(handle_);
        } else {
            current_ = {info.compression_method, info.compressed_size,
                        static_cast<uint32_t>(info.crc)};
            bool go = true;
            if (!visit(name, info.uncompressed_size, go, error)) return false;
            if (!go) return true;
        }
        if (unzGoToNextFile(handle_) != UNZ_OK) return true;
    }
}

bool ZipFile::forEachEntry(const EntryCallback& callback, Error& error) {
    if (!callback) return false;
    return walkEntries(
        [&](const std::string& name, uint64_t size, bool& go, Error& failed) {
            // The entry is closed (and its CRC checked) before the callback sees the content.
            std::string content;
            if (!readCurrent(name, size, content, failed)) return false;
            go = callback(name, std::move(content));
            return true;
        },
        error);
}

bool ZipFile::declaredSize(uint64_t& total, Error& error) {
    total = 0;
    if (empty_) {
        error.clear();
        return true;
    }
    if (handle_ == nullptr) {
        error = failure("Open zip file failed: " + statusText(UNZ_PARAMERROR));
        return false;
    }
    if (!checkEntries(error)) return false;
    error.clear();
    total = declaredTotal_;
    return true;
}

bool ZipFile::streamCurrent(const std::string& name, uint64_t size, const EntryStream& stream,
                            bool& go, Error& error) {
    go = true;
    if (!stream.begin(name, size)) {
        unzCloseCurrentFile(handle_);
        go = false;
        return true;
    }
    if (size <= kWholeSize) {
        // The buffer only grows, and is not cleared: every byte handed on was just inflated.
        if (wholeCapacity_ < size || whole_ == nullptr) {
            wholeCapacity_ = size > kChunkSize ? static_cast<size_t>(size) : kChunkSize;
            whole_.reset(new (std::nothrow) char[wholeCapacity_]);
            if (whole_ == nullptr) wholeCapacity_ = 0;
        }
        std::string_view content;
        if (whole_ != nullptr && wholeContent(size, whole_.get(), content)) {
            unzCloseCurrentFile(handle_);
            // An empty entry gets no piece, as from the stream.
            if (!content.empty() && !stream.write(content)) {
                go = false;
                return true;
            }
            go = stream.end();
            return true;
        }
    }
    if (!reopenForStream(error)) return false;
    return streamPieces(name, size, stream, go, error);
}

bool ZipFile::streamPieces(const std::string& name, uint64_t size, const EntryStream& stream,
                           bool& go, Error& error) {
    if (chunk_.size() != kChunkSize) chunk_.resize(kChunkSize);
    uint64_t inflated = 0;
    for (;;) {
        const int read = unzReadCurrentFile(handle_, chunk_.data(), kChunkSize);
        if (read < 0) {
            unzCloseCurrentFile(handle_);
            error = failure(formatText("Read zip file \"%s\" failed: %s", name.c_str(),
                                       statusText(read).c_str()));
            return false;
        }
        if (read == 0) break;
        inflated += static_cast<uint64_t>(read);
        // minizip stops at the recorded size; the count is checked all the same, since the
        // record is what the budget was measured by.
        if (inflated > size) {
            unzCloseCurrentFile(handle_);
            error = failure(formatText("Entry \"%s\" inflates past its recorded %llu bytes",
                                       name.c_str(), ull(size)));
            return false;
        }
        if (!stream.write(std::string_view(chunk_.data(), static_cast<size_t>(read)))) {
            unzCloseCurrentFile(handle_);
            go = false;
            return true;
        }
    }
    if (inflated != size) {
        unzCloseCurrentFile(handle_);
        error = failure(formatText("Read zip file \"%s\" failed: %llu of %llu bytes", name.c_str(),
                                   ull(inflated), ull(size)));
        return false;
    }
    // Closing compares the CRC-32 of what was read with the recorded one.
    const int closed = unzCloseCurrentFile(handle_);
    if (closed != UNZ_OK) {
        error = failure(formatText("Read zip file \"%s\" failed: %s", name.c_str(),
                                   statusText(closed).c_str()));
        return false;
    }
    go = stream.end();
    return true;
}

bool ZipFile::forEachEntryStreamed(const EntryStream& stream, Error& error) {
    if (!stream.begin || !stream.write || !stream.end) return false;
    return walkEntries([&](const std::string& name, uint64_t size, bool& go,
                           Error& failed) { return streamCurrent(name, size, stream, go, failed); },
                       error);
}

uint64_t ZipFile::extractTo(const Folder& target, Error& error) {
    uint64_t total = 0;
    Error writeError;
    Folder child;
    bool directory = false;
    uint64_t written = 0;
    FILE* file = nullptr;
    std::string gathered;  // for a target that is not on the disk, whose files are written whole
    const bool toDisk = target.kind() == FolderKind::Disk;
    const auto closeFile = [&]() -> int {
        if (file == nullptr) return 0;
        const int closed = std::fclose(file);
        file = nullptr;
        return closed != 0 ? errno : 0;
    };
    EntryStream stream;
    stream.begin = [&](const std::string& name, uint64_t size) {
        total += size;
        child = target.childOf(name);
        child.ensureParent();
        directory = child.isDirectory();
        written = 0;
        gathered.clear();
        // An empty file is refused at its end, by the write of nothing.
        if (directory || size == 0 || !toDisk) return true;
        const int opened = FileUtil::open(child.absolute(), "wb", &file);
        if (opened != 0) writeError = Errors::fileWrite(child, opened);
        return opened == 0;
    };
    stream.write = [&](std::string_view piece) {
        if (directory) return true;
        written += piece.size();
        if (!toDisk) {
            gathered.append(piece);
            return true;
        }
        const int result = FileUtil::write(file, piece);
        if (result != 0) writeError = Errors::fileWrite(child, result);
        return result == 0;
    };
    stream.end = [&]() {
        if (directory) return true;
        if (written == 0 || !toDisk) return Folder::writeContent(child, gathered, writeError);
        const int closed = closeFile();
        if (closed != 0) writeError = Errors::fileWrite(child, closed);
        return closed == 0;
    };
    const bool walked = forEachEntryStreamed(stream, error);
    if (file != nullptr) {
        // An entry that failed half way (its CRC, its count, a write) leaves no file behind.
        closeFile();
        FileUtil::remove(child.absolute());
    }
    if (!walked || error) return 0;
    if (writeError) {
        error = std::move(writeError);
        return 0;
    }
    return total;
}

}  // namespace FerritCore
