// The request-handling core shared by orbserver (TCP, many clients) and
// forbserver (one client on its standard input and output).
//
// One thread runs an epoll loop over the listening socket, every client and a
// wake-up descriptor; it decodes requests with the protocol decoders, answers
// with the encoders and pushes streamed packets as they arrive. Output is
// written without blocking and buffered per client, so a slow or stalled client
// never holds up the others; while a client's output is backed up its input is
// not read. A second thread sleeps on the ring's wait (a futex) only while some
// client is streaming and has caught up, and wakes the loop when a packet is
// appended by any process. An idle front end uses no CPU.
//
// Nothing a client sends can stop the loop: bad requests get error results,
// garbage is skipped up to the next "orbm" marker (a client that keeps sending
// garbage is dropped), over-long lengths and stalled requests drop the client.
#pragma once

#include <memory>
#include <string>

#include "ring/store.h"
#include "settings.h"

class StatusBoard;

// Opens the ring file, creating it with the settings' geometry when it does
// not exist. Null with *why set when the file is unusable (it is never
// replaced silently).
std::unique_ptr<ring::RingStore> open_ring(const std::string& path, const Settings& s, std::string* why);

// Reads the settings for a front end from argv (options and the parameter
// file they name) as both programs take them. Returns the ring path, or "" with
// *why set (an empty *why after "" means usage).
std::string front_end_args(int argc, char** argv, const char* optstring, Settings& s, std::string* why);

class Frontend {
public:
    // name: the ring as the log and the status page call it.
    Frontend(const Settings& settings, std::unique_ptr<ring::RingStore> ring, std::string name);
    ~Frontend();
    Frontend(const Frontend&) = delete;
    Frontend& operator=(const Frontend&) = delete;

    // Binds and listens on settings.bind_address:settings.port (0: any free
    // port), logs the address and writes it to settings.port_file if given.
    // "" on success, else why not.
    std::string listen_tcp();
    int port() const { return port_; }

    // Serves one client on in/out (forbserver); the loop ends when it leaves.
    void add_stdio_client(int in, int out);

    // Runs until stop(), ORBHALT, SIGTERM/SIGINT (after install_signal_handlers)
    // or, with a stdio client, its departure. Returns the exit status.
    int run();
    void stop();

    // Answers the board's requests for a status snapshot from the loop (once
    // per pass, only when asked), until the Frontend is destroyed; the board
    // must not wake it after that.
    void publish_status(std::shared_ptr<StatusBoard> board);

    // SIGTERM and SIGINT end run() cleanly; SIGPIPE is ignored.
    static void install_signal_handlers();

    double server_start() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = -1;
};
