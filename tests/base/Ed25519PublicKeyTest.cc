#include "base/Ed25519PublicKey.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "base/Digest.h"

namespace FerritCore {
namespace {

using Form = Ed25519PublicKey::Form;

// The body of a signed list, and what the publisher signs: its MD5 as lower-case hexadecimal.
constexpr std::string_view kBody = R"({"res/index.html":{"url":"https://a.example.com/","v":"x"}})";

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

Pkey generate(int type) {
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_id(type, nullptr);
    EXPECT_NE(context, nullptr);
    EXPECT_EQ(EVP_PKEY_keygen_init(context), 1);
    EXPECT_EQ(EVP_PKEY_keygen(context, &key), 1);
    EVP_PKEY_CTX_free(context);
    return Pkey(key);
}

std::string sign(EVP_PKEY* key, std::string_view message) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    size_t length = Ed25519PublicKey::kSignatureSize;
    std::string signature(length, '\0');
    EXPECT_EQ(EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key), 1);
    EXPECT_EQ(
        EVP_DigestSign(context, reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()), message.size()),
        1);
    EVP_MD_CTX_free(context);
    signature.resize(length);
    return signature;
}

std::string fromBio(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(length));
    BIO_free(bio);
    return text;
}

std::string publicPem(EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    EXPECT_EQ(PEM_write_bio_PUBKEY(bio, key), 1);
    return fromBio(bio);
}

std::string privatePem(EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    EXPECT_EQ(PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr), 1);
    return fromBio(bio);
}

std::string publicDer(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    EXPECT_GT(length, 0);
    std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    return bytes;
}

std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

class Ed25519PublicKeyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        publisher_ = generate(EVP_PKEY_ED25519);
        other_ = generate(EVP_PKEY_ED25519);
        md5_ = Digest::md5Hex(kBody);
    }

    std::shared_ptr<const Ed25519PublicKey> parse(std::string_view key, Form form) {
        std::string error;
        auto parsed = Ed25519PublicKey::parse(key, form, error);
        EXPECT_EQ(parsed == nullptr, !error.empty()) << error;
        return parsed;
    }

    std::string refusal(std::string_view key, Form form) {
        std::string error;
        EXPECT_EQ(Ed25519PublicKey::parse(key, form, error), nullptr);
        return error;
    }

    Pkey publisher_;
    Pkey other_;
    std::string md5_;
};

TEST_F(Ed25519PublicKeyTest, VerifiesWhatThePublisherSignedOverTheMd5Text) {
    auto key = parse(publicPem(publisher_.get()), Form::Text);
    ASSERT_NE(key, nullptr);
    EXPECT_TRUE(key->verify(md5_, sign(publisher_.get(), md5_)));
}

TEST_F(Ed25519PublicKeyTest, RefusesASignatureOfAnotherKey) {
    auto key = parse(publicPem(publisher_.get()), Form::Text);
    ASSERT_NE(key, nullptr);
    EXPECT_FALSE(key->verify(md5_, sign(other_.get(), md5_)));
}

TEST_F(Ed25519PublicKeyTest, RefusesAChangedMessageOrSignature) {
    auto key = parse(publicPem(publisher_.get()), Form::Text);
    ASSERT_NE(key, nullptr);
    const std::string signature = sign(publisher_.get(), md5_);
    // The body itself is not what is signed: only its MD5 text.
    EXPECT_FALSE(key->verify(kBody, signature));
    std::string changed = md5_;
    changed[0] = changed[0] == 'a' ? 'b' : 'a';
    EXPECT_FALSE(key->verify(changed, signature));
    std::string flipped = signature;
    flipped[10] = static_cast<char>(flipped[10] ^ 1);
    EXPECT_FALSE(key->verify(md5_, flipped));
    EXPECT_FALSE(key->verify(md5_, signature.substr(0, 63)));
    EXPECT_FALSE(key->verify(md5_, ""));
}

TEST_F(Ed25519PublicKeyTest, ReadsEveryFormOfTheSameKey) {
    const std::string pem = publicPem(publisher_.get());
    const std::string der = publicDer(publisher_.get());
    auto reference = parse(pem, Form::Text);
    ASSERT_NE(reference, nullptr);
    const std::string raw = reference->raw();
    ASSERT_EQ(raw.size(), Ed25519PublicKey::kRawSize);
    const std::pair<std::string, Form> forms[] = {
        {pem, Form::Bytes},         {"\n  " + pem + "\n", Form::Text}, {der, Form::Bytes},
        {raw, Form::Bytes},         {base64(raw), Form::Text},         {base64(der), Form::Text},
        {base64(raw), Form::Bytes},
    };
    const std::string signature = sign(publisher_.get(), md5_);
    for (const auto& [text, form] : forms) {
        auto key = parse(text, form);
        ASSERT_NE(key, nullptr) << text;
        EXPECT_EQ(key->raw(), raw);
        EXPECT_TRUE(key->verify(md5_, signature));
    }
    EXPECT_EQ(reference->pem(), pem);
}

TEST_F(Ed25519PublicKeyTest, RawBytesAreNoTextKey) {
    // Thirty-two characters of a script string are text, not a raw key.
    EXPECT_FALSE(refusal(std::string(32, 'k'), Form::Text).empty());
    EXPECT_NE(parse(std::string(32, 'k'), Form::Bytes), nullptr);
}

TEST_F(Ed25519PublicKeyTest, RefusesWhatIsNoEd25519PublicKey) {
    EXPECT_EQ(refusal("", Form::Text), "the key is empty");
    EXPECT_EQ(refusal(" \n", Form::Bytes), "the key is empty");
    EXPECT_EQ(refusal(privatePem(publisher_.get()), Form::Text),
              "the PEM text holds a private key; give the public key");
    EXPECT_EQ(refusal(publicPem(publisher_.get()).substr(0, 50), Form::Text),
              "the PEM text holds no public key");
    Pkey x25519 = generate(EVP_PKEY_X25519);
    EXPECT_EQ(refusal(publicPem(x25519.get()), Form::Text), "the key is not an Ed25519 key");
    EXPECT_EQ(refusal(publicDer(x25519.get()), Form::Bytes), "the key is not an Ed25519 key");
    EXPECT_NE(refusal("not a key", Form::Text).find("neither PEM text nor base64"),
              std::string::npos);
    EXPECT_NE(refusal(base64(std::string(31, 'x')), Form::Text).find("decodes to 31 bytes"),
              std::string::npos);
    EXPECT_NE(refusal(std::string(31, '\x01'), Form::Bytes).find("32 bytes of a raw key"),
              std::string::npos);
    // DER with anything after it is not the key file it claims to be.
    EXPECT_FALSE(refusal(publicDer(publisher_.get()) + "x", Form::Bytes).empty());
}

TEST_F(Ed25519PublicKeyTest, TakesThePublicHalfOfAKeyPair) {
    auto half = Ed25519PublicKey::fromKeyPair(publisher_.get());
    ASSERT_NE(half, nullptr);
    EXPECT_TRUE(half->verify(md5_, sign(publisher_.get(), md5_)));
    Pkey x25519 = generate(EVP_PKEY_X25519);
    EXPECT_EQ(Ed25519PublicKey::fromKeyPair(x25519.get()), nullptr);
    EXPECT_EQ(Ed25519PublicKey::fromKeyPair(nullptr), nullptr);
}

}  // namespace
}  // namespace FerritCore
