// Helpers for the stream and protocol tests: expected bytes built by hand, and
// streams over a fixed byte string or one end of a socket pair.
#pragma once

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

#include "stock/bns.h"

using namespace std::string_literals;

// Big-endian bytes, written out independently of the stream code.
struct Wire {
    std::string s;
    Wire& be(uint64_t v, int n) {  // the low n bytes of v, most significant first
        for (int k = n - 1; k >= 0; k--) s.push_back((char)(v >> (8 * k)));
        return *this;
    }
    Wire& i(uint32_t v) { return be(v, 4); }
    Wire& h(uint16_t v) { return be(v, 2); }
    Wire& d(double v) { return be(std::bit_cast<uint64_t>(v), 8); }
    Wire& b(const std::string& t) { s += t; return *this; }
    // A fixed field: t then NULs to n bytes.
    Wire& text(const char* t, size_t n) { return b(std::string(t).append(n - strlen(t), '\0')); }
};

// Bytes appended to the stream's buffer and not yet flushed.
inline std::string pending(const Bns* b) { return std::string(b->data + b->fp, b->lp - b->fp); }

inline void write_all(int fd, const std::string& bytes) {
    for (size_t off = 0; off < bytes.size();) {
        ssize_t w = write(fd, bytes.data() + off, bytes.size() - off);
        if (w <= 0) break;
        off += w;
    }
}

// An output stream that is never flushed (its descriptor is unused).
struct OutStream {
    Bns* b = bnsnew(-1, 256);
    ~OutStream() { bnsfree(b); }
};

// An input stream over a memory file holding exactly `bytes`: reads past the
// end see end of file, never a wait.
struct InStream {
    int fd = memfd_create("wire", MFD_CLOEXEC);
    Bns* b = nullptr;
    explicit InStream(const std::string& bytes, int size = 256) {
        write_all(fd, bytes);
        lseek(fd, 0, SEEK_SET);
        b = bnsnew(fd, size);
        bnstimeout(b, 1000);
    }
    ~InStream() { bnsfree(b); close(fd); }
    // What is left unread, to the end of the file.
    std::string rest() {
        std::string r = pending(b);
        b->fp = b->lp;
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) r.append(buf, n);
        return r;
    }
};

// A connected pair of stream sockets, closed on destruction; the tests play the peer at fd[1].
struct SocketPair {
    int fd[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd); }
    ~SocketPair() { closeend(0); closeend(1); }
    void closeend(int i) {
        if (fd[i] >= 0) close(fd[i]);
        fd[i] = -1;
    }
    void send(const std::string& s) const { write_all(fd[1], s); }
    // Everything that can be read from fd[1] right now.
    std::string drain() const {
        std::string r;
        char buf[65536];
        for (ssize_t n; (n = recv(fd[1], buf, sizeof buf, MSG_DONTWAIT)) > 0;) r.append(buf, n);
        return r;
    }
};
