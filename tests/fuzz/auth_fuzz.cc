// The server's side of opening a secure connection, fed arbitrary bytes: a TLS handshake as a TLS port sees
// it (first byte even), or a request decoded and, when it is a signed open, checked against a trusted signer
// (first byte odd; the challenge is taken from the request so that the signature is reached).
#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "auth.h"
#include "fuzz.h"

static std::unique_ptr<TlsContext> Tls;
static std::unique_ptr<Auth> Signers;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string d = fuzz::scratch_dir(), why;
    std::string make = "cd " + d + " && openssl req -x509 -newkey ed25519 -nodes -keyout k -subj /CN=f "
                       "-days 1 -out c >/dev/null 2>&1 && openssl pkey -in k -pubout -out p";
    Settings s;
    s.signers = {{"alice", d + "/p"}};
    fuzz::require(std::system(make.c_str()) == 0 && (Tls = tls_server_context(d + "/c", d + "/k", &why)) &&
                      (Signers = Auth::make(s, &why)), "set-up");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    int n = int(std::min<size_t>(size - 1, 65536));  // within a socket's buffer
    if (data[0] % 2 == 0) {
        int sv[2];
        fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0, "socketpair");
        fcntl(sv[0], F_SETFL, O_NONBLOCK);
        fuzz::require(write(sv[1], bytes, size_t(n)) == n, "write");
        shutdown(sv[1], SHUT_WR);
        auto session = tls_accept(*Tls, sv[0]);
        char buf[4096];
        for (int i = 0; i < 64; i++) {
            ssize_t r = session->read(buf, sizeof buf);
            if (r == 0 || (r < 0 && errno != EAGAIN)) break;
        }
        close(sv[0]), close(sv[1]);
        return 0;
    }
    Bns* in = bnsnew(-1, n + 1);
    bnstimeout(in, 0);
    buf2bns(in, bytes, n);
    Orbrequest* q = newOrbrequest();
    if (gbnsOrbrequest(in, q) == 0 && q->what == ORBSIGNEDOPEN) {
        OpenChallenge c;
        Signers->issue(c, 0);
        std::memcpy(c.bytes, q->challenge, ORB_CHALLENGE_SIZE);
        Signers->verify(c, q, 1);
    }
    freeOrbrequest(q);
    bnsfree(in);
    return 0;
}
