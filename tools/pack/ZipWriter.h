// ZipWriter: writes a zip archive into memory with minizip, deterministically: every entry has
// the same fixed time (1980-01-01 00:00:00, the earliest a zip can record) and entries appear in
// the order they are added, so the same input always gives the same bytes. Besides plain entries
// it writes what only a test wants: raw streams whose recorded size and CRC say anything, Unix
// file types such as symbolic links, encryption flags, and names no archiver should write. Not
// thread-safe: one writer belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace FerritTools {

class ZipWriter {
  public:
    struct Entry {
        std::string name;     // written as given, whatever it holds
        std::string content;  // the plain content, or the compressed stream when `raw`
        bool deflate = true;  // deflate; false stores
        int level = 9;        // deflate level
        // Unix mode with its file type, recorded in the high half of the external attributes
        // with a Unix "made by"; 0 records no mode at all.
        uint32_t unixMode = 0100644;
        // The general-purpose flag bits to set (bit 0 claims encryption; nothing is encrypted).
        uint32_t flags = 0;
        // `content` is already a raw deflate stream (or the stored bytes), and the headers record
        // `declaredSize` and `declaredCrc` instead of what the content is.
        bool raw = false;
        uint64_t declaredSize = 0;
        uint32_t declaredCrc = 0;
        // Reserve the 64-bit size fields (needed for declared sizes of 4 GiB and more).
        bool zip64 = false;
    };

    ZipWriter();
    ~ZipWriter();
    ZipWriter(const ZipWriter&) = delete;
    ZipWriter& operator=(const ZipWriter&) = delete;

    // Adds one entry; false with `error` set when minizip refuses it (the archive is then
    // unusable).
    bool add(const Entry& entry, std::string& error);
    // A deflated regular file.
    bool addFile(const std::string& name, std::string_view content, std::string& error);
    // A directory entry: the name ends in "/" and the content is empty.
    bool addDirectory(const std::string& name, std::string& error);
    // Writes the central directory and gives the archive's bytes. The writer takes no more
    // entries afterwards.
    bool finish(std::string& archive, std::string& error);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The raw deflate stream (no zlib header or trailer) of `data`, as a zip entry holds it.
std::string rawDeflate(std::string_view data, int level = 9);

}  // namespace FerritTools
