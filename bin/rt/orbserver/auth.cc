#include "auth.h"

#include <arpa/inet.h>

#include <cstring>

#include "stock/bns.h"

std::unique_ptr<Auth> Auth::make(const Settings& s, std::string* why) {
    auto a = std::make_unique<Auth>();
    a->signed_opens_ = s.signed_opens;
    a->ttl_ = s.request_timeout;
    for (const auto& [name, path] : s.signers) {
        std::string e;
        OrbKeyPtr key = orbkey_public(path, &e);
        if (!key) {
            *why = "signer '" + name + "': " + e;
            return nullptr;
        }
        a->keys_.emplace_back(name, std::move(key));
    }
    return a;
}

bool Auth::issue(OpenChallenge& c, double now) {
    if (!supported() || orbchallenge(c.bytes) != 0) return false;
    c.expires = now + ttl_;
    return true;
}

std::string Auth::verify(OpenChallenge& c, const Orbrequest* q, double now) {
    double expires = c.expires;
    c.expires = 0;
    if (!supported()) return "signed opens are not supported by this server";
    if (!q->hello) return "signed open without a hello";
    if (expires == 0) return "no challenge outstanding (ask with ORBCHALLENGE first; each is good once)";
    if (now > expires) return "the challenge has expired";
    if (std::memcmp(q->challenge, c.bytes, ORB_CHALLENGE_SIZE) != 0) return "the challenge does not match";
    const OrbKey* key = nullptr;
    for (const auto& [name, k] : keys_)
        if (name == q->signer) key = k.get();
    if (!key) return std::string("signer '") + q->signer + "' is not trusted by this server";
    char empty[ORB_CHALLENGE_SIZE] = {};
    unsigned char block[ORB_SIGNED_BLOCK];
    orbsign_block(q->hello, empty, block);
    if (!orbverify(*key, block, ORB_SIGNED_BLOCK, q->challenge, q->signature))
        return std::string("the signature of signer '") + q->signer + "' does not verify";
    return "";
}

std::unique_ptr<TlsContext> port_tls(const Settings& s, std::string* why) {
    why->clear();
    if (s.tls_certificate.empty()) return nullptr;
    return tls_server_context(s.tls_certificate, s.tls_key, why);
}

std::string plain_client_refusal(const char* head, int n) {
    int what = ORBOPEN;
    if (n >= 8) {
        uint32_t w;
        std::memcpy(&w, head + 4, 4);
        what = int32_t(ntohl(w));
    }
    Orbresponse* r = newOrbresponse();
    r->what = what;
    r->result = -1;
    std::snprintf(r->errmsg, sizeof r->errmsg, "%s",
                  "this port speaks TLS only: mark its entry in orbserver_names.pf with the word tls");
    r->nerr = int(std::strlen(r->errmsg));
    Bns* b = bnsnew(-1, 1024);
    buf2bns(b, "orbm", 4);
    pbnsOrbresponse(b, r);
    std::string bytes(b->data + b->fp, size_t(b->lp - b->fp));
    bnsfree(b);
    freeOrbresponse(r);
    return bytes;
}
