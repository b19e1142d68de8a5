// A device's install fixture beside a tree that the publisher's own code writes: the site's
// folder written from a map of files, and the tree served at the URLs the device asks for, so
// that a test runs what `ferrit publish` and the release commands write through a real install.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/update/InstallFixture.h"
#include "tools/common/ToolFiles.h"

namespace FerritTest {

class PublishedTreeFixture : public InstallFixture {
  protected:
    // Where the manifest puts the zips below the tree; the clients' zip prefix names it.
    static constexpr const char* kZipFolder = "packs/";
    // The site's folder that the manifest's packs take their files from.
    static constexpr const char* kSiteFolder = "app";

    std::string tree() const { return (work_.path() / "tree").string(); }
    std::string site() const { return (work_.path() / "site").string(); }

    // Makes the site's folder hold exactly `files`.
    void writeSite(const FerritTools::PackFiles& files) {
        const std::filesystem::path folder = work_.path() / "site" / kSiteFolder;
        std::filesystem::remove_all(folder);
        for (const auto& [path, content] : files) {
            std::filesystem::create_directories((folder / path).parent_path());
            ASSERT_TRUE(FerritTools::writeFileAtomically((folder / path).string(), content));
        }
    }

    // Every file of the tree at its URL: the zips below the zip prefix, the rest below the
    // configuration prefix.
    void serveTree() {
        const std::string zipFolder = kZipFolder;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tree())) {
            if (!entry.is_regular_file()) continue;
            const std::string relative =
                std::filesystem::relative(entry.path(), tree()).generic_string();
            std::string body;
            ASSERT_TRUE(FerritTools::readWholeFile(entry.path().string(), body));
            if (relative.starts_with(zipFolder)) {
                proxy_->serve(kZipPrefix + relative.substr(zipFolder.size()), 200, body);
            } else {
                proxy_->serve(kConfigPrefix + relative, 200, body);
            }
        }
    }

    TempDir work_;
};

}  // namespace FerritTest
