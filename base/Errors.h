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
Error requestRefused(const std::string& url, const std::string& reason);          // 1010
Error aggregateVerifyCount(int count, int expected);                              // 1010
Error cacheVerify(const std::string& url, const std::string& reason);             // 1010
Error fileNotExists(const Folder& file);                                          // 1101
Error assetNotExists();                                                           // 1101
Error storageNotExists(const std::string& storage, std::string_view key);         // 1101
Error storeNotExists(const std::string& prefix, std::string_view key);            // 1101
Error fileRead(const Folder& file, int errnum);                                   // 1102
Error fileRead(const Folder& file, int code, const std::string& message);         // 1102
Error fileReadInvalidType(const Folder& file);                                    // 1102
Error fileReadInvalidType(const Folder& file, const std::string& type);           // 1102
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
Error decryptFailed(const std::string& name, const std::string& reason);        // 2301
Error preloadNotFound(const Folder& file);                                      // 2406
Error copyFailed(const std::string& what, int errnum);                          // 2504
Error copyFailed(const std::string& what, const std::string& message);          // 2504

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

// The codes that callers tell apart; every other code is only reported.
enum Code : int32_t {
    kFileNotExists = 1101,
    kNoData = 1103,
    kReadAsyncOnly = 1108,
    kNetworkNotSupported = 2001,
    kNotFerritResource = 3001,
    kDisabled = 3003,
    kPackFileNotFound = 3109,
    kResourceExpired = 3115,
};

// Predicates.
inline bool isFileMissing(const Error& e) {
    return e.code() == kFileNotExists;
}
// A file that read empty: damage, unless its list names it empty.
inline bool isNoData(const Error& e) {
    return e.code() == kNoData;
}
// A file of an installed pack that is gone or no longer what its list says: the pack is
// reinstalled.
inline bool isPackFileNotFound(const Error& e) {
    return e.code() == kPackFileNotFound;
}
// Nothing serves this URL, so the matcher logs it at a lower level.
inline bool isNotServed(const Error& e) {
    return e.code() >= kNotFerritResource && e.code() <= kDisabled;
}
// A cached copy whose expiry has passed (3115).
inline bool isOutOfDate(const Error& e) {
    return e.code() == kResourceExpired;
}
inline bool isNotFerritResource(const Error& e) {
    return e.code() == kNotFerritResource;
}
inline bool isReadAsyncOnly(const Error& e) {
    return e.code() == kReadAsyncOnly;
}
// A download that the host's network status does not allow now (2001).
inline bool isNetworkNotSupported(const Error& e) {
    return e.code() == kNetworkNotSupported;
}

}  // namespace FerritCore::Errors
