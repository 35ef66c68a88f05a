#include "tests/support/NatsCreds.h"

#include <openssl/evp.h>

#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace {

// The first byte of a public key, and (shifted) of a seed: the letter it
// shows in base32, by its index in the alphabet, times 8.
constexpr uint8_t kSeedPrefix = 18 << 3;

uint8_t prefix_byte(ENkeyKind kind) {
    switch (kind) {
        case ENkeyKind::Operator:
            return 14 << 3;
        case ENkeyKind::Account:
            return 0;
        case ENkeyKind::User:
            return 20 << 3;
    }
    return 0;
}

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

Pkey key_of_seed(const std::vector<uint8_t>& seed) {
    Pkey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
    if (!key) {
        throw std::runtime_error("OpenSSL refused an Ed25519 seed");
    }
    return key;
}

std::vector<uint8_t> with_crc(std::vector<uint8_t> bytes) {
    const uint16_t crc = nats_crc16(bytes);
    bytes.push_back(static_cast<uint8_t>(crc & 0xff));
    bytes.push_back(static_cast<uint8_t>(crc >> 8));
    return bytes;
}

std::string base64url(const std::string& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    uint32_t buffer = 0;
    int bits = 0;
    for (const char c : bytes) {
        buffer = (buffer << 8) | static_cast<uint8_t>(c);
        bits += 8;
        while (bits >= 6) {
            bits -= 6;
            out += kAlphabet[(buffer >> bits) & 63];
        }
    }
    if (bits > 0) {
        out += kAlphabet[(buffer << (6 - bits)) & 63];
    }
    return out;
}

std::string sign(const NatsKey& issuer, const std::string& text) {
    Pkey key = key_of_seed(issuer.seed);
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    unsigned char signature[64];
    size_t length = sizeof(signature);
    if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) != 1 ||
        EVP_DigestSign(ctx.get(), signature, &length, reinterpret_cast<const unsigned char*>(text.data()),
                       text.size()) != 1) {
        throw std::runtime_error("OpenSSL could not sign with Ed25519");
    }
    return std::string(reinterpret_cast<const char*>(signature), length);
}

// Claims signed by `issuer` about `subject`; the identifier is the base32
// SHA-512/256 of the claims without it.
std::string encode_jwt(const NatsKey& issuer, const std::string& subject, const std::string& name,
                       nlohmann::json nats) {
    nlohmann::json claims = {{"iat", static_cast<int64_t>(time(nullptr))},
                             {"iss", issuer.publicKey},
                             {"name", name},
                             {"sub", subject},
                             {"nats", std::move(nats)}};
    const std::string unidentified = claims.dump();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_Digest(unidentified.data(), unidentified.size(), digest, &digestLength, EVP_sha512_256(),
                   nullptr) != 1) {
        throw std::runtime_error("OpenSSL could not hash the claims");
    }
    claims["jti"] = nats_base32(std::vector<uint8_t>(digest, digest + digestLength));
    const std::string signedPart =
        base64url(R"({"typ":"JWT","alg":"ed25519-nkey"})") + "." + base64url(claims.dump());
    return signedPart + "." + base64url(sign(issuer, signedPart));
}

}  // namespace

std::string nats_base32(const std::vector<uint8_t>& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
    std::string out;
    uint32_t buffer = 0;
    int bits = 0;
    for (const uint8_t byte : bytes) {
        buffer = (buffer << 8) | byte;
        bits += 8;
        while (bits >= 5) {
            bits -= 5;
            out += kAlphabet[(buffer >> bits) & 31];
        }
    }
    if (bits > 0) {
        out += kAlphabet[(buffer << (5 - bits)) & 31];
    }
    return out;
}

uint16_t nats_crc16(const std::vector<uint8_t>& bytes) {
    uint16_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc ^= static_cast<uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) != 0 ? static_cast<uint16_t>((crc << 1) ^ 0x1021)
                                      : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

NatsKey make_nats_key(ENkeyKind kind) {
    Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    unsigned char privateKey[32];
    unsigned char publicKey[32];
    size_t privateLength = sizeof(privateKey);
    size_t publicLength = sizeof(publicKey);
    if (!key || EVP_PKEY_get_raw_private_key(key.get(), privateKey, &privateLength) != 1 ||
        EVP_PKEY_get_raw_public_key(key.get(), publicKey, &publicLength) != 1 || privateLength != 32 ||
        publicLength != 32) {
        throw std::runtime_error("OpenSSL could not make an Ed25519 key pair");
    }
    NatsKey out{kind, std::vector<uint8_t>(privateKey, privateKey + 32), {}, {}};
    const uint8_t prefix = prefix_byte(kind);
    std::vector<uint8_t> pub = {prefix};
    pub.insert(pub.end(), publicKey, publicKey + 32);
    out.publicKey = nats_base32(with_crc(pub));
    std::vector<uint8_t> seed = {static_cast<uint8_t>(kSeedPrefix | (prefix >> 5)),
                                 static_cast<uint8_t>((prefix & 31) << 3)};
    seed.insert(seed.end(), privateKey, privateKey + 32);
    out.encodedSeed = nats_base32(with_crc(seed));
    return out;
}

std::string nats_operator_jwt(const NatsKey& op, const std::string& name, const std::string& systemAccount) {
    return encode_jwt(op, op.publicKey, name,
                      {{"system_account", systemAccount}, {"type", "operator"}, {"version", 2}});
}

std::string nats_account_jwt(const NatsKey& op, const NatsKey& account, const std::string& name,
                             bool jetStream) {
    const int64_t storage = jetStream ? -1 : 0;
    const nlohmann::json limits = {{"subs", -1},
                                   {"data", -1},
                                   {"payload", -1},
                                   {"imports", -1},
                                   {"exports", -1},
                                   {"wildcards", true},
                                   {"conn", -1},
                                   {"leaf", -1},
                                   {"mem_storage", storage},
                                   {"disk_storage", storage},
                                   {"streams", jetStream ? -1 : 0},
                                   {"consumer", jetStream ? -1 : 0}};
    return encode_jwt(
        op, account.publicKey, name,
        {{"limits", limits},
         {"default_permissions", {{"pub", nlohmann::json::object()}, {"sub", nlohmann::json::object()}}},
         {"type", "account"},
         {"version", 2}});
}

std::string nats_user_jwt(const NatsKey& account, const NatsKey& user, const std::string& name) {
    return encode_jwt(account, user.publicKey, name,
                      {{"pub", nlohmann::json::object()},
                       {"sub", nlohmann::json::object()},
                       {"subs", -1},
                       {"data", -1},
                       {"payload", -1},
                       {"type", "user"},
                       {"version", 2}});
}

std::string nats_creds_text(const std::string& userJwt, const NatsKey& user) {
    return "-----BEGIN NATS USER JWT-----\n" + userJwt +
           "\n------END NATS USER JWT------\n"
           "\n"
           "************************* IMPORTANT *************************\n"
           "NKEY Seed printed below can be used to sign and prove identity.\n"
           "NKEYs are sensitive and should be treated as secrets.\n"
           "\n"
           "-----BEGIN USER NKEY SEED-----\n" +
           user.encodedSeed +
           "\n------END USER NKEY SEED------\n"
           "\n"
           "*************************************************************\n";
}

std::string nats_operator_config(const std::string& operatorJwtPath, const std::string& systemAccount,
                                 const std::map<std::string, std::string>& accountJwts) {
    std::string config = "operator: \"" + operatorJwtPath + "\"\nsystem_account: " + systemAccount +
                         "\nresolver: MEMORY\nresolver_preload: {\n";
    for (const auto& [key, jwt] : accountJwts) {
        config += "    " + key + ": \"" + jwt + "\"\n";
    }
    return config + "}\n";
}
