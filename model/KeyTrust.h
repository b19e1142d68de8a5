// KeyTrust: whose signatures a device takes. The host names one publisher key when it opens (its
// Proxy checks with it); a signed configuration document may then change that set:
//   "keys": {"next": KEY, "endorsement": {"key": KEY, "signature": SIG}, "retired": [ID, ...]}
// - "next": the key that signs after the one that signed this document. Trusted from the moment
//   the document is taken in, beside the keys trusted already.
// - "endorsement": a key vouched for by a trusted one: SIG is that key's signature (in the
//   scheme of documents: over the MD5 text) of endorsementStatement(KEY). A document signed by
//   KEY verifies on a device that never saw the document naming it "next", so that a device away
//   during a change of keys still follows.
// - "retired": keys, by Ed25519PublicKey::id(), whose signatures are refused from then on, the
//   host's own key included: a retirement outranks the key an app was built with, so that a key
//   that leaked stays refused on every device that heard of it.
// Keys follow one another: each learnt key remembers the key that introduced it (the signer of
// the document that named it "next", or the key that endorsed it), and the host's own key is the
// first of the line. A document retires only keys that came before its signer in that line,
// never its signer nor a key after it, so that a key that leaked cannot retire the successor
// that replaces it. When a key is retired, the keys it introduced go with it (and the keys those
// introduced), except the signer of the retiring document and the keys that document names: what
// a leaked key planted does not outlive it.
// A host that checks nothing learns nothing from documents: whatever signed them, they could
// say anything.
// KEY is the base64 of the 32 raw bytes of an Ed25519 public key. What a device learnt is kept
// under its root, in the configuration store under "keys", and read once per process; what was
// learnt is only ever added to by a later read, so that a store that could not be written does
// not bring a retired key back. Signed lists of packs are checked against the same set. Any
// thread.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/Ed25519PublicKey.h"
#include "base/ProcessState.h"
#include "marl/Json.h"
#include "support/Mutex.h"

namespace FerritCore {

// What one document says about keys; empty when it says nothing.
struct KeyStatements {
    std::string next;                  // base64 of a raw key
    std::string endorsedKey;           // base64 of a raw key
    std::string endorsement;           // base64 signature of endorsementStatement(endorsedKey)
    std::vector<std::string> retired;  // ids

    // The members of a document's "keys", as the publisher writes them and devices read them:
    // {"next": KEY, "endorsement": {"key": KEY, "signature": SIGNATURE}, "retired": [ID...]}.
    static constexpr const char* kNext = "next";
    static constexpr const char* kEndorsement = "endorsement";
    static constexpr const char* kEndorsedKey = "key";
    static constexpr const char* kEndorsementSignature = "signature";
    static constexpr const char* kRetired = "retired";

    bool empty() const { return next.empty() && endorsedKey.empty() && retired.empty(); }
    // Reads the member "keys" of a document; anything that is not in the form above is left out.
    static KeyStatements read(const MarlLogger::json::JSON& keys);
    // Reads the member "keys" straight from a document's text, without a tree of the rest: the
    // parse stops once the member is read (a publisher writes it first). The first "keys" counts.
    static KeyStatements readDocument(std::string_view text);
};

class KeyTrust {
  public:
    // The member of a document, and the key of the configuration store, that hold keys.
    static constexpr const char* kMember = "keys";
    static constexpr const char* kStoreKey = "keys";
    // The signer of a document that the host's own check took, when the host does not say which
    // key it checks with.
    static constexpr const char* kHostSigner = "host";

    static KeyTrust& instance();

    // The text that an endorsement of `keyBase64` signs; its MD5 text is what the signature is
    // over. Never the body of a document: it is not JSON.
    static std::string endorsementStatement(std::string_view keyBase64);

    // The id of the trusted key whose signature (raw bytes) `signature` is over `md5Hex`, or
    // empty when none: the host's key unless it was retired (kHostSigner when the host does not
    // name it; such a host is not asked once any key is retired), then every key this device
    // learnt and did not retire. kHostSigner for every signature when the host checks nothing
    // (Proxy::checksSignatures).
    std::string signerOf(const std::string& md5Hex, const std::string& signature);
    // The same, and else the key that `statements` endorse when a trusted key endorsed it and it
    // signed: the id of that key, which is trusted once the document is taken in (accept).
    std::string signerOf(const std::string& md5Hex, const std::string& signature,
                         const KeyStatements& statements);

    // Takes in what a document that this device accepted says about keys; `signer` is the id that
    // signerOf gave for it. Kept under the root at once; a failed write is logged and the set in
    // memory stands for this process. Nothing is taken in when the host checks no signatures.
    void accept(const KeyStatements& statements, const std::string& signer);

    // Reads what the root keeps, once per process (at start, so that reports say it early).
    void load();
    // {"trusted": [ID, ...], "retired": [ID, ...]} of the keys this device learnt (the host's own
    // is not among them), as far as this process has read them: never opens a store.
    MarlLogger::json::JSON describe();
    bool isRetired(const std::string& id);

  private:
    friend KeyTrust* ProcessState::create<KeyTrust>(void (*)(KeyTrust&));
    KeyTrust() = default;
    // Back to a process that has read nothing (ProcessState::resetForTesting).
    void reset();
    void loadLocked() REQUIRES(mutex_);
    // Adds what the store holds to what this process holds: keys, introducers and retirements
    // are only added, and a key this process retired or dropped stays out. The keys it added.
    std::vector<std::shared_ptr<const Ed25519PublicKey>> mergeStoreLocked() REQUIRES(mutex_);
    void saveLocked() REQUIRES(mutex_);
    bool retiredLocked(const std::string& id) const REQUIRES(mutex_);
    bool trustedLocked(const std::string& id) const REQUIRES(mutex_);
    // The keys before `id` in the line of succession, nearest first, as the introducers this
    // device kept say; a key learnt before they were kept follows `root` (the id of the host's
    // key, or kHostSigner when the host does not name it).
    std::vector<std::string> predecessorsLocked(const std::string& id,
                                                const std::string& root) const REQUIRES(mutex_);
    // Retires `id` and drops the keys it introduced, except those in `kept` and the keys they
    // introduced.
    void retireLocked(const std::string& id, const std::set<std::string>& kept,
                      const std::string& root, const std::string& signer) REQUIRES(mutex_);
    // Whether a key this device learnt and did not retire signed; its id, or empty.
    std::string learntSignerLocked(const std::string& md5Hex, const std::string& signature)
        REQUIRES(mutex_);

    Mutex mutex_;
    bool loaded_ GUARDED_BY(mutex_) = false;
    std::vector<std::shared_ptr<const Ed25519PublicKey>> trusted_ GUARDED_BY(mutex_);
    std::vector<std::string> retired_ GUARDED_BY(mutex_);
    // The key that introduced each key this device learnt, by id; kept after the key is retired
    // or dropped, so that the line stays whole.
    std::map<std::string, std::string> introducers_ GUARDED_BY(mutex_);
    // The host does not name its key, and a document retired a key this device cannot place,
    // which may be it: the host is not asked from then on.
    bool hostRetired_ GUARDED_BY(mutex_) = false;
    // Keys this process dropped with the key that introduced them; a read of the store that a
    // failed write left behind does not bring them back.
    std::set<std::string> dropped_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
