// Signed opens: the block a client signs, Ed25519 signing and checking, and
// challenges. Client (orbopen) and server share this module so that the byte
// layout lives in one place.
//
// The block (ORB_SIGNED_BLOCK bytes): perm (1), what (129, NUL-padded), who
// (24, NUL-padded), and the request's 12-byte challenge field as it stood
// before the server's challenge was copied into it (the client keeps it zero).
// The signature covers a fixed label, the block and the server's 12-byte
// challenge, so that it is good for that one challenge only: a replay under a
// later challenge fails. An Ed25519 signature is 64 bytes; it fills the head
// of the 512-byte signature field and the rest is zero.
//
// Keys are PEM files as the openssl command writes them: a signer's private
// key in $ORB_KEYS/<signer>.key (ORB_KEYS defaults to ~/.orb/keys) for the
// client, public keys named in the server's signers table.
#pragma once

#include <memory>
#include <string>

#include "orb/orbfile.h"

#define ORB_SIGNED_BLOCK 166

// Fills block (ORB_SIGNED_BLOCK bytes) from the hello and the challenge field.
void orbsign_block(const OrbOpenString* hello, const char* challenge_field, unsigned char* block);

// The signing service: signs block (n bytes) for the server's challenge with
// the signer's private key, filling the ORB_SIGNATURE_SIZE-byte signature.
// 0, or -1 with *why saying what is wrong (no such key file, unreadable, not
// an Ed25519 key, bad signer name).
int orbsign(const char* signer, const unsigned char* block, int n, const char* challenge, char* signature,
            std::string* why);

struct OrbKey;  // a signer's public key
struct OrbKeyFree {
    void operator()(OrbKey* key) const;
};
using OrbKeyPtr = std::unique_ptr<OrbKey, OrbKeyFree>;

// Null with *why set when the file holds no Ed25519 public key.
OrbKeyPtr orbkey_public(const std::string& path, std::string* why);

// True when signature is key's signature of block (n bytes) for challenge.
bool orbverify(const OrbKey& key, const unsigned char* block, int n, const char* challenge, const char* signature);

// Fills ORB_CHALLENGE_SIZE bytes from the system's cryptographic generator; 0 or -1.
int orbchallenge(char* challenge);
