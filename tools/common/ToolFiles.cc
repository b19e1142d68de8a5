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

namespace {

bool writeFinished(const std::string& path, const std::string& content, bool replace,
                   std::string* reason) {
    using FerritCore::FileUtil;
    const std::string temporary = path + ".tmp";
    int code = content.empty() ? FileUtil::writeEmptyFile(temporary)
                               : FileUtil::writeFile(temporary, content);
    if (code == 0) code = FileUtil::syncFile(temporary);
    if (code != 0) {
        (void)FileUtil::remove(temporary);
    } else {
        code = placeFile(temporary, path, replace);
    }
    if (code != 0 && reason != nullptr) *reason = std::strerror(code);
    return code == 0;
}

}  // namespace

int placeFile(const std::string& temporary, const std::string& path, bool replace) {
    using FerritCore::FileUtil;
    int code = replace ? FileUtil::rename(temporary, path) : FileUtil::link(temporary, path);
    // A rename took the temporary name; a link, made or not, leaves it.
    if (!replace || code != 0) (void)FileUtil::remove(temporary);
    if (code != 0) return code;
    const std::string folder = std::filesystem::path(path).parent_path().string();
    return FileUtil::syncDirectory(folder.empty() ? std::string(".") : folder);
}

bool writeFileAtomically(const std::string& path, const std::string& content, std::string* reason) {
    return writeFinished(path, content, true, reason);
}

bool writeNewFile(const std::string& path, const std::string& content, std::string* reason) {
    return writeFinished(path, content, false, reason);
}

std::string cannotWrite(const std::string& path, const std::string& reason) {
    return reason.empty() ? "cannot write " + path : "cannot write " + path + ": " + reason;
}

}  // namespace FerritTools
