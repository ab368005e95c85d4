// Appends to a file around the page cache (O_DIRECT), in whole aligned
// blocks. On a busy machine most of what a buffered write of a large file
// costs is page-cache work (claiming pages, copying into them, writing them
// back and dropping them); a direct write hands the bytes to the device and
// costs almost nothing but the wait, which the receiver spends digesting.
//
// Bytes past the last whole block are carried to the next append. end()
// turns the descriptor back to ordinary writes and hands the carried bytes
// over, to be written through the page cache: the file's last block, and
// anything after a switch, goes that way. Appends are plain write(2)s at the
// descriptor's offset, so a stdio stream on the same descriptor that has
// nothing buffered carries on where they stopped.
//
// One thread at a time per appender; each thread has its own bounce buffer.
#pragma once

#include <cstddef>
#include <memory>

class DirectAppender {
public:
    // Turns O_DIRECT on for fd, or returns null when its filesystem does not
    // take direct writes (then fd is as it was).
    static std::unique_ptr<DirectAppender> start(int fd);
    ~DirectAppender();

    // Writes what was carried and then data, up to the last whole block.
    // False with errno set when a write fails or comes up short.
    bool append(const char* data, size_t n);

    // Turns O_DIRECT off; carried()/ncarried() are the bytes not written.
    // False with errno set when the descriptor cannot be switched back.
    bool end();
    const char* carried() const { return carry_; }
    size_t ncarried() const { return ncarry_; }

    DirectAppender(const DirectAppender&) = delete;
    DirectAppender& operator=(const DirectAppender&) = delete;

private:
    DirectAppender(int fd, size_t align, char* carry) : fd_(fd), align_(align), carry_(carry) {}
    int fd_;
    size_t align_;
    char* carry_;  // align_ bytes, aligned
    size_t ncarry_ = 0;
};
