// TLS sessions under a buffered stream (OpenSSL 3, TLS 1.2 and later only).
//
// A TlsSession is a BnsTransport: set it as the transport of a connection's
// input and output streams and every read and write goes through it. The
// session never owns or closes the descriptor; it must not outlive it.
//
// Server side: tls_server_context loads a certificate chain and its key once;
// tls_accept makes a session whose handshake is driven by the first reads, so
// a non-blocking event loop never waits for it (read gives -1/EAGAIN until
// application bytes arrive).
//
// Client side: tls_connect verifies the server's certificate against the CA
// file (empty: the system's trust store) and the host name or IP address the
// caller connected to, completing the handshake within timeout_ms whatever
// the descriptor's blocking mode, which it leaves as it found it.
//
// Failures come back as text that says what went wrong ("certificate has
// expired", "hostname mismatch", "no answer within 5000 ms", ...).
#pragma once

#include <memory>
#include <string>

#include "stock/bns.h"

struct ssl_ctx_st;
struct ssl_st;

struct TlsContext {
    ssl_ctx_st* ctx = nullptr;
    TlsContext() = default;
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;
};

class TlsSession final : public BnsTransport {
public:
    explicit TlsSession(ssl_st* ssl) : ssl_(ssl) {}
    ~TlsSession() override;
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // As read(2)/write(2). -1 with EAGAIN: wait for the descriptor and call
    // again (with the same bytes, for write). -1 with EPROTO: the session
    // failed for good, why() says how. 0 from read: the peer closed.
    ssize_t read(void* buf, size_t n) override;
    ssize_t write(const void* buf, size_t n) override;
    int pending() const override;

    bool established() const;
    // Moves the session to another descriptor number for the same socket
    // (after dup2), keeping its state.
    void set_fd(int fd);
    const std::string& why() const { return why_; }

private:
    ssize_t result(int r, const char* op);
    ssl_st* ssl_;
    std::string why_;
};

// Null with *why set when the files cannot be used.
std::unique_ptr<TlsContext> tls_server_context(const std::string& certfile, const std::string& keyfile,
                                               std::string* why);
std::unique_ptr<TlsSession> tls_accept(TlsContext& ctx, int fd);
std::unique_ptr<TlsSession> tls_connect(int fd, const std::string& host, const std::string& cafile,
                                        int timeout_ms, std::string* why);

// True when the bytes begin a TLS handshake record: a TLS client talking to a
// plain port.
bool tls_looks_like_hello(const char* bytes, int n);
