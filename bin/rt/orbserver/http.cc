#include "http.h"

#include <arpa/inet.h>
#include <microhttpd.h>

#include <cstring>

#include "metrics.h"
#include "page.h"

namespace {

constexpr double kMaxAge = 0.5;          // seconds a snapshot serves every client
constexpr double kPatience = 2.0;        // seconds to wait for the loop's snapshot
constexpr unsigned kTimeout = 10;        // seconds a connection may sit idle
constexpr unsigned kConnections = 128;   // HTTP clients at once
constexpr unsigned kPerAddress = 32;     // of which from one address
constexpr size_t kRequestBytes = 16384;  // request line and headers, per connection

struct Page {
    std::string type, body;
};

}  // namespace

struct StatusServer::Impl {
    std::shared_ptr<StatusBoard> board;
    std::vector<Cidr> allow;
    MHD_Daemon* daemon = nullptr;

    // Pages of the last snapshot, rendered on first demand. Only the
    // library's one thread touches them.
    StatusBoard::Ptr shown;
    nlohmann::json doc;
    std::string json_text, metrics, html;

    static MHD_Result accept_policy(void* cls, const sockaddr* addr, socklen_t len) {
        auto* m = static_cast<Impl*>(cls);
        if (!addr || addr->sa_family != AF_INET || len < socklen_t(sizeof(sockaddr_in))) return MHD_NO;
        uint32_t a = ntohl(reinterpret_cast<const sockaddr_in*>(addr)->sin_addr.s_addr);
        return cidr_allows(m->allow, a) ? MHD_YES : MHD_NO;
    }

    static MHD_Result answer(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*,
                             const char*, size_t* upload_size, void**) {
        auto* m = static_cast<Impl*>(cls);
        if (std::strcmp(method, "GET") != 0 && std::strcmp(method, "HEAD") != 0) {
            *upload_size = 0;
            return m->reply(conn, MHD_HTTP_METHOD_NOT_ALLOWED, {"text/plain; charset=utf-8", "only GET\n"});
        }
        return m->reply(conn, url);
    }

    MHD_Result reply(MHD_Connection* conn, const char* url) {
        std::string path = url ? url : "";
        if (path != "/" && path != "/status.json" && path != "/metrics")
            return reply(conn, MHD_HTTP_NOT_FOUND, {"text/plain; charset=utf-8", "no such page: try /, "
                                                                                  "/status.json or /metrics\n"});
        StatusBoard::Ptr snap = board->fresh(kMaxAge, kPatience);
        if (!snap)
            return reply(conn, MHD_HTTP_SERVICE_UNAVAILABLE, {"text/plain; charset=utf-8", "no status yet\n"});
        if (snap != shown) {
            shown = snap;
            doc = status::status_json(*snap);
            json_text.clear(), metrics.clear(), html.clear();
        }
        if (path == "/status.json") {
            if (json_text.empty())
                json_text = doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
            return reply(conn, MHD_HTTP_OK, {"application/json", json_text});
        }
        if (path == "/metrics") {
            if (metrics.empty()) metrics = metrics_text(doc);
            return reply(conn, MHD_HTTP_OK, {"text/plain; version=0.0.4; charset=utf-8", metrics});
        }
        if (html.empty()) html = status_page(doc);
        return reply(conn, MHD_HTTP_OK, {"text/html; charset=utf-8", html});
    }

    MHD_Result reply(MHD_Connection* conn, unsigned code, const Page& page) {
        MHD_Response* r = MHD_create_response_from_buffer(page.body.size(), const_cast<char*>(page.body.data()),
                                                          MHD_RESPMEM_MUST_COPY);
        if (!r) return MHD_NO;
        MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, page.type.c_str());
        MHD_add_response_header(r, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
        if (code == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        MHD_Result ok = MHD_queue_response(conn, code, r);
        MHD_destroy_response(r);
        return ok;
    }
};

StatusServer::StatusServer(std::shared_ptr<StatusBoard> board, std::vector<Cidr> allow)
    : impl_(std::make_unique<Impl>()) {
    impl_->board = std::move(board);
    impl_->allow = std::move(allow);
}

StatusServer::~StatusServer() {
    if (impl_->daemon) MHD_stop_daemon(impl_->daemon);
}

std::string StatusServer::start(const std::string& address, int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    if (inet_pton(AF_INET, address.c_str(), &sa.sin_addr) != 1) return "bad HTTP address '" + address + "'";
    Impl* m = impl_.get();
    m->daemon = MHD_start_daemon(
        MHD_USE_AUTO_INTERNAL_THREAD, uint16_t(port), &Impl::accept_policy, m, &Impl::answer, m,
        MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&sa), MHD_OPTION_CONNECTION_TIMEOUT, kTimeout,
        MHD_OPTION_CONNECTION_LIMIT, kConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT, kPerAddress,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kRequestBytes, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
    if (!m->daemon)
        return "can't serve HTTP on " + address + ":" + std::to_string(port) + ": " + std::strerror(errno);
    const MHD_DaemonInfo* info = MHD_get_daemon_info(m->daemon, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info ? info->port : port;
    return "";
}
