#include "stock/tls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstring>

namespace {

// What the last failed call of this thread left in OpenSSL's error queue.
std::string last_error(const char* fallback) {
    unsigned long e = ERR_peek_last_error();
    const char* r = e ? ERR_reason_error_string(e) : nullptr;
    ERR_clear_error();
    return r ? r : fallback;
}

// Settings both sides share: no protocol below TLS 1.2, no renegotiation, a
// peer that closes without notice is simply end of file, and a write may be
// retried from a buffer that moved (the output stream compacts itself).
// AES-128-GCM comes first: every byte is sealed and opened twice on its way
// through the server, and it is the fastest of the suites with AES-NI.
SSL_CTX* new_ctx(const SSL_METHOD* method) {
    SSL_CTX* c = SSL_CTX_new(method);
    if (!c) return nullptr;
    SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION);
    SSL_CTX_set_ciphersuites(c, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256");
    SSL_CTX_set_options(c, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(c, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return c;
}

std::string handshake_failure(SSL* ssl, int e) {
    long v = SSL_get_verify_result(ssl);
    if (v != X509_V_OK) {
        ERR_clear_error();
        return std::string("certificate verification failed: ") + X509_verify_cert_error_string(v);
    }
    unsigned long err = ERR_peek_last_error();
    bool eof = e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && err == 0) ||
               ERR_GET_REASON(err) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
    if (eof) {
        ERR_clear_error();
        return "the server closed the connection during the handshake (is the port plain, not TLS?)";
    }
    if (ERR_GET_REASON(err) == SSL_R_WRONG_VERSION_NUMBER) {
        ERR_clear_error();
        return "the server does not speak TLS (is the port plain, not TLS?)";
    }
    if (e == SSL_ERROR_SYSCALL && err == 0) return strerror(errno);
    return last_error("handshake failed");
}

}  // namespace

TlsContext::~TlsContext() { SSL_CTX_free(ctx); }

TlsSession::~TlsSession() { SSL_free(ssl_); }

ssize_t TlsSession::result(int r, const char* op) {
    int e = SSL_get_error(ssl_, r);
    switch (e) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_ZERO_RETURN:
        return 0;
    case SSL_ERROR_SYSCALL:
        if (ERR_peek_last_error() == 0) {
            if (errno == 0) return 0;  // end of file in the middle of a record
            return -1;                 // errno tells
        }
        [[fallthrough]];
    default:
        why_ = std::string(op) + ": " + (established() ? last_error("failed") : handshake_failure(ssl_, e));
        errno = EPROTO;
        return -1;
    }
}

ssize_t TlsSession::read(void* buf, size_t n) {
    ERR_clear_error();
    errno = 0;
    int r = SSL_read(ssl_, buf, int(std::min<size_t>(n, 1 << 30)));
    return r > 0 ? r : result(r, established() ? "TLS read" : "TLS handshake");
}

ssize_t TlsSession::write(const void* buf, size_t n) {
    if (n == 0) return 0;
    ERR_clear_error();
    errno = 0;
    int r = SSL_write(ssl_, buf, int(std::min<size_t>(n, 1 << 30)));
    if (r > 0) return r;
    ssize_t x = result(r, "TLS write");
    if (x == 0) errno = EPIPE;
    return x == 0 ? -1 : x;
}

int TlsSession::pending() const { return SSL_pending(ssl_); }

bool TlsSession::established() const { return SSL_is_init_finished(ssl_); }

void TlsSession::set_fd(int fd) { BIO_set_fd(SSL_get_rbio(ssl_), fd, BIO_NOCLOSE); }

std::unique_ptr<TlsContext> tls_server_context(const std::string& certfile, const std::string& keyfile,
                                               std::string* why) {
    auto t = std::make_unique<TlsContext>();
    t->ctx = new_ctx(TLS_server_method());
    if (!t->ctx) {
        *why = "can't make a TLS context: " + last_error("out of memory");
        return nullptr;
    }
    if (SSL_CTX_use_certificate_chain_file(t->ctx, certfile.c_str()) != 1) {
        *why = "can't use TLS certificate '" + certfile + "': " + last_error("unreadable");
        return nullptr;
    }
    if (SSL_CTX_use_PrivateKey_file(t->ctx, keyfile.c_str(), SSL_FILETYPE_PEM) != 1) {
        *why = "can't use TLS key '" + keyfile + "': " + last_error("unreadable");
        return nullptr;
    }
    if (SSL_CTX_check_private_key(t->ctx) != 1) {
        *why = "TLS key '" + keyfile + "' does not match certificate '" + certfile + "'";
        ERR_clear_error();
        return nullptr;
    }
    return t;
}

std::unique_ptr<TlsSession> tls_accept(TlsContext& ctx, int fd) {
    SSL* ssl = SSL_new(ctx.ctx);
    if (!ssl) return nullptr;
    SSL_set_fd(ssl, fd);
    SSL_set_accept_state(ssl);
    return std::make_unique<TlsSession>(ssl);
}

std::unique_ptr<TlsSession> tls_connect(int fd, const std::string& host, const std::string& cafile,
                                        int timeout_ms, std::string* why) {
    SSL_CTX* c = new_ctx(TLS_client_method());
    if (!c) {
        *why = "can't make a TLS context: " + last_error("out of memory");
        return nullptr;
    }
    SSL_CTX_set_verify(c, SSL_VERIFY_PEER, nullptr);
    bool trusted = cafile.empty() ? SSL_CTX_set_default_verify_paths(c) == 1
                                  : SSL_CTX_load_verify_locations(c, cafile.c_str(), nullptr) == 1;
    if (!trusted) {
        *why = (cafile.empty() ? std::string("can't read the system's trust store")
                               : "can't read TLS CA file '" + cafile + "'") +
               ": " + last_error("unreadable");
        SSL_CTX_free(c);
        return nullptr;
    }
    SSL* ssl = SSL_new(c);
    SSL_CTX_free(c);  // the session holds its own reference
    if (!ssl) {
        *why = "can't make a TLS session: " + last_error("out of memory");
        return nullptr;
    }
    auto session = std::make_unique<TlsSession>(ssl);
    SSL_set_fd(ssl, fd);
    in_addr ip4;
    if (inet_pton(AF_INET, host.c_str(), &ip4) == 1) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str());
    } else {
        SSL_set1_host(ssl, host.c_str());
        SSL_set_tlsext_host_name(ssl, host.c_str());
    }

    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        ERR_clear_error();
        errno = 0;
        int r = SSL_connect(ssl);
        if (r == 1) break;
        int e = SSL_get_error(ssl, r);
        if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) {
            *why = handshake_failure(ssl, e);
            session.reset();
            break;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, short(e == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
        int ready = left.count() > 0 ? poll(&p, 1, int(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            *why = "no answer to the TLS handshake within " + std::to_string(timeout_ms) + " ms";
            session.reset();
            break;
        }
    }
    fcntl(fd, F_SETFL, flags);
    return session;
}

bool tls_looks_like_hello(const char* bytes, int n) {
    return n >= 2 && bytes[0] == 0x16 && bytes[1] == 0x03;
}
