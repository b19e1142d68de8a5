// Reader: a handle that the host gets for one pack, through which files of that pack are read by
// path. load() may call back on the calling thread or, when the pack must first be updated, on
// whichever thread the update finishes; a Reader itself belongs to the thread of its caller.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "access/PackPart.h"
#include "ferritcore/Error.h"
#include "ferritcore/ResourceRequest.h"

namespace FerritCore {

// What the host names: a pack, optionally with a version ("A:name@seq", "name@seq", "seq": see
// parseNameWithVersion), and the id of its log trace.
struct ReaderParams {
    std::string name;
    std::string info;
    std::string parentId;
};

class Reader {
  public:
    using Callback = std::function<void(std::shared_ptr<Reader> reader, const Error& error)>;

    // Finds the pack by name (a non-empty `info` pins the version) and calls back with a Reader,
    // or with null and the reason. A pack that cannot serve is asked for with trigger "Visit",
    // and the match is retried once when that update ends. Sends "Ferrit.AppVisit" ("RCF" on
    // the first visit, "RC" after). No callback, no work.
    static void load(const ReaderParams& params, Callback callback);

    // Holds the pack in the update queue for the reader's whole life, so that no update replaces
    // its files under it; the destructor releases the hold.
    Reader(std::shared_ptr<PackMatch> match, std::string name, std::string parentId);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Whether the pack's index holds `path` and its file is there. Logs "exists". Like read(),
    // a visit of its own: sends "Ferrit.AppVisit" ("NF" or "N") before it returns.
    bool exists(const std::string& path);
    // The file's bytes; on failure empty, with `error` set, and "read" logged. `header`, when
    // given, receives the headers of the file. Success clears `error`.
    std::string read(const std::string& path, HeaderMap* header, Error& error);

    const std::shared_ptr<PackMatch>& match() const { return match_; }
    const std::string& name() const { return name_; }

  private:
    // "//..." stays, "/..." gets one more "/", anything else gets "//".
    static std::string absolutePath(const std::string& path);

    std::shared_ptr<PackMatch> match_;
    std::string name_;
    std::string parentId_;
    // The pack name that the hold is taken under: the one that update tasks carry.
    std::string heldName_;
};

}  // namespace FerritCore
