#include "studio/http_connections.h"

#include <algorithm>
#include <cerrno>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ostrel_tool {
namespace studio {

namespace {

using Clock = ConnectionStream::Clock;

// The longest single poll: how soon shutdown, and other connections
// starting to wait, are noticed by a waiting connection.
constexpr std::chrono::milliseconds kPollSlice{50};
constexpr size_t kReadBuffer = 16 * 1024;
// How long, and how much, a closing connection's last bytes are read and dropped.
constexpr std::chrono::milliseconds kLinger{200};
constexpr size_t kLingerBytes = 1u << 20;

thread_local ConnectionStream *current_stream = nullptr;

void address_of(int socket, bool peer, std::string &ip, int &port) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    const int got = peer ? ::getpeername(socket, reinterpret_cast<sockaddr *>(&address), &length)
                         : ::getsockname(socket, reinterpret_cast<sockaddr *>(&address), &length);
    ip.clear();
    port = 0;
    if (got != 0) {
        return;
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        const auto *a = reinterpret_cast<const sockaddr_in *>(&address);
        ::inet_ntop(AF_INET, &a->sin_addr, text, sizeof(text));
        port = ntohs(a->sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto *a = reinterpret_cast<const sockaddr_in6 *>(&address);
        ::inet_ntop(AF_INET6, &a->sin6_addr, text, sizeof(text));
        port = ntohs(a->sin6_port);
    }
    ip = text;  // empty for other families (the fuzz target's socket pairs)
}

}  // namespace

// ---------------------------------------------------------------- WorkerPool

WorkerPool::WorkerPool(size_t threads, std::atomic<WorkerPool *> &registry) : registry_(registry) {
    for (size_t i = 0; i < std::max<size_t>(1, threads); ++i) {
        threads_.emplace_back([this] { work(); });
    }
    registry_ = this;
}

WorkerPool::~WorkerPool() {
    if (!threads_.empty()) {
        shutdown();
    }
    registry_ = nullptr;
}

void WorkerPool::enqueue(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back(std::move(job));
        update_waiting();
    }
    ready_.notify_one();
}

void WorkerPool::shutdown() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    ready_.notify_all();
    for (std::thread &t : threads_) {
        t.join();
    }
    threads_.clear();
}

void WorkerPool::work() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ++idle_;
            update_waiting();
            ready_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
            --idle_;
            if (jobs_.empty()) {
                update_waiting();
                return;  // ending, and every connection handed over was served
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
            update_waiting();
        }
        job();
    }
}

void WorkerPool::update_waiting() {
    // Connections no idle worker is about to take: a connection just handed
    // over while a worker waits is not waiting.
    waiting_ = jobs_.size() > idle_ ? jobs_.size() - idle_ : 0;
}

// ---------------------------------------------------------- ConnectionStream

class CurrentConnection {
public:
    explicit CurrentConnection(ConnectionStream &stream) { current_stream = &stream; }
    ~CurrentConnection() { current_stream = nullptr; }
};

ConnectionStream::ConnectionStream(int socket, const ConnectionLimits &limits, std::function<bool()> busy,
                                   std::function<bool()> stopping)
    : socket_(socket), limits_(limits), busy_(std::move(busy)), stopping_(std::move(stopping)), buffer_(kReadBuffer) {}

ConnectionStream *ConnectionStream::current() { return current_stream; }

int ConnectionStream::wait(short events, const std::function<Clock::time_point(Clock::time_point)> &deadline) const {
    for (;;) {
        if (stopping_()) {
            return -1;
        }
        const Clock::time_point now = Clock::now();
        const Clock::time_point until = deadline(now);
        // Bytes already there count even when the time is up: poll once.
        const auto slice = now >= until ? Clock::duration::zero() : std::min<Clock::duration>(until - now, kPollSlice);
        pollfd p{socket_, events, 0};
        const int timeout_ms =
            now >= until ? 0
                         : static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(slice).count()) + 1;
        const int n = ::poll(&p, 1, timeout_ms);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n > 0) {
            // Readable includes the peer's end (recv then gives 0).
            return (p.revents & (events | POLLHUP | POLLERR)) != 0 ? 1 : -1;
        }
        if (now >= until) {
            return 0;
        }
    }
}

bool ConnectionStream::wait_for_request() {
    phase_ = Phase::between;
    if (buffer_start_ < buffer_end_) {
        return true;  // pipelined: the next request is here already
    }
    const Clock::time_point start = Clock::now();
    const Clock::time_point idle_until = start + limits_.idle_timeout;
    // While connections wait for a worker, an idle one gives its worker up:
    // a kept-alive connection between requests at once (closing one that
    // carries no request is always allowed, and browsers open a new one
    // when they need it), a new one whose request has not begun within
    // the head's time under load.
    const Clock::time_point busy_until = first_request_ ? start + limits_.head_timeout_busy : start;
    first_request_ = false;
    const int ready =
        wait(POLLIN, [&](Clock::time_point) { return busy_() ? std::min(busy_until, idle_until) : idle_until; });
    return ready == 1;
}

void ConnectionStream::begin_request() {
    phase_ = Phase::head;
    request_start_ = Clock::now();
    reply_started_ = false;
    head_bytes_ = 0;
    head_end_match_ = 0;
}

Clock::time_point ConnectionStream::read_deadline(Clock::time_point now) const {
    Clock::time_point until = now + limits_.read_timeout;
    if (phase_ == Phase::head) {
        until = std::min(until, request_start_ + (busy_() ? limits_.head_timeout_busy : limits_.head_timeout));
    } else if (phase_ == Phase::body) {
        until = std::min(until, request_start_ + limits_.request_timeout);
    }
    return until;
}

void ConnectionStream::account(const char *data, size_t size) {
    if (phase_ != Phase::head) {
        return;
    }
    static const char end[] = "\r\n\r\n";
    for (size_t i = 0; i < size && phase_ == Phase::head; ++i) {
        ++head_bytes_;
        if (data[i] == end[head_end_match_]) {
            if (++head_end_match_ == 4) {
                phase_ = Phase::body;
            }
        } else {
            head_end_match_ = data[i] == '\r' ? 1 : 0;
        }
    }
}

bool ConnectionStream::is_readable() const {
    if (buffer_start_ < buffer_end_) {
        return true;
    }
    const Clock::time_point start = Clock::now();
    return wait(POLLIN, [&](Clock::time_point) { return read_deadline(start); }) == 1;
}

bool ConnectionStream::is_writable() const {
    const Clock::time_point now = Clock::now();
    Clock::time_point until = now + limits_.write_timeout;
    if (reply_started_) {
        until = std::min(until, reply_start_ + limits_.request_timeout);
    }
    return wait(POLLOUT, [&](Clock::time_point) { return until; }) == 1;
}

ssize_t ConnectionStream::read(char *ptr, size_t size) {
    if (size == 0) {
        return 0;
    }
    if (buffer_start_ == buffer_end_) {
        if (phase_ == Phase::head && head_bytes_ >= limits_.max_head_bytes) {
            must_close_ = true;
            return -1;
        }
        const Clock::time_point start = Clock::now();
        const int ready = wait(POLLIN, [&](Clock::time_point) { return read_deadline(start); });
        if (ready != 1) {
            must_close_ = true;  // too slow, or the server is stopping
            return -1;
        }
        ssize_t n;
        do {
            n = ::recv(socket_, buffer_.data(), buffer_.size(), 0);
        } while (n < 0 && errno == EINTR);
        if (n <= 0) {
            must_close_ = true;
            return n < 0 ? -1 : 0;
        }
        buffer_start_ = 0;
        buffer_end_ = static_cast<size_t>(n);
    }
    size_t n = std::min(size, buffer_end_ - buffer_start_);
    if (phase_ == Phase::head) {
        n = std::min(n, limits_.max_head_bytes - std::min(head_bytes_, limits_.max_head_bytes));
        if (n == 0) {
            must_close_ = true;
            return -1;
        }
    }
    std::copy(buffer_.data() + buffer_start_, buffer_.data() + buffer_start_ + n, ptr);
    account(ptr, n);
    buffer_start_ += n;
    return static_cast<ssize_t>(n);
}

ssize_t ConnectionStream::write(const char *ptr, size_t size) {
    if (!reply_started_) {
        reply_started_ = true;
        reply_start_ = Clock::now();
    }
    if (!is_writable()) {
        must_close_ = true;
        return -1;
    }
    ssize_t n;
    do {
        n = ::send(socket_, ptr, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        must_close_ = true;
    }
    return n;
}

void ConnectionStream::get_remote_ip_and_port(std::string &ip, int &port) const { address_of(socket_, true, ip, port); }

void ConnectionStream::get_local_ip_and_port(std::string &ip, int &port) const { address_of(socket_, false, ip, port); }

// ------------------------------------------------------------- LimitedServer

LimitedServer::LimitedServer(ConnectionLimits limits) : limits_(limits) {
    new_task_queue = [this] { return new WorkerPool(limits_.workers, pool_); };
    // What httplib itself announces in its replies (Keep-Alive: timeout=5, max=100).
    set_keep_alive_timeout(
        std::max<time_t>(1, std::chrono::duration_cast<std::chrono::seconds>(limits_.idle_timeout).count()));
    set_keep_alive_max_count(limits_.max_requests_per_connection);
}

bool LimitedServer::busy() const {
    const WorkerPool *pool = pool_.load();
    return pool != nullptr && pool->waiting() > 0;
}

void LimitedServer::stop_serving() {
    stopping_ = true;
    stop();
}

bool LimitedServer::process_and_close_socket(socket_t sock) {
    serve_connection(sock);
    return true;
}

void LimitedServer::serve_connection(int socket) {
    ConnectionStream stream(
        socket, limits_, [this] { return busy(); }, [this] { return stopping_.load(); });
    bool linger = false;
    for (size_t served = 0; served < limits_.max_requests_per_connection && !stopping_; ++served) {
        if (!stream.wait_for_request()) {
            break;
        }
        stream.begin_request();
        const bool last = served + 1 == limits_.max_requests_per_connection;
        bool closed_by_client = false;
        bool answered;
        {
            const CurrentConnection current(stream);
            answered = process_request(stream, last, closed_by_client, nullptr);
        }
        if (!answered || closed_by_client || stream.must_close()) {
            linger = answered && stream.must_close();
            break;
        }
    }
    // Lingering close: what the peer still sends (a body the reply refused
    // without reading it) is read and dropped for a moment, so that closing
    // with unread bytes does not reset the connection before the peer has
    // read its reply.
    ::shutdown(socket, SHUT_WR);
    const Clock::time_point until = Clock::now() + (linger ? kLinger : Clock::duration::zero());
    char sink[4096];
    size_t drained = 0;
    while (drained < kLingerBytes && Clock::now() < until && !stopping_) {
        pollfd p{socket, POLLIN, 0};
        const int remaining =
            static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count()) + 1;
        if (::poll(&p, 1, std::min(remaining, 50)) <= 0) {
            continue;
        }
        const ssize_t n = ::recv(socket, sink, sizeof(sink), 0);
        if (n <= 0) {
            break;
        }
        drained += static_cast<size_t>(n);
    }
    ::close(socket);
}

}  // namespace studio
}  // namespace ostrel_tool
