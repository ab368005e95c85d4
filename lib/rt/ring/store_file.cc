// The ring file as a RingStore: every call goes straight to ring::Ring, which
// already keeps the whole contract across processes.
#include "ring/store_tables.h"

namespace ring {

namespace {

class FileStore final : public TablesInRing {
public:
    explicit FileStore(std::unique_ptr<Ring> r) : r_(std::move(r)) {}

    std::string describe() const override { return "ring file '" + r_->path() + "'"; }

    int64_t put(std::string_view srcname, double time, const void* data, size_t size,
                std::string* why) override {
        return r_->put(srcname, time, data, size, why);
    }

    uint64_t head() const override { return r_->head(); }
    uint64_t tail() const override { return r_->tail(); }
    int32_t maxpkts() const override { return r_->maxpkts(); }
    std::optional<uint64_t> oldest() const override { return r_->oldest(); }
    std::optional<uint64_t> newest() const override { return r_->newest(); }
    std::optional<uint64_t> find(int32_t id) const override { return r_->find(id); }
    std::optional<uint64_t> after_time(double t) const override { return r_->after_time(t); }
    uint64_t next_seq(uint64_t at) const override { return r_->next_seq(at); }
    std::optional<uint64_t> prev_seq(uint64_t at) const override { return r_->prev_seq(at); }

    bool entry(uint64_t seq, Entry* e) const override { return r_->entry(seq, e); }
    bool read(uint64_t seq, Entry* e, std::vector<char>& buf, size_t maxbytes) const override {
        return r_->read(seq, e, buf, maxbytes);
    }
    bool view(uint64_t seq, Entry* e, const char** data) const override { return r_->view(seq, e, data); }
    bool still_valid(uint64_t seq) const override { return r_->still_valid(seq); }

    uint32_t wake_count() const override { return r_->wake_count(); }
    bool wait_since(uint64_t seen_head, uint32_t since, int timeout_ms) const override {
        return r_->wait_since(seen_head, since, timeout_ms);
    }
    void wake_all() const override { r_->wake_all(); }

    std::vector<Source> sources() const override { return r_->sources(); }

    Status status() const override { return r_->status(); }

private:
    Ring& tables() const override { return *r_; }
    std::unique_ptr<Ring> r_;
};

}  // namespace

std::unique_ptr<RingStore> file_store(std::unique_ptr<Ring> r) { return std::make_unique<FileStore>(std::move(r)); }

std::unique_ptr<RingStore> open_file_store(const std::string& path, const Geometry& g) {
    return file_store(Ring::open_or_create(path, g));
}

}  // namespace ring
