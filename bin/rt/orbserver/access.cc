// What a client may do: rights by address, and the challenge of a signed open.
#include <cstring>

#include "frontend_impl.h"
#include "stock/elog.h"

using namespace fe;

bool Frontend::Impl::check_rights(Client& c, int what, bool right, const char* action) {
    if (right) return true;
    send_error(c, what, std::string("address ") + addr_text(c.addr) + " may not " + action);
    rejected++;
    elog_complain(0, "refused %s from %s:%d: not allowed to %s\n", orbreq2name(what),
                  c.host.c_str(), c.port, action);
    return false;
}

void Frontend::Impl::refuse_open(Client& c, Orbrequest* q, const std::string& why) {
    rejected++;
    std::string by = q->what == ORBSIGNEDOPEN ? std::string("signer '") + q->signer + "'" : "unsigned";
    elog_complain(0, "refused %s from %s:%d (%s): %s\n", orbreq2name(q->what), c.host.c_str(), c.port,
                  by.c_str(), why.c_str());
    send_error(c, q->what, why);
    c.closing = !c.opened;  // a session already open keeps what it had
}

void Frontend::Impl::handle_challenge(Client& c, Orbrequest* q) {
    if (!auth || !auth->issue(c.challenge, monotonic())) {
        send_error(c, q->what, "signed opens are not supported by this server");
        return;
    }
    std::memcpy(start(c, q->what)->challenge, c.challenge.bytes, ORB_CHALLENGE_SIZE);
    finish(c);
}
