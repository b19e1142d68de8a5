#include "tools/common/ToolFiles.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace FerritTools {

bool readWholeFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return false;
    content = std::move(text).str();
    return true;
}

bool writeFileAtomically(const std::string& path, const std::string& content) {
    const std::string temporary = path + ".tmp";
    bool written = false;
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (out) {
            out.write(content.data(), static_cast<std::streamsize>(content.size()));
            written = static_cast<bool>(out.flush());
        }
    }
    std::error_code error;
    if (written) std::filesystem::rename(temporary, path, error);
    if (!written || error) {
        std::filesystem::remove(temporary, error);
        return false;
    }
    return true;
}

}  // namespace FerritTools
