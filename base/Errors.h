// The error catalogue: every failure of the system is made by one function here, so that each
// code and its wording have one source. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Folder.h"
#include "ferritcore/Error.h"

namespace FerritCore::Errors {

// Shared constants, built once on first use in one static table.
const Error& noErrorRef();
const Error& proxyNotInitializedRef();  // 9991
const Error& notFerritResourceRef();    // 3001
const Error& disabledByDevToolRef();    // 3003
const Error& disabledByHeaderRef();     // 3003
const Error& jniFailedRef();            // 9995
const Error& napiFailedRef();           // 9995

// 1xxx: network and storage.
Error requestInvalidUrl(const std::string& url);                                    // 1001
Error requestFailed(const std::string& url, int code, const std::string& message);  // 1003
// The host did not answer within `deadlineMs`: 1003 with ETIMEDOUT and "no answer within N s".
Error requestTimedOut(const std::string& url, double deadlineMs);     // 1003
Error resourceManagerNotFound();                                      // 1003
Error requestInvalidStatus(const std::string& url, unsigned status);  // 1004
// A request that has no server to go to: the build compiled no address in and the host set none.
// `server` says which ("configuration server", "pack server"), `key` the host's setting for it.
Error noServerAddress(std::string_view server, std::string_view key);  // 1002
// 1004 for a status code that the host gave and that no HTTP response has (-1, 0, 1000, 200.5),
// shown as the host gave it.
Error hostInvalidStatus(std::string_view given);
Error requestNoData(const std::string& url);                                      // 1006
Error requestDeserialization(const std::string& url);                             // 1007
Error requestDeserialization(const std::string& url, const std::string& reason);  // 1007
// A document larger than the setting `limitName` allows, refused before it is parsed.
Error requestTooLarge(const std::string& url, unsigned long long size, unsigned long long limit,
                      const char* limitName);                                  // 1007
Error requestVerifySignature(const std::string& url, const std::string& md5);  // 1010
Error requestVerifyMd5(const std::string& url, const std::string& md5,
                       const std::string& expected);  // 1010
// A signed document that verifies and still must not be taken: `reason` says why ("expired at
// ...", "signed at ..., before the configuration this device has", "issued in the future: ...",
// "published for channel ..."). A document signed by a retired key does not verify (1010 of
// requestVerifySignature).
Error requestRefused(const std::string& url, const std::string& reason);   // 1010
Error aggregateVerifyCount(int count, int expected);                       // 1010
Error cacheVerify(const std::string& url, const std::string& reason);      // 1010
Error fileNotExists(const Folder& file);                                   // 1101
Error assetNotExists();                                                    // 1101
Error storageNotExists(const std::string& storage, std::string_view key);  // 1101
Error storeNotExists(const std::string& prefix, std::string_view key);     // 1101
Error fileRead(const Folder& file, int errnum);                            // 1102
Error fileRead(const Folder& file, int code, const std::string& message);  // 1102
Error fileReadInvalidType(const Folder& file);                             // 1102
Error fileReadInvalidType(const Folder& file, const std::string& type);    // 1102
// A name below a held folder that would reach outside it (absolute, or with a ".." piece).
Error nameLeavesFolder(std::string_view name);                                    // 1102
Error storageRead(const std::string& storage, std::string_view key, int status);  // 1102
Error storeRead(const std::string& prefix, std::string_view key, int status);     // 1102
Error storeDeserialize(const std::string& prefix, std::string_view key,
                       const std::string& reason);  // 1102
Error storeInvalidType(const std::string& prefix, std::string_view key,
                       const std::string& type);                                   // 1102
Error cacheCrc(const std::string& url, unsigned crc, unsigned expected);           // 1102
Error fileNoData(const Folder& file);                                              // 1103
Error fileWrite(const Folder& file, int errnum);                                   // 1104
Error renameDiskOnly(const Folder& from, const Folder& to);                        // 1104
Error storageWrite(const std::string& storage, std::string_view key, int status);  // 1104
Error storeWrite(const std::string& prefix, std::string_view key, int status);     // 1104
Error storageCreateMeta(const std::string& storage, std::string_view key,
                        const std::string& meta);                       // 1104
Error assetReadonly(const Folder& file);                                // 1105
Error fileVerifySignature(const Folder& file, const std::string& md5);  // 1106
Error fileVerifyMd5(const Folder& file, const std::string& md5,
                    const std::string& expected);  // 1106
Error fileVerifySize(const Folder& file, unsigned long long size,
                     unsigned long long expected);                                  // 1106
Error fileDeserialization(const Folder& file);                                      // 1107
Error fileDeserialization(const Folder& file, const std::string& reason);           // 1107
Error readAsyncOnly(const Folder& file);                                            // 1108
Error storageDelete(const std::string& storage, std::string_view key, int status);  // 1109
Error packNameMismatch(const std::string& name, const std::string& other);          // 1201
Error serverError(const std::string& name, int phase);                              // 1202

// A write refused while the storage state is read-only: the store and key, and the state in words.
Error storageWritePaused(const std::string& storage, std::string_view key,
                         const std::string& state);  // 1104

// 2xxx: updating.
Error networkNotSupported(const std::string& name, const std::string& status);  // 2001
Error packUpdateDisabled(const std::string& name);                              // 2002
Error updateDisabled();                                                         // 2003
Error subProcessUpdateDisabled();                                               // 2004
Error subProcessClearDisabled();                                                // 2004
Error updateEliminated(const std::string& name);                                // 2101
Error packDeleted(const std::string& name);                                     // 2102
Error tooManyApps();                                                            // 2103
Error tooManyApps(const std::string& cause);                                    // 2103
Error unzipFailed(const std::string& path, const std::string& reason);          // 2207
Error unzipTempPath(const std::string& path);                                   // 2208
// A patch that cannot be applied: the file it makes, and why in words (a zstd code's meaning, a
// limit it passes, a reference it does not fit).
Error patchFailed(const std::string& path, const std::string& reason);    // 2209
Error decryptFailed(const std::string& name, const std::string& reason);  // 2301
Error preloadNotFound(const Folder& file);                                // 2406
Error copyFailed(const std::string& what, int errnum);                    // 2504
Error copyFailed(const std::string& what, const std::string& message);    // 2504

// 3xxx: access.
Error notFerritResource();  // 3001
// A URL that nothing serves while start-up has not gone far enough to know: the code of a miss,
// so that the host goes to the network as for one, and words that say which step is missing.
Error notSetUpYet(const std::string& step);                 // 3001
Error notFerritPackResource(const std::string& matchText);  // 3002
Error disabledByDevTool();                                  // 3003
Error disabledByHeader();                                   // 3003
Error configNotFound(const std::string& name);              // 3101
Error notInstalled(const std::string& name);                // 3104
Error eliminated(const std::string& name);                  // 3105
Error seqTooLow(const std::string& name, unsigned long long installed,
                unsigned long long minimum);                               // 3108
Error packFileNotFound(const std::string& matchText, const Folder& file);  // 3109
Error outOfDate(const std::string& name, double updateTime);               // 3110
Error filesNotFound(const Folder& folder);                                 // 3111
Error resourceListNotFound(const std::string& name);                       // 3112
Error backupNotFound(const std::string& name, const std::string& url);     // 3113
Error outOfMemory(const std::string& name);                                // 3114
Error resourceExpired(double expires, double update);                      // 3115
Error notAcceptable(std::string_view url, std::string_view contentType,
                    std::string_view accept);  // 3116
Error notFerrit(const std::string& name);      // 3201
Error invalidType(const std::string& name);    // 3202

// 9xxx: setup.
Error proxyNotInitialized();           // 9991
Error createFolderFailed();            // 9992
Error createFolderFailed(int errnum);  // 9992
Error jniFailed();                     // 9995
Error napiFailed();                    // 9995
Error napiFailed(int status);          // 9995
// 9995 with the cause in words: what the host threw, or why a request never reached it.
Error napiFailed(std::string_view cause);
// 9995 with the cause in words, for a native host: why a request never reached it or came back.
Error hostFailed(std::string_view cause);
// The C interface's answer about a response that is not there.
Error responseIsNull();  // -1
// The store of packed files is asked for before any was opened (before setProxy), or after it
// could not be: the words of the store's initialisation, with the reason instead of a code.
Error packedStoreNotOpen();  // 9997
// The developer tool's answer about a pack that the configuration does not name.
Error devToolConfigNotFound();  // 3101
// The developer tool's answer about a command whose part is not in this build.
Error devToolNotAvailable(const std::string& command);         // 9996
Error initStorageFailed(const std::string& path, int status);  // 9997
Error initStoreFailed(const std::string& path, int status);    // 9997
// What start-up reports when the host never started the update and the library did it itself.
Error startUpdateNotCalled();  // 9998

// Every code of the catalogue by name. Code and tests use these names and the predicates below,
// never the numbers; the numbers are what hosts see, so a name keeps its number for good
// (ErrorsTest.CodesKeepTheirNumbers pins each one).
enum Code : int32_t {
    // 1xxx: network and storage.
    kRequestInvalidUrl = 1001,
    kNoServerAddress = 1002,
    kRequestFailed = 1003,
    kRequestInvalidStatus = 1004,
    kRequestNoData = 1006,
    kRequestDeserialization = 1007,
    kRequestVerify = 1010,
    kFileNotExists = 1101,
    kFileRead = 1102,
    kNoData = 1103,
    kFileWrite = 1104,
    kAssetReadonly = 1105,
    kFileVerify = 1106,
    kFileDeserialization = 1107,
    kReadAsyncOnly = 1108,
    kStorageDelete = 1109,
    kPackNameMismatch = 1201,
    kServerError = 1202,

    // 2xxx: updating.
    kNetworkNotSupported = 2001,
    kPackUpdateDisabled = 2002,
    kUpdateDisabled = 2003,
    kSubProcessDisabled = 2004,
    kUpdateEliminated = 2101,
    kPackDeleted = 2102,
    kTooManyApps = 2103,
    kUnzipFailed = 2207,
    kUnzipTempPath = 2208,
    kPatchFailed = 2209,
    kDecryptFailed = 2301,
    kPreloadNotFound = 2406,
    kCopyFailed = 2504,

    // 3xxx: access.
    kNotFerritResource = 3001,
    kNotFerritPackResource = 3002,
    kDisabled = 3003,
    kConfigNotFound = 3101,
    kNotInstalled = 3104,
    kEliminated = 3105,
    kSeqTooLow = 3108,
    kPackFileNotFound = 3109,
    kPackOutOfDate = 3110,
    kFilesNotFound = 3111,
    kResourceListNotFound = 3112,
    kBackupNotFound = 3113,
    kOutOfMemory = 3114,
    kResourceExpired = 3115,
    kNotAcceptable = 3116,
    kNotFerrit = 3201,
    kInvalidType = 3202,

    // 9xxx: setup.
    kProxyNotInitialized = 9991,
    kCreateFolderFailed = 9992,
    kHostFailed = 9995,
    kDevToolNotAvailable = 9996,
    kInitStorageFailed = 9997,
    kStartUpdateNotCalled = 9998,

    // The C interface's own answer.
    kResponseIsNull = -1,
};

// Predicates, one per code, and one for a family (isNotServed).
inline bool isRequestInvalidUrl(const Error& e) {
    return e.code() == kRequestInvalidUrl;
}
inline bool isNoServerAddress(const Error& e) {
    return e.code() == kNoServerAddress;
}
inline bool isRequestFailed(const Error& e) {
    return e.code() == kRequestFailed;
}
inline bool isRequestInvalidStatus(const Error& e) {
    return e.code() == kRequestInvalidStatus;
}
inline bool isRequestNoData(const Error& e) {
    return e.code() == kRequestNoData;
}
inline bool isRequestDeserialization(const Error& e) {
    return e.code() == kRequestDeserialization;
}
// A downloaded document, a signature or a cached copy that failed its check.
inline bool isRequestVerify(const Error& e) {
    return e.code() == kRequestVerify;
}
// A file, asset or stored key that is not there.
inline bool isFileMissing(const Error& e) {
    return e.code() == kFileNotExists;
}
inline bool isFileRead(const Error& e) {
    return e.code() == kFileRead;
}
// A file that read empty: damage, unless its list names it empty.
inline bool isNoData(const Error& e) {
    return e.code() == kNoData;
}
inline bool isFileWrite(const Error& e) {
    return e.code() == kFileWrite;
}
inline bool isAssetReadonly(const Error& e) {
    return e.code() == kAssetReadonly;
}
// A file whose digest, signature or size is not what its list says.
inline bool isFileVerify(const Error& e) {
    return e.code() == kFileVerify;
}
inline bool isFileDeserialization(const Error& e) {
    return e.code() == kFileDeserialization;
}
inline bool isReadAsyncOnly(const Error& e) {
    return e.code() == kReadAsyncOnly;
}
inline bool isStorageDelete(const Error& e) {
    return e.code() == kStorageDelete;
}
inline bool isPackNameMismatch(const Error& e) {
    return e.code() == kPackNameMismatch;
}
inline bool isServerError(const Error& e) {
    return e.code() == kServerError;
}
// A download that the host's network status does not allow now.
inline bool isNetworkNotSupported(const Error& e) {
    return e.code() == kNetworkNotSupported;
}
inline bool isPackUpdateDisabled(const Error& e) {
    return e.code() == kPackUpdateDisabled;
}
inline bool isUpdateDisabled(const Error& e) {
    return e.code() == kUpdateDisabled;
}
// An update or a clear refused in a process that is not the main one.
inline bool isSubProcessDisabled(const Error& e) {
    return e.code() == kSubProcessDisabled;
}
inline bool isUpdateEliminated(const Error& e) {
    return e.code() == kUpdateEliminated;
}
inline bool isPackDeleted(const Error& e) {
    return e.code() == kPackDeleted;
}
inline bool isTooManyApps(const Error& e) {
    return e.code() == kTooManyApps;
}
inline bool isUnzipFailed(const Error& e) {
    return e.code() == kUnzipFailed;
}
inline bool isUnzipTempPath(const Error& e) {
    return e.code() == kUnzipTempPath;
}
inline bool isPatchFailed(const Error& e) {
    return e.code() == kPatchFailed;
}
inline bool isDecryptFailed(const Error& e) {
    return e.code() == kDecryptFailed;
}
inline bool isPreloadNotFound(const Error& e) {
    return e.code() == kPreloadNotFound;
}
inline bool isCopyFailed(const Error& e) {
    return e.code() == kCopyFailed;
}
inline bool isNotFerritResource(const Error& e) {
    return e.code() == kNotFerritResource;
}
inline bool isNotFerritPackResource(const Error& e) {
    return e.code() == kNotFerritPackResource;
}
// Turned off by the developer tool or by the X-Ferrit-Control header.
inline bool isDisabled(const Error& e) {
    return e.code() == kDisabled;
}
inline bool isConfigNotFound(const Error& e) {
    return e.code() == kConfigNotFound;
}
inline bool isNotInstalled(const Error& e) {
    return e.code() == kNotInstalled;
}
inline bool isEliminated(const Error& e) {
    return e.code() == kEliminated;
}
inline bool isSeqTooLow(const Error& e) {
    return e.code() == kSeqTooLow;
}
// A file of an installed pack that is gone or no longer what its list says: the pack is
// reinstalled.
inline bool isPackFileNotFound(const Error& e) {
    return e.code() == kPackFileNotFound;
}
// An installed pack older than its configuration allows.
inline bool isPackOutOfDate(const Error& e) {
    return e.code() == kPackOutOfDate;
}
inline bool isFilesNotFound(const Error& e) {
    return e.code() == kFilesNotFound;
}
inline bool isResourceListNotFound(const Error& e) {
    return e.code() == kResourceListNotFound;
}
inline bool isBackupNotFound(const Error& e) {
    return e.code() == kBackupNotFound;
}
inline bool isOutOfMemory(const Error& e) {
    return e.code() == kOutOfMemory;
}
// A cached copy whose expiry has passed.
inline bool isOutOfDate(const Error& e) {
    return e.code() == kResourceExpired;
}
inline bool isNotAcceptable(const Error& e) {
    return e.code() == kNotAcceptable;
}
inline bool isNotFerrit(const Error& e) {
    return e.code() == kNotFerrit;
}
inline bool isInvalidType(const Error& e) {
    return e.code() == kInvalidType;
}
inline bool isProxyNotInitialized(const Error& e) {
    return e.code() == kProxyNotInitialized;
}
inline bool isCreateFolderFailed(const Error& e) {
    return e.code() == kCreateFolderFailed;
}
// The host's side failed: JNI, NAPI or a native host.
inline bool isHostFailed(const Error& e) {
    return e.code() == kHostFailed;
}
inline bool isDevToolNotAvailable(const Error& e) {
    return e.code() == kDevToolNotAvailable;
}
// A store that could not be opened, or is asked for before it was.
inline bool isInitStorageFailed(const Error& e) {
    return e.code() == kInitStorageFailed;
}
inline bool isStartUpdateNotCalled(const Error& e) {
    return e.code() == kStartUpdateNotCalled;
}
inline bool isResponseNull(const Error& e) {
    return e.code() == kResponseIsNull;
}
// Nothing serves this URL, so the matcher logs it at a lower level.
inline bool isNotServed(const Error& e) {
    return e.code() >= kNotFerritResource && e.code() <= kDisabled;
}

}  // namespace FerritCore::Errors
