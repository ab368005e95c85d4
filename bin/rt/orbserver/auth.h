// Access control of the listening port beyond address lists: signed opens
// (ORBCHALLENGE, then ORBSIGNEDOPEN checked against the trusted signers'
// public keys) and the TLS session each connection of a TLS port runs in.
//
// A challenge is random, belongs to one connection, is good for one signed
// open and expires after the request time-out; a signature made for another
// challenge (a replay) does not verify.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orb/orbfile.h"
#include "orb/orbsign.h"
#include "settings.h"
#include "stock/tls.h"

// The challenge outstanding on one connection.
struct OpenChallenge {
    char bytes[ORB_CHALLENGE_SIZE] = {};
    double expires = 0;  // monotonic seconds; 0: none outstanding
};

class Auth {
public:
    // Loads every listed signer's public key; null with *why when one cannot
    // be used (the server should not start half-trusting).
    static std::unique_ptr<Auth> make(const Settings& s, std::string* why);

    bool supported() const { return !keys_.empty(); }
    // Whether an open with this permission must be signed.
    bool needs_signature(char perm) const { return signed_opens_.find(perm) != std::string::npos; }
    // Fills c with a fresh challenge; false when there is none to give.
    bool issue(OpenChallenge& c, double now);
    // "" when q is signed by a listed signer over the challenge issued on this
    // connection, else why not. The challenge is used up either way.
    std::string verify(OpenChallenge& c, const Orbrequest* q, double now);

private:
    std::vector<std::pair<std::string, OrbKeyPtr>> keys_;
    std::string signed_opens_;
    double ttl_ = 30;
};

// The TLS context of the port, when the settings name a certificate and key.
// Null with *why empty when TLS is off, null with *why set when it cannot be.
std::unique_ptr<TlsContext> port_tls(const Settings& s, std::string* why);

// The bytes to send a plain client that reached a TLS port (its first bytes,
// n of them, begin with the request marker): an error response it can read.
std::string plain_client_refusal(const char* head, int n);
