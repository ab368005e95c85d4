#include "orb/orbsign.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct OrbKey {
    EVP_PKEY* pkey = nullptr;
};

void OrbKeyFree::operator()(OrbKey* key) const {
    if (key) EVP_PKEY_free(key->pkey);
    delete key;
}

namespace {

constexpr char kLabel[] = "orb signed open v1";  // with its NUL
constexpr int kEd25519Size = 64;

std::string message(const unsigned char* block, int n, const char* challenge) {
    std::string m(kLabel, sizeof kLabel);
    m.append(reinterpret_cast<const char*>(block), size_t(n));
    m.append(challenge, ORB_CHALLENGE_SIZE);
    return m;
}

void copy_padded(unsigned char* dst, const char* src, size_t width) {
    size_t n = src ? strnlen(src, width) : 0;
    memcpy(dst, src, n);
    memset(dst + n, 0, width - n);
}

std::string key_dir() {
    if (const char* d = getenv("ORB_KEYS"); d && *d) return d;
    const char* home = getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.orb/keys";
}

EVP_PKEY* read_key(const std::string& path, bool priv, std::string* why) {
    FILE* f = fopen(path.c_str(), "r");
    if (!f) {
        *why = "can't open key file '" + path + "': " + strerror(errno);
        return nullptr;
    }
    EVP_PKEY* k = priv ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr)
                       : PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
    fclose(f);
    ERR_clear_error();
    if (!k) {
        *why = "key file '" + path + "' holds no PEM " + (priv ? "private" : "public") + " key";
        return nullptr;
    }
    if (EVP_PKEY_get_id(k) != EVP_PKEY_ED25519) {
        EVP_PKEY_free(k);
        *why = "key file '" + path + "' does not hold an Ed25519 key";
        return nullptr;
    }
    return k;
}

}  // namespace

void orbsign_block(const OrbOpenString* hello, const char* challenge_field, unsigned char* block) {
    block[0] = static_cast<unsigned char>(hello->perm);
    copy_padded(block + 1, hello->what, 129);
    copy_padded(block + 130, hello->who, 24);
    memcpy(block + 154, challenge_field, ORB_CHALLENGE_SIZE);
}

int orbsign(const char* signer, const unsigned char* block, int n, const char* challenge, char* signature,
            std::string* why) {
    std::string name = signer ? signer : "";
    if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
        *why = "bad signer name '" + name + "'";
        return -1;
    }
    EVP_PKEY* k = read_key(key_dir() + "/" + name + ".key", true, why);
    if (!k) return -1;
    std::string m = message(block, n, challenge);
    unsigned char sig[kEd25519Size];
    size_t len = sizeof sig;
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    bool ok = md && EVP_DigestSignInit(md, nullptr, nullptr, nullptr, k) == 1 &&
              EVP_DigestSign(md, sig, &len, reinterpret_cast<const unsigned char*>(m.data()), m.size()) == 1;
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(k);
    ERR_clear_error();
    if (!ok) {
        *why = "signing with the key of '" + name + "' failed";
        return -1;
    }
    memset(signature, 0, ORB_SIGNATURE_SIZE);
    memcpy(signature, sig, len);
    return 0;
}

OrbKeyPtr orbkey_public(const std::string& path, std::string* why) {
    EVP_PKEY* k = read_key(path, false, why);
    if (!k) return nullptr;
    OrbKeyPtr key(new OrbKey);
    key->pkey = k;
    return key;
}

bool orbverify(const OrbKey& key, const unsigned char* block, int n, const char* challenge, const char* signature) {
    std::string m = message(block, n, challenge);
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    bool ok = md && EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, key.pkey) == 1 &&
              EVP_DigestVerify(md, reinterpret_cast<const unsigned char*>(signature), kEd25519Size,
                               reinterpret_cast<const unsigned char*>(m.data()), m.size()) == 1;
    EVP_MD_CTX_free(md);
    ERR_clear_error();
    return ok;
}

int orbchallenge(char* challenge) {
    return RAND_bytes(reinterpret_cast<unsigned char*>(challenge), ORB_CHALLENGE_SIZE) == 1 ? 0 : -1;
}
