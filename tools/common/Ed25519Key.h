// Ed25519Key: the key pair of the reference hosts' signature scheme, as the command-line tools
// make, read, write and use it: a signature is the Ed25519 signature of an MD5 text, carried in
// base 64. Reading and checking the public half is the library's own (Ed25519PublicKey), so that
// what the tools sign and what a host checks cannot drift apart. A key is immutable once made, so
// sign and verify may run on any thread; loading and writing touch only the named files.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/Ed25519PublicKey.h"

struct evp_pkey_st;

namespace FerritTools {

class Ed25519Key {
  public:
    // A fresh key pair; null with `error` set on failure.
    static std::unique_ptr<Ed25519Key> generate(std::string& error);
    // The private key of a PEM file (which also gives the public half); null with `error` set
    // when the file cannot be read or holds no Ed25519 private key.
    static std::unique_ptr<Ed25519Key> loadPrivate(const std::string& pemPath, std::string& error);
    // The public key of a file in any form Ed25519PublicKey reads (the PEM file that keygen
    // writes); null with `error` set likewise.
    static std::unique_ptr<Ed25519Key> loadPublic(const std::string& pemPath, std::string& error);
    ~Ed25519Key();
    Ed25519Key(const Ed25519Key&) = delete;
    Ed25519Key& operator=(const Ed25519Key&) = delete;

    bool hasPrivate() const { return hasPrivate_; }
    // Signs `message` itself (Ed25519 names no digest): the 64 raw signature bytes. Deterministic:
    // the same key and message give the same bytes. False with `error` set without a private key.
    bool sign(std::string_view message, std::string& signature, std::string& error) const;
    // Whether `signature` (raw bytes) is this key's signature of `message`.
    bool verify(std::string_view message, std::string_view signature) const;
    // PEM files: PKCS#8 private key, SubjectPublicKeyInfo public key. Each replaces what `path`
    // held, or with Existing::Keep fails when `path` exists (checked as the file gets its name,
    // so a file another process made meanwhile is never replaced). The private key's file is
    // created with mode 0600 (the process's umask may only take from that), never widened and
    // narrowed afterwards.
    enum class Existing { Replace, Keep };
    bool writePrivatePem(const std::string& path, std::string& error,
                         Existing existing = Existing::Replace) const;
    bool writePublicPem(const std::string& path, std::string& error,
                        Existing existing = Existing::Replace) const;
    // The public half, as a host checks with it.
    const std::shared_ptr<const FerritCore::Ed25519PublicKey>& publicKey() const { return public_; }

  private:
    Ed25519Key(evp_pkey_st* key, std::shared_ptr<const FerritCore::Ed25519PublicKey> publicKey)
        : key_(key), hasPrivate_(key != nullptr), public_(std::move(publicKey)) {}

    evp_pkey_st* key_;  // owned; null for a public key alone
    bool hasPrivate_;
    std::shared_ptr<const FerritCore::Ed25519PublicKey> public_;  // never null
};

// Standard base 64 with padding, on one line: the form in which signed files carry signatures.
std::string base64Encode(std::string_view bytes);

}  // namespace FerritTools
