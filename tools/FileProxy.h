// FileProxy: the Proxy of the command-line tools. It verifies signatures with an Ed25519 public
// key read from a PEM file (the scheme of the reference hosts: the signature is over the MD5
// text), answers on-demand loads at once (the modules' files are taken to be in the raw-file
// folder already), and keeps or prints performance records. No network: requests fail in
// transport, as the interface's default does. Any thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "runtime/Proxy.h"

struct evp_pkey_st;

namespace FerritTools {

class FileProxy : public FerritCore::Proxy {
public:
    // Loads the public key; `error` says why when the result is null.
    static std::shared_ptr<FileProxy> open(const std::string& publicKeyPem, std::string& error);
    ~FileProxy() override;

    bool verifySignature(const std::string& md5Hex, const std::string& signature) override;
    void sendEvent(const FerritCore::PerfRecord& record) override;
    void loadOnDemand(const std::string& tag, std::function<void(const FerritCore::Error&)> completion) override;

    // Prints each performance record to stderr as it arrives.
    void setPrintEvents(bool print) { printEvents_ = print; }

private:
    explicit FileProxy(evp_pkey_st* key) : key_(key) {}

    evp_pkey_st* key_;  // owned; EVP keys may be used from several threads for verification
    bool printEvents_ = false;
};

}  // namespace FerritTools
