// StorageState: whether the process may write under its root now. A root on a read-only medium,
// a full disk or a folder the process may not write leaves everything installed readable, so the
// system keeps serving and pauses whatever writes (updating, cleanup, statistics, marks) until
// writing works again. The state is process-wide and says why in words, for the status report,
// the inspector and the log: "writable", or "read-only: <reason>".
//
// Entering: a store that cannot open for writing, or any write under the root that fails with a
// read-only file system, no space, no quota or no permission (FileUtil and the stores report
// those here). Leaving: the storage layer's resume at the next trigger of updating, once a probe
// file can be written under the root again.
//
// Threading: any thread. The flag is one atomic load on the paths that ask; the reason sits
// behind a small mutex and is read only by reports.
#pragma once

#include <string>
#include <string_view>

namespace FerritCore::StorageState {

// Why writing stopped; None while it works.
enum class Cause {
    None,
    ReadOnlyFileSystem,
    DiskFull,
    PermissionDenied,
};

// Whether `errnum` says that the medium or the folder cannot be written (as opposed to a failure
// of one file): EROFS, ENOSPC, EDQUOT, EACCES. None otherwise.
Cause causeOf(int errnum);

// True while writing under the root is believed to work. One atomic load.
bool writable();
// "writable", or "read-only: " followed by the reason.
std::string describe();
// The reason alone ("root /x/ is on a read-only file system", "disk full at root /x/",
// "permission denied at /x/packs"); empty while writable.
std::string reason();

// Enters the read-only state for `cause` met at `path` (a file or folder under the root). The
// first entry logs the state once, at warning level; later causes keep the first reason.
void enterReadOnly(Cause cause, std::string_view path);
// A write that failed with `errnum` at `path`: enters the read-only state when the errno is one
// of causeOf's and the path lies under the root; anything else is the caller's own failure.
void noteWriteFailure(int errnum, std::string_view path);
// Back to writable, logging the change once at info level.
void markWritable();

// Writes one byte to a probe file in `folder` (which must exist; with a trailing "/" or not) and
// removes it again, through FileUtil so that the fault layer sees it. 0, or the errno of the
// failed step. Reports nothing.
int probe(const std::string& folder);

// The name of the probe file.
inline constexpr const char* kProbeFileName = ".ferrit-write-probe";

}  // namespace FerritCore::StorageState
