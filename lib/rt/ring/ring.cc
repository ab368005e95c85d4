// Placeholder bodies so that dependants link; the store follows.
#include "ring/ring.h"

namespace ring {

struct Ring::Impl {};
void (*Ring::test_hook_before_publish)() = nullptr;

Ring::Ring(std::string path, std::unique_ptr<Impl> impl) : path_(std::move(path)), impl_(std::move(impl)) {}
Ring::~Ring() = default;
std::unique_ptr<Ring> Ring::open(const std::string& path) { throw Error(path + ": ring store not built yet"); }
std::unique_ptr<Ring> Ring::create(const std::string& path, const Geometry&) { return open(path); }
std::unique_ptr<Ring> Ring::open_or_create(const std::string& path, const Geometry&) { return open(path); }
int64_t Ring::put(std::string_view, double, const void*, size_t, std::string*) { return -1; }
uint64_t Ring::head() const { return 0; }
uint64_t Ring::tail() const { return 0; }
int32_t Ring::maxpkts() const { return 1; }
std::optional<uint64_t> Ring::oldest() const { return {}; }
std::optional<uint64_t> Ring::newest() const { return {}; }
std::optional<uint64_t> Ring::find(int32_t) const { return {}; }
std::optional<uint64_t> Ring::after_time(double) const { return {}; }
uint64_t Ring::next_seq(uint64_t at) const { return at + 1; }
std::optional<uint64_t> Ring::prev_seq(uint64_t) const { return {}; }
bool Ring::entry(uint64_t, Entry*) const { return false; }
bool Ring::read(uint64_t, Entry*, std::vector<char>&, size_t) const { return false; }
bool Ring::view(uint64_t, Entry*, const char**) const { return false; }
bool Ring::still_valid(uint64_t) const { return false; }
bool Ring::wait(uint64_t, int) const { return false; }
void Ring::wake_all() const {}
std::vector<Source> Ring::sources() const { return {}; }
bool Ring::source(int32_t, Source*) const { return false; }
bool Ring::stash_put(std::string_view, double, const void*, size_t, std::string*) { return false; }
bool Ring::stash_get(std::string_view, Entry*, std::vector<char>&) const { return false; }
int32_t Ring::client_add(const Client&) { return -1; }
void Ring::client_remove(int32_t) {}
ClientCounters* Ring::counters(int32_t) { return nullptr; }
void Ring::client_set_select(int32_t, std::string_view) {}
void Ring::client_set_reject(int32_t, std::string_view) {}
std::vector<Client> Ring::clients() { return {}; }
bool Ring::session_active(int32_t) { return false; }
Status Ring::status() const { return {}; }

}  // namespace ring
