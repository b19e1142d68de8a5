#include "tools/pack/ZipWriter.h"

#include <minizip/zip.h>
#include <zlib.h>

#include <cstring>

namespace FerritTools {

namespace {

// A file that grows in memory: the table's opaque pointer is the buffer, the stream its cursor.
struct GrowingFile {
    std::string* bytes;
    uint64_t position;
};

voidpf ZCALLBACK growingOpen(voidpf opaque, const void*, int) {
    return new GrowingFile{static_cast<std::string*>(opaque), 0};
}

uLong ZCALLBACK growingRead(voidpf, voidpf stream, void* buffer, uLong size) {
    auto* file = static_cast<GrowingFile*>(stream);
    const uint64_t left =
        file->position < file->bytes->size() ? file->bytes->size() - file->position : 0;
    const uint64_t count = size < left ? size : left;
    if (count != 0) std::memcpy(buffer, file->bytes->data() + file->position, count);
    file->position += count;
    return static_cast<uLong>(count);
}

uLong ZCALLBACK growingWrite(voidpf, voidpf stream, const void* buffer, uLong size) {
    auto* file = static_cast<GrowingFile*>(stream);
    if (file->position + size > file->bytes->size()) file->bytes->resize(file->position + size);
    std::memcpy(file->bytes->data() + file->position, buffer, size);
    file->position += size;
    return size;
}

ZPOS64_T ZCALLBACK growingTell(voidpf, voidpf stream) {
    return static_cast<GrowingFile*>(stream)->position;
}

long ZCALLBACK growingSeek(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
    auto* file = static_cast<GrowingFile*>(stream);
    uint64_t start = 0;
    if (origin == ZLIB_FILEFUNC_SEEK_CUR) {
        start = file->position;
    } else if (origin == ZLIB_FILEFUNC_SEEK_END) {
        start = file->bytes->size();
    } else if (origin != ZLIB_FILEFUNC_SEEK_SET) {
        return -1;
    }
    if (offset > file->bytes->size() - start) return -1;
    file->position = start + offset;
    return 0;
}

int ZCALLBACK growingClose(voidpf, voidpf stream) {
    delete static_cast<GrowingFile*>(stream);
    return 0;
}

int ZCALLBACK growingError(voidpf, voidpf) {
    return 0;
}

// "Made by" version 2.0 on a Unix host, whose external attributes carry a Unix mode.
constexpr uLong kMadeByUnix = (3 << 8) | 20;
constexpr uLong kMadeByDos = 20;
// The DOS attribute bit of a directory.
constexpr uLong kDosDirectory = 0x10;

}  // namespace

struct ZipWriter::Impl {
    std::string bytes;
    zipFile zip = nullptr;
};

ZipWriter::ZipWriter() : impl_(std::make_unique<Impl>()) {
    zlib_filefunc64_def table;
    table.zopen64_file = growingOpen;
    table.zread_file = growingRead;
    table.zwrite_file = growingWrite;
    table.ztell64_file = growingTell;
    table.zseek64_file = growingSeek;
    table.zclose_file = growingClose;
    table.zerror_file = growingError;
    table.opaque = &impl_->bytes;
    impl_->zip = zipOpen2_64("memory", APPEND_STATUS_CREATE, nullptr, &table);
}

ZipWriter::~ZipWriter() {
    if (impl_->zip != nullptr) zipClose(impl_->zip, nullptr);
}

bool ZipWriter::add(const Entry& entry, std::string& error) {
    if (impl_->zip == nullptr) {
        error = "the archive is closed";
        return false;
    }
    zip_fileinfo info;
    std::memset(&info, 0, sizeof(info));
    info.tmz_date.tm_year = 1980;
    info.tmz_date.tm_mday = 1;
    info.external_fa = static_cast<uLong>(entry.unixMode) << 16;
    if (!entry.name.empty() && entry.name.back() == '/') info.external_fa |= kDosDirectory;
    const int method = entry.deflate ? Z_DEFLATED : 0;
    int status = zipOpenNewFileInZip4_64(impl_->zip, entry.name.c_str(), &info, nullptr, 0, nullptr,
                                         0, nullptr, method, entry.deflate ? entry.level : 0,
                                         entry.raw ? 1 : 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY,
                                         nullptr, 0, entry.unixMode != 0 ? kMadeByUnix : kMadeByDos,
                                         entry.flags, entry.zip64 ? 1 : 0);
    std::string_view content = entry.content;
    while (status == ZIP_OK && !content.empty()) {
        const size_t piece = content.size() < (1u << 30) ? content.size() : (1u << 30);
        status = zipWriteInFileInZip(impl_->zip, content.data(), static_cast<unsigned>(piece));
        content.remove_prefix(piece);
    }
    if (status == ZIP_OK) {
        status = entry.raw
                     ? zipCloseFileInZipRaw64(impl_->zip, entry.declaredSize, entry.declaredCrc)
                     : zipCloseFileInZip(impl_->zip);
    }
    if (status != ZIP_OK) {
        error = "cannot add \"" + entry.name + "\" to the zip: " + std::to_string(status);
        return false;
    }
    return true;
}

bool ZipWriter::addFile(const std::string& name, std::string_view content, std::string& error) {
    Entry entry;
    entry.name = name;
    entry.content = std::string(content);
    return add(entry, error);
}

bool ZipWriter::addDirectory(const std::string& name, std::string& error) {
    Entry entry;
    entry.name = name.ends_with("/") ? name : name + "/";
    entry.deflate = false;
    entry.unixMode = 040755;
    return add(entry, error);
}

bool ZipWriter::finish(std::string& archive, std::string& error) {
    if (impl_->zip == nullptr) {
        error = "the archive is closed";
        return false;
    }
    const int status = zipClose(impl_->zip, nullptr);
    impl_->zip = nullptr;
    if (status != ZIP_OK) {
        error = "cannot finish the zip: " + std::to_string(status);
        return false;
    }
    archive = std::move(impl_->bytes);
    impl_->bytes.clear();
    return true;
}

std::string rawDeflate(std::string_view data, int level) {
    z_stream stream;
    std::memset(&stream, 0, sizeof(stream));
    std::string out;
    if (deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return out;
    out.resize(deflateBound(&stream, static_cast<uLong>(data.size())));
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int status = deflate(&stream, Z_FINISH);
    out.resize(status == Z_STREAM_END ? stream.total_out : 0);
    deflateEnd(&stream);
    return out;
}

}  // namespace FerritTools
