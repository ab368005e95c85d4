// The stash and the client table of a RingStore kept in a ring file: the
// file store's own file, or a private one beside a store that has no such
// tables of its own. Derived stores supply the ring through tables().
#pragma once

#include "ring/store.h"

namespace ring {

class TablesInRing : public RingStore {
public:
    bool stash_put(std::string_view srcname, double time, const void* data, size_t size,
                   std::string* why) override {
        return tables().stash_put(srcname, time, data, size, why);
    }
    bool stash_get(std::string_view srcname, Entry* e, std::vector<char>& buf) const override {
        return tables().stash_get(srcname, e, buf);
    }

    int32_t client_add(const Client& c) override { return tables().client_add(c); }
    void client_remove(int32_t slot) override { tables().client_remove(slot); }
    ClientCounters* counters(int32_t slot) override { return tables().counters(slot); }
    void client_set_select(int32_t slot, std::string_view p) override { tables().client_set_select(slot, p); }
    void client_set_reject(int32_t slot, std::string_view p) override { tables().client_set_reject(slot, p); }
    std::vector<Client> clients() override { return tables().clients(); }
    bool session_active(int32_t thread) override { return tables().session_active(thread); }

protected:
    virtual Ring& tables() const = 0;
};

}  // namespace ring
