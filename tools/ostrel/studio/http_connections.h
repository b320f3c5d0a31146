// How the studio's HTTP server spends its worker threads on connections.
//
// cpp-httplib (0.11, Debian's) gives every connection a worker thread for
// as long as the connection lasts, waits 5 s on an idle kept-alive one, and
// has no limit on the time a request's head may take: 8 idle connections
// (two browser tabs) made every other request wait 5 s, and 8 connections
// sending one header line every 2 s froze the studio for as long as they
// went on. Its connection loop is replaced here (everything else, parsing
// and routing included, is still httplib's):
//   - a connection waits for its next request at most idle_timeout, and not
//     at all while other connections wait for a worker;
//   - a request's head (request line and headers) must arrive within
//     head_timeout of its first byte, or head_timeout_busy while other
//     connections wait, and may hold at most max_head_bytes;
//   - a whole request, body included, must arrive within request_timeout,
//     and no read may wait longer than read_timeout; a reply must be taken
//     within request_timeout too, each wait for room at most write_timeout;
//   - a connection whose request broke one of these rules is closed after
//     its reply.
// The numbers are in ConnectionLimits, with the reasons for them.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <httplib.h>

namespace ostrel_tool {
namespace studio {

struct ConnectionLimits {
    // Worker threads, each serving one connection at a time. A browser keeps
    // up to 6 connections to the studio, so 16 serve two or three browsers
    // and a script at once with room to spare; an idle worker costs a
    // sleeping thread. The engine takes one request at a time whatever the
    // count, and the memory a request may take is bounded on its own, so
    // more workers would buy nothing but more waiting threads.
    size_t workers = 16;
    // An idle connection waits this long for its next request (httplib's
    // and browsers' usual 5 s: the page's requests come in bursts, a slider
    // move, a picture opened); it is closed at once when another connection
    // is waiting for a worker.
    std::chrono::milliseconds idle_timeout{5000};
    // A request's line and headers come in one packet from any browser or
    // script: 10 s is ample on a loaded machine, 1 s when others wait.
    std::chrono::milliseconds head_timeout{10000};
    std::chrono::milliseconds head_timeout_busy{1000};
    size_t max_head_bytes = 64 * 1024;
    // Silence within a request, and a whole request with its body (and a
    // whole reply): a 32 MiB picture at 1 MB/s (a slow network, --host)
    // takes half of it.
    std::chrono::milliseconds read_timeout{5000};
    std::chrono::milliseconds request_timeout{60000};
    // A reply the peer does not take (each wait for room to send).
    std::chrono::milliseconds write_timeout{5000};
    // Requests on one connection before it is closed.
    size_t max_requests_per_connection = 100;
};

// The workers: httplib hands each accepted connection to enqueue(). Knows
// how many connections wait for a worker, which is when idle connections
// and slow request heads give theirs up.
class WorkerPool : public httplib::TaskQueue {
public:
    // Names itself in `registry` for as long as it lives (httplib owns and
    // ends the pool when listening ends).
    WorkerPool(size_t threads, std::atomic<WorkerPool *> &registry);
    ~WorkerPool() override;
    void enqueue(std::function<void()> job) override;
    void shutdown() override;
    // Connections handed over that no idle worker is about to take.
    size_t waiting() const { return waiting_.load(); }

private:
    void work();
    void update_waiting();  // with mutex_ held

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> jobs_;
    std::atomic<size_t> waiting_{0};
    size_t idle_ = 0;
    bool ending_ = false;
    std::atomic<WorkerPool *> &registry_;
    std::vector<std::thread> threads_;
};

// One connection's byte stream for httplib, with the limits above.
class ConnectionStream : public httplib::Stream {
public:
    using Clock = std::chrono::steady_clock;

    // busy() tells whether other connections wait for a worker; stopping()
    // whether the server is shutting down (every wait then ends at once).
    ConnectionStream(int socket, const ConnectionLimits &limits, std::function<bool()> busy,
                     std::function<bool()> stopping);

    // Waits for the first byte of the next request. False when the
    // connection is closed, idle for too long, or its worker is wanted.
    bool wait_for_request();
    // The next bytes belong to a new request's head.
    void begin_request();
    // The connection must be closed after this reply: its request broke a
    // limit, or its body was left unread.
    bool must_close() const { return must_close_; }
    void close_after_reply() { must_close_ = true; }

    // The stream of the request the calling thread serves (null outside
    // one): lets a handler ask for the connection to be closed.
    static ConnectionStream *current();

    bool is_readable() const override;
    bool is_writable() const override;
    ssize_t read(char *ptr, size_t size) override;
    ssize_t write(const char *ptr, size_t size) override;
    void get_remote_ip_and_port(std::string &ip, int &port) const override;
    void get_local_ip_and_port(std::string &ip, int &port) const override;
    int socket() const override { return socket_; }

private:
    friend class CurrentConnection;
    enum class Phase { between, head, body };

    // The time the current wait for bytes must end.
    Clock::time_point read_deadline(Clock::time_point now) const;
    // Polls for `events` until ready (1), the deadline (0) or an error (-1),
    // in short slices so that shutdown and the head deadline under load are
    // noticed.
    int wait(short events, const std::function<Clock::time_point(Clock::time_point)> &deadline) const;
    void account(const char *data, size_t size);  // head bytes and its end

    int socket_;
    const ConnectionLimits &limits_;
    std::function<bool()> busy_;
    std::function<bool()> stopping_;
    std::vector<char> buffer_;
    size_t buffer_start_ = 0;
    size_t buffer_end_ = 0;
    Phase phase_ = Phase::between;
    Clock::time_point request_start_;
    bool reply_started_ = false;
    Clock::time_point reply_start_;
    size_t head_bytes_ = 0;
    int head_end_match_ = 0;  // how much of "\r\n\r\n" the last head bytes matched
    bool must_close_ = false;
    bool first_request_ = true;
};

// httplib's server with the connection loop above. serve_connection() is
// public so that the fuzz target can drive a connection it made itself.
class LimitedServer : public httplib::Server {
public:
    explicit LimitedServer(ConnectionLimits limits);
    const ConnectionLimits &limits() const { return limits_; }

    // Serves the requests of one connection, then closes the socket.
    void serve_connection(int socket);
    // Ends every wait at once and stops listening.
    void stop_serving();

private:
    bool process_and_close_socket(socket_t sock) override;
    bool busy() const;

    ConnectionLimits limits_;
    std::atomic<WorkerPool *> pool_{nullptr};
    std::atomic<bool> stopping_{false};
};

}  // namespace studio
}  // namespace ostrel_tool
