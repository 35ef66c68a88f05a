// NATS decentralized authentication made at run time for end-to-end tests:
// Ed25519 key pairs in their nkey encodings, the operator, account and user
// JWTs signed by their issuers, the credentials file a client reads and the
// server configuration that trusts the operator and knows the accounts.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The kinds of nkey, by the letter their public key starts with.
enum class ENkeyKind : char { Operator = 'O', Account = 'A', User = 'U' };

struct NatsKey {
    ENkeyKind kind;
    std::vector<uint8_t> seed;  // the 32-byte Ed25519 private key
    std::string publicKey;      // base32: kind byte, 32-byte public key, CRC16
    std::string encodedSeed;    // base32: "S" and kind in two bytes, seed, CRC16
};

// A fresh key pair of `kind`; throws std::runtime_error if OpenSSL fails.
NatsKey make_nats_key(ENkeyKind kind);

// RFC 4648 base32 without padding, as nkeys and JWT identifiers use it.
std::string nats_base32(const std::vector<uint8_t>& bytes);
// The CRC16 (polynomial 0x1021, initial 0) nkeys append, little-endian.
uint16_t nats_crc16(const std::vector<uint8_t>& bytes);

// A self-signed operator JWT; `systemAccount` names its system account.
std::string nats_operator_jwt(const NatsKey& op, const std::string& name, const std::string& systemAccount);
// An account JWT issued by `op`, with no limits and JetStream enabled when
// `jetStream` (unlimited memory and file storage), else none.
std::string nats_account_jwt(const NatsKey& op, const NatsKey& account, const std::string& name,
                             bool jetStream);
// A user JWT issued by `account`, allowed everything.
std::string nats_user_jwt(const NatsKey& account, const NatsKey& user, const std::string& name);

// The credentials file of `user`: its JWT and seed in the usual blocks.
std::string nats_creds_text(const std::string& userJwt, const NatsKey& user);

// Server configuration for operator mode: the operator JWT file, the system
// account, and a memory resolver preloaded with every account JWT (by key).
std::string nats_operator_config(const std::string& operatorJwtPath, const std::string& systemAccount,
                                 const std::map<std::string, std::string>& accountJwts);
