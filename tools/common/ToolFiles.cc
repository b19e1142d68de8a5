#include "tools/common/ToolFiles.h"

#include "base/FileUtil.h"

#include <cstring>
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

bool writeFileAtomically(const std::string& path, const std::string& content, std::string* reason) {
    using FerritCore::FileUtil;
    const std::string temporary = path + ".tmp";
    int code = content.empty() ? FileUtil::writeEmptyFile(temporary)
                               : FileUtil::writeFile(temporary, content);
    if (code == 0) code = FileUtil::syncFile(temporary);
    if (code == 0) code = FileUtil::rename(temporary, path);
    if (code != 0) {
        (void)FileUtil::remove(temporary);
        if (reason != nullptr) *reason = std::strerror(code);
        return false;
    }
    const std::string folder = std::filesystem::path(path).parent_path().string();
    code = FileUtil::syncDirectory(folder.empty() ? std::string(".") : folder);
    if (code != 0 && reason != nullptr) *reason = std::strerror(code);
    return code == 0;
}

std::string cannotWrite(const std::string& path, const std::string& reason) {
    return reason.empty() ? "cannot write " + path : "cannot write " + path + ": " + reason;
}

}  // namespace FerritTools
