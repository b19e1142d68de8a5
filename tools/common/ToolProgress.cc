#include "tools/common/ToolProgress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace FerritTools {

namespace {

// The bar's width in cells.
constexpr uint64_t kBarCells = 24;
// What is said of the current item at most, so that the line fits a narrow terminal.
constexpr size_t kCurrentWidth = 24;
constexpr uint64_t kUnit = 1000;

}  // namespace

ToolProgress::ToolProgress(std::string label)
    : ToolProgress(std::move(label), isatty(STDERR_FILENO) == 1, std::cerr) {}

ToolProgress::ToolProgress(std::string label, bool enabled, std::ostream& stream)
    : label_(std::move(label)), enabled_(enabled), stream_(stream) {}

ToolProgress::~ToolProgress() {
    done();
}

void ToolProgress::setTotal(uint64_t files, uint64_t bytes) {
    totalFiles_ = files;
    totalBytes_ = bytes;
}

void ToolProgress::update(uint64_t files, uint64_t bytes, std::string_view current) {
    files_ = files;
    bytes_ = bytes;
    draw(current);
}

void ToolProgress::add(uint64_t files, uint64_t bytes, std::string_view current) {
    update(files_ + files, bytes_ + bytes, current);
}

void ToolProgress::done() {
    if (drawn_) stream_ << "\r\033[K" << std::flush;
    drawn_ = false;
    enabled_ = false;
}

void ToolProgress::draw(std::string_view current) {
    if (!enabled_) return;
    const uint64_t cells = cellsOf(files_, totalFiles_, bytes_, totalBytes_);
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && cells == drawnCells_ && now - drawnAt_ < kRedrawInterval) return;
    stream_ << "\r\033[K" << line(label_, files_, totalFiles_, bytes_, totalBytes_, current)
            << std::flush;
    drawn_ = true;
    drawnCells_ = cells;
    drawnAt_ = now;
}

uint64_t ToolProgress::cellsOf(uint64_t files, uint64_t totalFiles, uint64_t bytes,
                               uint64_t totalBytes) {
    // Bytes measure the work better than files, when there are any.
    const uint64_t done = totalBytes > 0 ? std::min(bytes, totalBytes) : files;
    const uint64_t total = totalBytes > 0 ? totalBytes : totalFiles;
    return total == 0 ? 0 : std::min(kBarCells, done * kBarCells / total);
}

std::string ToolProgress::bytesText(uint64_t bytes) {
    if (bytes < kUnit) return std::to_string(bytes) + " B";
    static constexpr const char* kUnits[] = {"kB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes) / kUnit;
    size_t unit = 0;
    while (value >= kUnit && unit + 1 < std::size(kUnits)) {
        value /= kUnit;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string ToolProgress::line(std::string_view label, uint64_t files, uint64_t totalFiles,
                               uint64_t bytes, uint64_t totalBytes, std::string_view current) {
    const uint64_t cells = cellsOf(files, totalFiles, bytes, totalBytes);
    std::string text(label);
    text += " [";
    text.append(cells, '#');
    text.append(kBarCells - cells, '.');
    text += "] " + std::to_string(files);
    // A zip read as it goes may not know its count of files.
    if (totalFiles > 0) text += "/" + std::to_string(totalFiles);
    text += " files, " + bytesText(bytes);
    // A download learns its size only as it arrives: its total may be unknown.
    if (totalBytes > 0) text += "/" + bytesText(totalBytes);
    if (!current.empty()) {
        text += " ";
        text += current.size() > kCurrentWidth ? current.substr(0, kCurrentWidth) : current;
    }
    return text;
}

}  // namespace FerritTools
