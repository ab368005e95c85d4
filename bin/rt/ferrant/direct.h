// Appends to a file around the page cache (O_DIRECT), in whole aligned
// blocks. On a busy machine much of what a buffered write of a large file
// costs is page-cache work: claiming pages, writing them back, dropping them
// again. A direct write hands the blocks to the device instead; what remains
// is a copy into a small aligned buffer and the wait, which the receiver
// spends digesting.
//
// Bytes past the last whole block are carried to the next append. end()
// turns the descriptor back to ordinary writes and hands the carried bytes
// over, to be written through the page cache: the file's last block, and
// anything after a switch, goes that way. Appends are plain write(2)s at the
// descriptor's offset, so a stdio stream on the same descriptor that has
// nothing buffered carries on where they stopped.
//
// One thread at a time per appender; each thread has its own bounce buffer
// of a fixed size, whatever the size of the pieces.
#pragma once

#include <cstddef>
#include <memory>

class DirectAppender {
public:
    // Turns O_DIRECT on for fd, or returns null when its filesystem does not
    // take direct writes or fd's offset is not on a block boundary (then fd
    // is as it was).
    static std::unique_ptr<DirectAppender> start(int fd);
    ~DirectAppender();

    // Writes what was carried and then data, up to the last whole block.
    // False with errno set when a write fails.
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
    bool write_blocks(const char* p, size_t n);
    int fd_;
    size_t align_;
    char* carry_;  // align_ bytes, aligned
    size_t ncarry_ = 0;
    bool direct_ = true;  // until a write had to go through the cache
};
