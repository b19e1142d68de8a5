// FileProxy: the Proxy of the command-line tools. It verifies signatures with an Ed25519 public
// key read from a PEM file (the scheme of the reference hosts: the signature is over the MD5
// text), answers on-demand loads at once (the modules' files are taken to be in the raw-file
// folder already), and keeps or prints performance records. It opens no socket: with a served
// folder it answers requests from files (see serveFolder), and without one every request fails in
// transport, as the interface's default does. Any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Proxy.h"
#include "support/Mutex.h"

namespace FerritTools {

class Ed25519Key;

class FileProxy : public FerritCore::Proxy {
  public:
    // Loads the public key; `error` says why when the result is null.
    static std::shared_ptr<FileProxy> open(const std::string& publicKeyPem, std::string& error);
    ~FileProxy() override;

    bool verifySignature(const std::string& md5Hex, const std::string& signature) override;
    // The key of --public-key, which a later document may retire.
    std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey() const override;
    void sendEvent(const FerritCore::PerfRecord& record) override;
    void loadOnDemand(const std::string& tag,
                      std::function<void(const FerritCore::Error&)> completion) override;
    // Answers from the served folder: the URL "scheme://host/a/b/c" is looked for as the file
    // "<folder>/host/a/b/c"; when there is none, the deepest of "<folder>/host/a/b/index",
    // "<folder>/host/a/index", ... that exists answers, as a static server with a fallback would.
    // Status 200 with the file's bytes (written to the request's file when it names one), else 404.
    void sendRequest(const FerritCore::ProxyRequest& request,
                     FerritCore::ProxyCompletion completion) override;

    // Serves requests from files below `folder`; empty turns serving off.
    void serveFolder(std::string folder) { servedFolder_ = std::move(folder); }
    // Every URL asked for, in order.
    std::vector<std::string> requestedUrls() const;
    // The files served with status 200 so far, and their bytes: how far downloads have got.
    uint64_t servedFiles() const { return servedFiles_.load(std::memory_order_relaxed); }
    uint64_t servedBytes() const { return servedBytes_.load(std::memory_order_relaxed); }

    // Prints each performance record to stderr as it arrives.
    void setPrintEvents(bool print) { printEvents_ = print; }

  private:
    explicit FileProxy(std::unique_ptr<Ed25519Key> key);

    std::unique_ptr<Ed25519Key> key_;  // immutable: verification may run on several threads
    bool printEvents_ = false;
    std::string servedFolder_;
    std::atomic<uint64_t> servedFiles_{0};
    std::atomic<uint64_t> servedBytes_{0};
    mutable FerritCore::Mutex mutex_;
    std::vector<std::string> requested_ GUARDED_BY(mutex_);
};

}  // namespace FerritTools
