#include "base/Errors.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/Environment.h"

namespace FerritCore::Errors {
namespace {

// "%.*s" takes an int precision; a view longer than that prints its first INT_MAX bytes rather
// than wrapping to a negative precision, which would print up to a terminator that isn't there.
int viewLength(std::string_view text) {
    return text.size() > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(text.size());
}

// An empty view may carry a null pointer, which "%.*s" must not be handed even with length 0.
const char* viewData(std::string_view text) {
    return text.data() != nullptr ? text.data() : "";
}

// strerror isn't thread-safe and these functions are called from any thread. Which strerror_r
// the C library declares depends on feature macros; the overloads accept either.
[[maybe_unused]] const char* pickStrerror(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* pickStrerror(const char* result, const char*) {
    return result;
}

std::string errnoText(int errnum) {
    char buffer[256];
    buffer[0] = '\0';
    return pickStrerror(strerror_r(errnum, buffer, sizeof(buffer)), buffer);
}

// The words of an HTTP status, so that "invalid status code 404" says what the server meant: the
// reason phrase of the statuses servers commonly send, else the words of the status's class.
const char* statusWords(unsigned status) {
    struct Phrase {
        unsigned status;
        const char* words;
    };
    static constexpr Phrase kPhrases[] = {
        {204, "No Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {304, "Not Modified"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {408, "Request Timeout"},
        {410, "Gone"},
        {413, "Content Too Large"},
        {429, "Too Many Requests"},
        {500, "Internal Server Error"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
    };
    for (const Phrase& phrase : kPhrases) {
        if (phrase.status == status) return phrase.words;
    }
    if (status >= 100 && status < 200) return "informational answer";
    if (status >= 200 && status < 300) return "success";
    if (status >= 300 && status < 400) return "redirection";
    if (status >= 400 && status < 500) return "client error";
    if (status >= 500 && status < 600) return "server error";
    return "not an HTTP status";
}

enum SharedIndex {
    kSharedNoError,
    kSharedProxyNotInitialized,
    kSharedNotFerritResource,
    kSharedDisabledByDevTool,
    kSharedDisabledByHeader,
    kSharedJniFailed,
    kSharedNapiFailed,
    kSharedCount,
};

// Built once, on first use, and never destroyed: references handed out stay valid through the
// static destructors of other parts of the process.
const std::array<Error, kSharedCount>& shared() {
    static const auto* table = new std::array<Error, kSharedCount>{
        Error(),
        Error(kProxyNotInitialized, std::string("Ferrit proxy not initialized")),
        Error(kNotFerritResource, std::string("Not Ferrit resource")),
        Error(kDisabled, std::string("Ferrit disabled by develop tool")),
        Error(kDisabled, std::string("Ferrit disabled by X-Ferrit-Control header")),
        Error(kHostFailed, std::string("JNI failed")),
        Error(kHostFailed, std::string("NAPI failed")),
    };
    return *table;
}

// For the rows whose message is a name followed by fixed words: concatenation, so that a "%"
// in the name is printed as it is.
Error followedBy(int32_t code, const std::string& text, const char* literal) {
    return Error(code, text + literal);
}

}  // namespace

const Error& noErrorRef() {
    return shared()[kSharedNoError];
}
const Error& proxyNotInitializedRef() {
    return shared()[kSharedProxyNotInitialized];
}
const Error& notFerritResourceRef() {
    return shared()[kSharedNotFerritResource];
}
const Error& disabledByDevToolRef() {
    return shared()[kSharedDisabledByDevTool];
}
const Error& disabledByHeaderRef() {
    return shared()[kSharedDisabledByHeader];
}
const Error& jniFailedRef() {
    return shared()[kSharedJniFailed];
}
const Error& napiFailedRef() {
    return shared()[kSharedNapiFailed];
}

// 1xxx: network and storage.

Error requestInvalidUrl(const std::string& url) {
    return Error(kRequestInvalidUrl, "request \"%s\" invalid URL", url.c_str());
}

Error requestFailed(const std::string& url, int code, const std::string& message) {
    return Error(kRequestFailed, "request \"%s\" failed: %d, %s", url.c_str(), code,
                 message.c_str());
}

Error requestTimedOut(const std::string& url, double deadlineMs) {
    char message[64];
    std::snprintf(message, sizeof(message), "no answer within %g s", deadlineMs / 1000.0);
    return requestFailed(url, ETIMEDOUT, message);
}

Error resourceManagerNotFound() {
    return Error(kRequestFailed, std::string("ResourceManager not found"));
}

Error requestInvalidStatus(const std::string& url, unsigned status) {
    return Error(kRequestInvalidStatus, "request \"%s\" invalid status code %u (%s)", url.c_str(),
                 status, statusWords(status));
}

Error noServerAddress(std::string_view server, std::string_view key) {
    return Error(kNoServerAddress, "No server address: the host set no %.*s (%.*s)",
                 static_cast<int>(server.size()), server.data(), static_cast<int>(key.size()),
                 key.data());
}

Error hostInvalidStatus(std::string_view given) {
    return Error(kRequestInvalidStatus,
                 "invalid status code %.*s from the host: not an HTTP status (a whole number "
                 "from 100 to 599)",
                 static_cast<int>(given.size()), given.data());
}

Error requestNoData(const std::string& url) {
    return Error(kRequestNoData, "request \"%s\" no data", url.c_str());
}

Error requestDeserialization(const std::string& url) {
    return Error(kRequestDeserialization, "request \"%s\" deserialization failed", url.c_str());
}

Error requestDeserialization(const std::string& url, const std::string& reason) {
    return Error(kRequestDeserialization, "request \"%s\" deserialization failed: %s", url.c_str(),
                 reason.c_str());
}

Error requestTooLarge(const std::string& url, unsigned long long size, unsigned long long limit,
                      const char* limitName) {
    return Error(kRequestDeserialization,
                 "request \"%s\" deserialization failed: %llu bytes, above the limit of %llu "
                 "(\"%s\")",
                 url.c_str(), size, limit, limitName);
}

Error requestVerifySignature(const std::string& url, const std::string& md5) {
    return Error(kRequestVerify, "request \"%s\" verify failed: MD5 is \"%s\"", url.c_str(),
                 md5.c_str());
}

Error requestVerifyMd5(const std::string& url, const std::string& md5,
                       const std::string& expected) {
    return Error(kRequestVerify,
                 "request \"%s\" verify failed: MD5 \"%s\" different with expected \"%s\"",
                 url.c_str(), md5.c_str(), expected.c_str());
}

Error requestRefused(const std::string& url, const std::string& reason) {
    return Error(kRequestVerify, "request \"%s\" refused: %s", url.c_str(), reason.c_str());
}

Error aggregateVerifyCount(int count, int expected) {
    return Error(kRequestVerify,
                 "aggregate verify failed: resource count \"%d\" not equal to expected \"%d\"",
                 count, expected);
}

Error cacheVerify(const std::string& url, const std::string& reason) {
    return Error(kRequestVerify, "cache verify failed: \"%s\" %s", url.c_str(), reason.c_str());
}

Error fileNotExists(const Folder& file) {
    return Error(kFileNotExists, "file \"%s\" not exists", file.describe().c_str());
}

Error assetNotExists() {
    return Error(kFileNotExists, std::string("Resource not exists"));
}

Error storageNotExists(const std::string& storage, std::string_view key) {
    return Error(kFileNotExists, "Storage \"%s/%.*s\" not exists", storage.c_str(), viewLength(key),
                 viewData(key));
}

Error storeNotExists(const std::string& prefix, std::string_view key) {
    return Error(kFileNotExists, "store \"%s%.*s\" not exists", prefix.c_str(), viewLength(key),
                 viewData(key));
}

Error fileRead(const Folder& file, int errnum) {
    return Error(kFileRead, "read file \"%s\" failed: %d, %s", file.describe().c_str(), errnum,
                 errnoText(errnum).c_str());
}

Error fileRead(const Folder& file, int code, const std::string& message) {
    return Error(kFileRead, "read file \"%s\" failed: %d, %s", file.describe().c_str(), code,
                 message.c_str());
}

Error fileReadInvalidType(const Folder& file) {
    return Error(kFileRead, "read file \"%s\" failed: invalid type %s", file.describe().c_str(),
                 folderKindName(file.kind()));
}

Error fileReadInvalidType(const Folder& file, const std::string& type) {
    return Error(kFileRead, "read file \"%s\" failed: invalid type %s", file.describe().c_str(),
                 type.c_str());
}

Error nameLeavesFolder(std::string_view name) {
    return Error(kFileRead, "read file \"%.*s\" refused: the name leaves its folder",
                 viewLength(name), viewData(name));
}

Error storageRead(const std::string& storage, std::string_view key, int status) {
    return Error(kFileRead, "Storage read \"%s/%.*s\" failed: %d", storage.c_str(), viewLength(key),
                 viewData(key), status);
}

Error storeRead(const std::string& prefix, std::string_view key, int status) {
    return Error(kFileRead, "read store \"%s%.*s\" failed: %d", prefix.c_str(), viewLength(key),
                 viewData(key), status);
}

Error storeDeserialize(const std::string& prefix, std::string_view key, const std::string& reason) {
    return Error(kFileRead, "deserialize store \"%s%.*s\" failed: %s", prefix.c_str(),
                 viewLength(key), viewData(key), reason.c_str());
}

Error storeInvalidType(const std::string& prefix, std::string_view key, const std::string& type) {
    return Error(kFileRead, "read store \"%s%.*s\" failed: invalid type %s", prefix.c_str(),
                 viewLength(key), viewData(key), type.c_str());
}

Error cacheCrc(const std::string& url, unsigned crc, unsigned expected) {
    // Hosts receive this text unchanged and have always received it in this form, so the format
    // stays as it is: "&ul" is plain text, the "%u" of "%ul" takes the first number (the computed
    // CRC) and leaves an "l" after it, and the expected value is passed but never printed. The
    // compiler rightly sees an unused argument; passing it is harmless for a variadic call.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    return Error(kFileRead, "read cache \"%s\" failed: CRC &ul not equal to expected %ul",
                 url.c_str(), crc, expected);
#pragma GCC diagnostic pop
}

Error fileNoData(const Folder& file) {
    return Error(kNoData, "file \"%s\" no data", file.describe().c_str());
}

Error fileWrite(const Folder& file, int errnum) {
    return Error(kFileWrite, "file \"%s\" write failed: %d, %s", file.describe().c_str(), errnum,
                 errnoText(errnum).c_str());
}

Error renameDiskOnly(const Folder& from, const Folder& to) {
    return Error(kFileWrite, "rename from \"%s\" to \"%s\" only support disk file",
                 from.describe().c_str(), to.describe().c_str());
}

Error storageWrite(const std::string& storage, std::string_view key, int status) {
    return Error(kFileWrite, "Storage \"%s/%.*s\" write failed: %d", storage.c_str(),
                 viewLength(key), viewData(key), status);
}

Error storeWrite(const std::string& prefix, std::string_view key, int status) {
    return Error(kFileWrite, "write storage \"%s%.*s\" failed: %d", prefix.c_str(), viewLength(key),
                 viewData(key), status);
}

Error storageCreateMeta(const std::string& storage, std::string_view key, const std::string& meta) {
    return Error(kFileWrite, "Storage \"%s/%.*s\" create meta \"%s\" failed", storage.c_str(),
                 viewLength(key), viewData(key), meta.c_str());
}

Error assetReadonly(const Folder& file) {
    return Error(kAssetReadonly, "file \"%s\" write failed: asset is readonly",
                 file.describe().c_str());
}

Error fileVerifySignature(const Folder& file, const std::string& md5) {
    return Error(kFileVerify, "file \"%s\" verify failed: MD5 is \"%s\"", file.describe().c_str(),
                 md5.c_str());
}

Error fileVerifyMd5(const Folder& file, const std::string& md5, const std::string& expected) {
    return Error(kFileVerify,
                 "file \"%s\" verify failed: MD5 \"%s\" different with expectation \"%s\"",
                 file.describe().c_str(), md5.c_str(), expected.c_str());
}

Error fileVerifySize(const Folder& file, unsigned long long size, unsigned long long expected) {
    return Error(kFileVerify,
                 "file \"%s\" verify failed: size %llu different with expectation %llu",
                 file.describe().c_str(), size, expected);
}

Error fileDeserialization(const Folder& file) {
    return Error(kFileDeserialization, "file \"%s\" deserialization failed",
                 file.describe().c_str());
}

Error fileDeserialization(const Folder& file, const std::string& reason) {
    return Error(kFileDeserialization, "file \"%s\" deserialization failed: %s",
                 file.describe().c_str(), reason.c_str());
}

Error readAsyncOnly(const Folder& file) {
    return Error(kReadAsyncOnly, "file \"%s\" can only read asynchronous", file.describe().c_str());
}

Error storageDelete(const std::string& storage, std::string_view key, int status) {
    return Error(kStorageDelete, "Storage \"%s/%.*s\" delete failed: %d", storage.c_str(),
                 viewLength(key), viewData(key), status);
}

Error storageWritePaused(const std::string& storage, std::string_view key,
                         const std::string& state) {
    return Error(kFileWrite, "Storage \"%s/%.*s\" write paused: %s", storage.c_str(),
                 viewLength(key), viewData(key), state.c_str());
}

Error packNameMismatch(const std::string& name, const std::string& other) {
    return Error(kPackNameMismatch, "%s packName mismatch: %s", name.c_str(), other.c_str());
}

Error serverError(const std::string& name, int phase) {
    // The phase is the SetupFlags value when the answer came; its number stays for whoever reads
    // it by number, and the words say which steps of start-up had happened.
    return Error(kServerError, "%s server error, phase: %d (%s)", name.c_str(), phase,
                 setupPhaseWords(static_cast<uint32_t>(phase)).c_str());
}

// 2xxx: updating.

Error networkNotSupported(const std::string& name, const std::string& status) {
    return Error(kNetworkNotSupported, "%s network not supported: %s", name.c_str(),
                 status.c_str());
}

Error packUpdateDisabled(const std::string& name) {
    return followedBy(kPackUpdateDisabled, name, " update disabled");
}

Error updateDisabled() {
    return Error(kUpdateDisabled, std::string("update disabled"));
}

Error subProcessUpdateDisabled() {
    return Error(kSubProcessDisabled, std::string("sub process update disabled"));
}

Error subProcessClearDisabled() {
    return Error(kSubProcessDisabled, std::string("sub process clear disabled"));
}

Error updateEliminated(const std::string& name) {
    return followedBy(kUpdateEliminated, name, " eliminated");
}

Error packDeleted(const std::string& name) {
    return followedBy(kPackDeleted, name, " deleted");
}

Error tooManyApps() {
    return Error(kTooManyApps, std::string("Too many apps installed"));
}

Error tooManyApps(const std::string& cause) {
    return Error(kTooManyApps, "Too many apps installed: %s", cause.c_str());
}

Error unzipFailed(const std::string& path, const std::string& reason) {
    return Error(kUnzipFailed, "unzip \"%s\" failed: %s", path.c_str(), reason.c_str());
}

Error unzipTempPath(const std::string& path) {
    return Error(kUnzipTempPath, "Unzip temp path error: " + path);
}

Error patchFailed(const std::string& path, const std::string& reason) {
    return Error(kPatchFailed, "patch \"%s\" failed: %s", path.c_str(), reason.c_str());
}

Error decryptFailed(const std::string& name, const std::string& reason) {
    return Error(kDecryptFailed, "decrypt \"%s\" using Type-A failed: %s", name.c_str(),
                 reason.c_str());
}

Error preloadNotFound(const Folder& file) {
    return followedBy(kPreloadNotFound, file.describe(), " not found");
}

Error copyFailed(const std::string& what, int errnum) {
    return Error(kCopyFailed, "copy %s failed: %s", what.c_str(), errnoText(errnum).c_str());
}

Error copyFailed(const std::string& what, const std::string& message) {
    return Error(kCopyFailed, "copy %s failed: %s", what.c_str(), message.c_str());
}

// 3xxx: access.

Error notFerritResource() {
    return notFerritResourceRef();
}

Error notSetUpYet(const std::string& step) {
    return Error(kNotFerritResource, "Not Ferrit resource: not set up yet (%s)", step.c_str());
}

Error notFerritPackResource(const std::string& matchText) {
    return Error(kNotFerritPackResource, "Not Ferrit %s resource", matchText.c_str());
}

Error disabledByDevTool() {
    return disabledByDevToolRef();
}

Error disabledByHeader() {
    return disabledByHeaderRef();
}

Error configNotFound(const std::string& name) {
    return followedBy(kConfigNotFound, name, " config not found");
}

Error notInstalled(const std::string& name) {
    return followedBy(kNotInstalled, name, " not installed");
}

Error eliminated(const std::string& name) {
    return followedBy(kEliminated, name, " eliminated");
}

Error seqTooLow(const std::string& name, unsigned long long installed, unsigned long long minimum) {
    return Error(kSeqTooLow, "%s %llu less than %llu", name.c_str(), installed, minimum);
}

Error packFileNotFound(const std::string& matchText, const Folder& file) {
    return Error(kPackFileNotFound, "%s file not found: %s", matchText.c_str(),
                 file.describe().c_str());
}

Error outOfDate(const std::string& name, double updateTime) {
    return Error(kPackOutOfDate, "%s out of date: %f", name.c_str(), updateTime);
}

Error filesNotFound(const Folder& folder) {
    return followedBy(kFilesNotFound, folder.describe(), " files not found");
}

Error resourceListNotFound(const std::string& name) {
    return followedBy(kResourceListNotFound, name, " resource list not found");
}

Error backupNotFound(const std::string& name, const std::string& url) {
    return Error(kBackupNotFound, "%s backup resource %s not found", name.c_str(), url.c_str());
}

Error outOfMemory(const std::string& name) {
    return followedBy(kOutOfMemory, name, " out of memory");
}

Error resourceExpired(double expires, double update) {
    return Error(kResourceExpired, "resource out of date, expires: %f, update: %f", expires,
                 update);
}

Error notAcceptable(std::string_view url, std::string_view contentType, std::string_view accept) {
    return Error(kNotAcceptable, "resource %.*s \"%.*s\" can not accepted by %.*s", viewLength(url),
                 viewData(url), viewLength(contentType), viewData(contentType), viewLength(accept),
                 viewData(accept));
}

Error notFerrit(const std::string& name) {
    return followedBy(kNotFerrit, name, " not Ferrit");
}

Error invalidType(const std::string& name) {
    return followedBy(kInvalidType, name, " invalid type");
}

// 9xxx: setup.

Error proxyNotInitialized() {
    return proxyNotInitializedRef();
}

Error createFolderFailed() {
    return Error(kCreateFolderFailed, std::string("Create Ferrit folder failed"));
}

Error createFolderFailed(int errnum) {
    return Error(kCreateFolderFailed, "Create Ferrit folder failed: %s", errnoText(errnum).c_str());
}

Error jniFailed() {
    return jniFailedRef();
}

Error napiFailed() {
    return napiFailedRef();
}

Error napiFailed(int status) {
    return Error(kHostFailed, "NAPI failed: %d", status);
}

Error napiFailed(std::string_view cause) {
    return Error(kHostFailed, "NAPI failed: %.*s", static_cast<int>(cause.size()), cause.data());
}

Error hostFailed(std::string_view cause) {
    return Error(kHostFailed, "host failed: %.*s", static_cast<int>(cause.size()), cause.data());
}

Error responseIsNull() {
    return Error(kResponseIsNull, std::string("response is nullptr"));
}

Error packedStoreNotOpen() {
    return Error(kInitStorageFailed,
                 std::string("Initialize storage \"packs\" failed: the store is not open"));
}

Error devToolConfigNotFound() {
    return Error(kConfigNotFound, std::string("未找到配置"));
}

Error devToolNotAvailable(const std::string& command) {
    return Error(kDevToolNotAvailable, "\"%s\" is not available in this build", command.c_str());
}

Error initStorageFailed(const std::string& path, int status) {
    return Error(kInitStorageFailed, "Initialize storage \"%s\" failed: %d", path.c_str(), status);
}

Error initStoreFailed(const std::string& path, int status) {
    return Error(kInitStorageFailed, "Initialize store \"%s\" failed: %d", path.c_str(), status);
}

Error startUpdateNotCalled() {
    return Error(kStartUpdateNotCalled, std::string("startUpdate not called"));
}

}  // namespace FerritCore::Errors
