#include "model/Rollout.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <mutex>

#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "marl/Log.h"
#include "support/Ascii.h"

namespace FerritCore::Rollout {

namespace {

// Bytes of the digest that make the slot: 64 bits leave a bias of under 1e-15 after the modulo.
constexpr size_t kSlotBytes = 8;

// The identifier as a file holds it: the first line, without blanks around it.
std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return std::string();
    const size_t end = text.find_first_of(" \t\r\n", begin);
    return text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

void logFailure(const std::string& path, int code) {
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kFConfig)
        .event("installId")
        .append("path", path)
        .append("errno", code)
        .append("effect", "out of every rollout");
}

}  // namespace

uint32_t cohortSlot(std::string_view installId, std::string_view packName) {
    std::string input;
    input.reserve(installId.size() + 1 + packName.size());
    input.append(installId).push_back('/');
    input.append(packName);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr) != 1 ||
        length < kSlotBytes)
        return kShareScale;  // no slot: in no share, as a device without an identifier
    uint64_t value = 0;
    for (size_t i = 0; i < kSlotBytes; ++i) value = (value << 8) | digest[i];
    return static_cast<uint32_t>(value % kShareScale);
}

bool inCohort(std::string_view installId, std::string_view packName, uint32_t share) {
    if (installId.empty()) return false;
    return cohortSlot(installId, packName) < share;
}

std::string loadInstallId(const std::string& root) {
    if (root.empty()) return std::string();
    const std::string path = root + std::string(kInstallIdFile);
    std::string text;
    if (FileUtil::readFile(path, text) == 0) {
        std::string id = trimmed(text);
        if (!id.empty()) return id;
    }
    unsigned char bytes[kInstallIdBytes];
    if (RAND_bytes(bytes, static_cast<int>(sizeof(bytes))) != 1) {
        logFailure(path, EIO);
        return std::string();
    }
    const std::string id = Ascii::hex(bytes, sizeof(bytes));
    // Written whole under a name of this process, then given its name by a link, which fails
    // when the name exists: a reader never sees half an identifier, and of two processes that
    // make one at once, the first link wins and the other reads it.
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    int code = FileUtil::writeFile(temporary, id + "\n");
    if (code == 0) code = FileUtil::syncFile(temporary);
    if (code == 0) {
        code = FileUtil::link(temporary, path);
        if (code == EEXIST) {
            // Another process made it first, or an empty file stood there: take what is there
            // now, and replace only an empty one.
            text.clear();
            code = FileUtil::readFile(path, text);
            if (code == 0 && !trimmed(text).empty()) {
                FileUtil::remove(temporary);
                return trimmed(text);
            }
            if (code == 0) code = FileUtil::rename(temporary, path);
        }
    }
    FileUtil::remove(temporary);
    if (code != 0) {
        logFailure(path, code);
        return std::string();
    }
    FileUtil::syncDirectory(root);
    return id;
}

std::string installId() {
    static std::mutex mutex;
    static std::string* root = new std::string();
    static std::string* id = new std::string();
    static bool loaded = false;
    std::lock_guard<std::mutex> lock(mutex);
    const std::string& current = rootPath();
    // An identifier that could not be read or made is tried again at the next document: one
    // failed read must not take a device holding a gray version back for the whole process.
    if (!loaded || *root != current || id->empty()) {
        *root = current;
        *id = loadInstallId(current);
        loaded = true;
    }
    return *id;
}

}  // namespace FerritCore::Rollout
