// orbserver's status over HTTP, on a port of its own:
//   GET /status.json  the status document (status::status_json)
//   GET /metrics      the same as Prometheus text (metrics.h)
//   GET /             the same as an HTML page (page.h)
// Other paths get 404, other methods 405; requests that are malformed or
// larger than a few kilobytes are refused by the HTTP library with a 4xx
// status, and a client that sends or reads too slowly is dropped after a
// time-out. Connections from addresses outside the allow list (orbserver's
// read_allow) are refused at accept.
//
// The HTTP library runs its own thread; pages are made from a snapshot taken
// from the StatusBoard, never from the ring-serving loop directly, and a
// snapshot's pages are rendered once however many clients ask for them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "board.h"
#include "settings.h"

class StatusServer {
public:
    StatusServer(std::shared_ptr<StatusBoard> board, std::vector<Cidr> allow);
    ~StatusServer();  // stops serving; after it returns the board is not used
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    // Listens on address:port (IPv4; port 0 picks a free one). "" on
    // success, else why not.
    std::string start(const std::string& address, int port);
    int port() const { return port_; }

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
    int port_ = -1;
};
