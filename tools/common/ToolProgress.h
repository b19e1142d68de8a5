// ToolProgress: the progress bar of long work (a publish, an install), in files and bytes, on
// stderr: "publish [#########...........] 12/40 files, 1.2 MB/3.4 MB shop". It is drawn only when
// stderr is a terminal, redrawn in place and erased when the work ends; anywhere else (a pipe, a
// file, a CI log) it writes nothing, so that what a script or a log keeps stays readable. One per
// piece of work, on the thread that does it.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace FerritTools {

class ToolProgress {
  public:
    static constexpr std::chrono::milliseconds kRedrawInterval{100};

    // Draws on stderr when it is a terminal.
    explicit ToolProgress(std::string label);
    // Draws on `stream` when `enabled`.
    ToolProgress(std::string label, bool enabled, std::ostream& stream);
    ~ToolProgress();
    ToolProgress(const ToolProgress&) = delete;
    ToolProgress& operator=(const ToolProgress&) = delete;

    bool enabled() const { return enabled_; }
    // What the whole work is; may grow as the work learns more. Bytes 0: not known, and the bar
    // then measures files.
    void setTotal(uint64_t files, uint64_t bytes);
    // Sets how far the work has got and what it is on, and redraws: at once when the bar moves,
    // else at most every kRedrawInterval, so that thousands of small files cost no more to show
    // than a few redraws a second.
    void update(uint64_t files, uint64_t bytes, std::string_view current = {});
    // Adds to how far the work has got, and redraws.
    void add(uint64_t files, uint64_t bytes, std::string_view current = {});
    // Erases the bar; nothing is drawn after.
    void done();

    // The line that is drawn, without the control characters.
    static std::string line(std::string_view label, uint64_t files, uint64_t totalFiles,
                            uint64_t bytes, uint64_t totalBytes, std::string_view current);
    // "512 B", "1.5 kB", "3.4 MB", "1.0 GB".
    static std::string bytesText(uint64_t bytes);

  private:
    void draw(std::string_view current);
    static uint64_t cellsOf(uint64_t files, uint64_t totalFiles, uint64_t bytes,
                            uint64_t totalBytes);

    std::string label_;
    bool enabled_;
    std::ostream& stream_;
    bool drawn_ = false;
    uint64_t drawnCells_ = 0;
    std::chrono::steady_clock::time_point drawnAt_;
    uint64_t files_ = 0, totalFiles_ = 0, bytes_ = 0, totalBytes_ = 0;
};

}  // namespace FerritTools
