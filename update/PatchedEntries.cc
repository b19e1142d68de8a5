#include "update/PatchedEntries.h"

#include <algorithm>

#include "base/Digest.h"
#include "base/Errors.h"

namespace FerritCore {

namespace {

// Lower-case hexadecimal digits of an MD5.
constexpr size_t kMd5Length = 32;

bool isMd5(std::string_view text) {
    return text.size() == kMd5Length && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

}  // namespace

PatchedEntries::PatchedEntries(PackInstaller& installer, const ResourceIndex& list,
                               const ResourceIndex& installedList, Folder installed, Folder zipFile,
                               uint64_t limit)
    : installer_(installer),
      list_(list),
      installedList_(installedList),
      installed_(std::move(installed)),
      zipFile_(std::move(zipFile)),
      limit_(limit) {}

PatchedEntries::~PatchedEntries() = default;

std::string PatchedEntries::applicableEntry(const ResourceRecord* held,
                                            const ResourceRecord& wanted) {
    // Only a resource travels as a patch; a list may name files beside "res/" too.
    if (!wanted.path.starts_with(kResourcePrefix)) return std::string();
    if (held == nullptr || held->path != wanted.path || held->sameFileAs(wanted))
        return std::string();
    return patchEntryName(held->md5, std::string_view(wanted.path).substr(kResourcePrefix.size()));
}

Error PatchedEntries::begin(const std::string& entry) {
    applier_.reset();
    path_.clear();
    const Folder inZip = zipFile_.childOf(entry);
    const std::string_view rest = std::string_view(entry).substr(kPatchEntryPrefix.size());
    const std::string_view md5 = rest.substr(0, std::min(rest.size(), kMd5Length));
    if (!isMd5(md5) || rest.size() <= kMd5Length + 1 || rest[kMd5Length] != '/')
        return Errors::patchFailed(inZip.describe(), "not a patch entry's name");
    const std::string path = std::string(kResourcePrefix).append(rest.substr(kMd5Length + 1));
    std::shared_ptr<const ResourceRecord> wanted = list_.find(path);
    if (!wanted || wanted->path != path) return Errors::preloadNotFound(inZip);
    if (Error error = installedList_.error()) return error;
    patched_.insert(path);
    if (resolved_.count(path) != 0) return Error();
    std::shared_ptr<const ResourceRecord> held = installedList_.find(path);
    // The installed file is the new one already: the kept-file copy takes it.
    if (held && held->path == path && held->sameFileAs(*wanted)) {
        resolved_.insert(path);
        return Error();
    }
    // A patch against another version's bytes, or nothing installed under the path: no patch
    // applies, which unresolved() reports if no other entry does.
    if (applicableEntry(held.get(), *wanted) != entry) return Error();
    if (!wanted->hasSize())
        return Errors::patchFailed(inZip.describe(), "the list states no size for the file made");
    // Judged before anything is read or reserved: the applier would refuse it at the header.
    if (wanted->size > limit_)
        return Errors::patchFailed(inZip.describe(), "the file made is above the patch limit");
    if (Error error = readReference(path, std::string(md5))) return error;
    applier_.emplace(reference_, inZip, wanted->size, wanted->md5, limit_);
    if (Error error = installer_.beginFile(path, wanted->size)) {
        applier_.reset();
        return error;
    }
    path_ = path;
    checkedMd5_ = wanted->md5;
    return Error();
}

Error PatchedEntries::readReference(const std::string& path, const std::string& md5) {
    const Folder file = installed_.childOf(path);
    // Judged before the read: the reference is held whole while the patch applies.
    if (file.diskSize() > limit_)
        return Errors::patchFailed(file.describe(), "the installed file is above the patch limit");
    Error error;
    reference_ = Folder::readFile(file, error);
    if (Errors::isNoData(error)) error.clear();
    if (error) return error;
    if (reference_.size() > limit_)
        return Errors::patchFailed(file.describe(), "the installed file is above the patch limit");
    // The list vouched for the bytes at install; the disk may have changed them since.
    const std::string actual = Digest::md5Hex(reference_);
    if (actual != md5) return Errors::fileVerifyMd5(file, actual, md5);
    return Error();
}

Error PatchedEntries::write(std::string_view piece) {
    if (!applier_) return Error();
    return applier_->feed(piece,
                          [this](std::string_view made) { return installer_.appendFile(made); });
}

Error PatchedEntries::end() {
    if (!applier_) return Error();
    Error error = applier_->finish();
    // Before endFile hands the gathered bytes on: on the packed store the file made is whole in
    // memory here, beside the reference and the decoder.
    peakMemory_ = std::max(peakMemory_,
                           reference_.capacity() + applier_->peakMemory() + installer_.heldBytes());
    if (!error) {
        error = installer_.endFile(checkedMd5_);
        bytes_ += applier_->written();
        resolved_.insert(path_);
    } else {
        installer_.abandonFile();
    }
    applier_.reset();
    // Released at once: the next patch's reference may be as large.
    reference_.clear();
    reference_.shrink_to_fit();
    return error;
}

Error PatchedEntries::unresolved() const {
    for (const std::string& path : patched_) {
        if (resolved_.count(path) == 0) {
            return Errors::patchFailed(installed_.childOf(path).describe(),
                                       "no patch applies to the installed file, which is not the "
                                       "new version's");
        }
    }
    return Error();
}

}  // namespace FerritCore
