#include "ostrel/helper_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ostrel/json.h"
#include "ostrel/policy_coding.h"

namespace ostrel {

namespace {

using ControlProtocol::Call;
using Stream = asio::local::stream_protocol;
using Timer = platform::Queue::Timer;

// ---- What went wrong, in words a user can act on -------------------------------------
// Socket errors become these texts here and nowhere else.

// Whether `error` is the errno value `number`; Asio reports errno in a category of its own.
bool isErrno(const std::error_code &error, int number) {
    return error.value() == number && (error.category() == asio::system_category() ||
                                       error.category() == std::generic_category());
}

std::string connectFailure(const std::string &path, const std::error_code &error) {
    if (isErrno(error, ENOENT)) {
        return "no daemon is listening on " + path +
               " (is it installed and running? see: ostrel helper status)";
    }
    if (isErrno(error, ECONNREFUSED)) {
        return "connection refused on " + path +
               " (the daemon is not running; see: ostrel helper status)";
    }
    return "cannot connect to " + path + ": " + error.message();
}

// The daemon closes a connection without answering when vetting refuses the program on
// this end; once it has answered, a close means it went away (a restart, most likely).
std::string closedText(bool answered) {
    return answered ? "the daemon closed the connection (it may be restarting; try again)"
                    : "the daemon closed the connection without an answer (this program's "
                      "signature was not accepted; see docs/security.md)";
}

std::string lostText(const std::error_code &error, bool answered) {
    if (error == asio::error::eof || isErrno(error, EPIPE) || isErrno(error, ECONNRESET)) {
        return closedText(answered);
    }
    return "the connection to the daemon was lost: " + error.message();
}

const char *const kTimedOutConnection = "the connection was closed after a request got no answer";
const char *const kResetConnection = "the connection was reset before the daemon answered";
const char *const kClosedClient = "the client was closed before the daemon answered";

std::string noAnswerWithin(std::chrono::seconds limit) {
    return "no answer within " + std::to_string(limit.count()) + " s";
}

// A timer that fires once: the queue's repeating timer, which its firing cancels.
std::unique_ptr<Timer> after(platform::Queue &queue, platform::Queue::Duration delay,
                             platform::Queue::Task task) {
    platform::Queue::Duration interval = std::max(delay, platform::Queue::Duration(1'000'000));
    return queue.repeating(delay, interval, platform::Queue::Duration::zero(), std::move(task));
}

// One request in flight.
struct Pending {
    Once once;
    // Completes the request's future from the daemon's reply text (or its absence).
    std::function<void(const std::optional<std::string> &)> answer;
    std::function<void(std::exception_ptr)> fail;
    std::uint64_t connection = 0;  // the connection it went out on; 0 before it did
};

struct Connection {
    Connection(asio::io_context &io, std::uint64_t number) : socket(io), number(number) {}

    Stream::socket socket;
    const std::uint64_t number;
    bool connected = false;
    bool closed = false;
    bool answered = false;
    ReplyReader reader;
    std::array<char, 16384> chunk{};
    std::deque<std::string> outbox;
    bool writing = false;
};

// Whether the daemon has closed a connection that sits idle: a restarted daemon's old
// connection reads as end-of-file, and a request written there would be lost.
bool peerClosed(Connection &connection) {
    char byte = 0;
    return ::recv(connection.socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

}  // namespace

// ---- ReplyReader, decodePolicies -----------------------------------------------------

ReplyReader::Result ReplyReader::feed(std::string_view bytes) {
    Result result;
    for (;;) {
        std::size_t newline = bytes.find('\n');
        std::size_t length = newline == std::string_view::npos ? bytes.size() : newline;
        if (partial_.size() + length > ControlProtocol::maxLineBytes) {
            partial_.clear();
            result.error =
                "a line longer than " + std::to_string(ControlProtocol::maxLineBytes) + " bytes";
            return result;
        }
        partial_.append(bytes.substr(0, length));
        if (newline == std::string_view::npos) {
            return result;
        }
        std::optional<ControlProtocol::Reply> reply = ControlProtocol::parseReply(partial_);
        partial_.clear();
        if (!reply) {
            result.error = "a line that is not a reply";
            return result;
        }
        result.replies.push_back(std::move(*reply));
        bytes.remove_prefix(newline + 1);
    }
}

PolicyMap decodePolicies(std::string_view text) {
    PolicyMap policies;
    for (auto &[key, policy] : PolicyCoding::decodeMap(text)) {
        std::optional<std::int64_t> fan = PolicyCoding::fanIndex(key);
        if (!fan) {
            throw DecodingError(DecodingError::Kind::dataCorrupted,
                                "Invalid fan index " + Json(key).dump() + " (expected 0, 1, ...).");
        }
        policies.emplace(*fan, std::move(policy));
    }
    return policies;
}

// ---- The client's state --------------------------------------------------------------

struct HelperClient::WaitState {
    bool expired = false;  // the deadline fired before the wait was decided
    bool decided = false;  // the wait saw its result in time
    std::unique_ptr<Timer> timer;
};

struct HelperClient::State : std::enable_shared_from_this<State> {
    State(std::string path, platform::Queue &queue)
        : socketPath(std::move(path)), deadlines(queue) {}

    const std::string socketPath;
    platform::Queue &deadlines;

    // Guards requests, timers and nextId; never held while waiting or calling out.
    mutable std::mutex lock;
    std::map<std::int64_t, std::shared_ptr<Pending>> requests;
    std::map<std::int64_t, std::unique_ptr<Timer>> timers;  // deadlines that have not fired
    std::int64_t nextId = 1;

    // blocking() waits on `settled`, which every finished request notifies.
    std::mutex waitLock;
    std::condition_variable settled;

    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
    std::thread thread;
    // The connection thread's own; declared after `io` so it goes first.
    std::shared_ptr<Connection> current;
    std::uint64_t connections = 0;

    void start() {
        thread = std::thread([this] { io.run(); });
    }

    // Ends the connection thread, then finishes what is left and cancels the timers.
    void stop() {
        work.reset();
        io.stop();
        thread.join();
        if (current) {
            std::error_code ignored;
            current->socket.close(ignored);
            current.reset();
        }
        std::map<std::int64_t, std::shared_ptr<Pending>> left;
        std::map<std::int64_t, std::unique_ptr<Timer>> armed;
        {
            std::lock_guard guard(lock);
            left.swap(requests);
            armed.swap(timers);
        }
        for (auto &[id, pending] : left) {
            finish(*pending, FanControlError::helperUnavailable(kClosedClient));
        }
    }

    void notifySettled() {
        { std::lock_guard guard(waitLock); }
        settled.notify_all();
    }

    void finish(Pending &pending, const std::optional<std::string> &reply) {
        if (pending.once([&] { pending.answer(reply); })) {
            notifySettled();
        }
    }
    bool finish(Pending &pending, const FanControlError &error) {
        bool ran = pending.once([&] { pending.fail(std::make_exception_ptr(error)); });
        if (ran) {
            notifySettled();
        }
        return ran;
    }

    std::shared_ptr<Pending> take(std::int64_t id) {
        std::lock_guard guard(lock);
        auto it = requests.find(id);
        if (it == requests.end()) {
            return nullptr;
        }
        std::shared_ptr<Pending> pending = std::move(it->second);
        requests.erase(it);
        return pending;
    }

    template <class T>
    std::future<T> submit(ControlProtocol::Request request, std::chrono::seconds limit,
                          std::function<T(const std::optional<std::string> &)> interpret) {
        auto promise = std::make_shared<std::promise<T>>();
        std::future<T> future = promise->get_future();
        auto pending = std::make_shared<Pending>();
        pending->answer = [promise, interpret](const std::optional<std::string> &reply) {
            try {
                if constexpr (std::is_void_v<T>) {
                    interpret(reply);
                    promise->set_value();
                } else {
                    promise->set_value(interpret(reply));
                }
            } catch (...) {
                promise->set_exception(std::current_exception());
            }
        };
        pending->fail = [promise](std::exception_ptr error) { promise->set_exception(error); };
        std::vector<std::unique_ptr<Timer>> spent;  // cancelled here, on a requesting thread
        {
            std::lock_guard guard(lock);
            request.id = nextId++;
            requests.emplace(request.id, pending);
            // The deadlines of requests that finished otherwise, so that a busy client
            // keeps no more timers than it has requests in flight.
            for (auto it = timers.begin(); it != timers.end();) {
                if (requests.contains(it->first)) {
                    ++it;
                } else {
                    spent.push_back(std::move(it->second));
                    it = timers.erase(it);
                }
            }
        }
        std::int64_t id = request.id;
        auto timer = after(deadlines, limit, [weak = weak_from_this(), id, limit] {
            if (auto self = weak.lock()) {
                self->expire(id, noAnswerWithin(limit));
            }
        });
        {
            std::lock_guard guard(lock);
            timers.emplace(id, std::move(timer));
        }
        asio::post(io,
                   [this, id, line = ControlProtocol::requestLine(request)] { send(id, line); });
        return future;
    }

    // A request's deadline, on the deadlines queue. Also cancels the timer, which fires
    // once more if it went off before its handle was stored.
    void expire(std::int64_t id, const std::string &message) {
        std::unique_ptr<Timer> timer;
        std::shared_ptr<Pending> pending;
        std::uint64_t connection = 0;
        {
            std::lock_guard guard(lock);
            if (auto it = timers.find(id); it != timers.end()) {
                timer = std::move(it->second);
                timers.erase(it);
            }
            if (auto it = requests.find(id); it != requests.end()) {
                pending = std::move(it->second);
                requests.erase(it);
                connection = pending->connection;
            }
        }
        if (pending && finish(*pending, FanControlError::helperUnavailable(message))) {
            // A late answer could still be on its way; the connection goes with it.
            asio::post(io, [this, connection] { drop(connection, kTimedOutConnection); });
        }
    }

    // ---- On the connection thread ----

    void send(std::int64_t id, const std::string &line) {
        std::shared_ptr<Pending> pending;
        {
            std::lock_guard guard(lock);
            auto it = requests.find(id);
            if (it == requests.end()) {
                return;  // finished before it went out
            }
            pending = it->second;
        }
        if (current && current->connected && peerClosed(*current)) {
            fail(current, closedText(current->answered));
        }
        if (!current) {
            open();
        }
        {
            std::lock_guard guard(lock);
            pending->connection = current->number;
        }
        current->outbox.push_back(line);
        writeNext(current);
    }

    void open() {
        auto connection = std::make_shared<Connection>(io, ++connections);
        current = connection;
        if (socketPath.size() >= sizeof(sockaddr_un::sun_path)) {
            asio::post(io, [this, connection] {
                connected(connection, std::make_error_code(std::errc::filename_too_long));
            });
            return;
        }
        connection->socket.async_connect(
            Stream::endpoint(socketPath),
            [this, connection](const std::error_code &error) { connected(connection, error); });
    }

    void connected(const std::shared_ptr<Connection> &connection, const std::error_code &error) {
        if (connection->closed) {
            return;
        }
        if (error) {
            fail(connection, connectFailure(socketPath, error));
            return;
        }
        connection->connected = true;
        read(connection);
        writeNext(connection);
    }

    void read(const std::shared_ptr<Connection> &connection) {
        connection->socket.async_read_some(
            asio::buffer(connection->chunk),
            [this, connection](const std::error_code &error, std::size_t size) {
                if (connection->closed) {
                    return;
                }
                if (error) {
                    fail(connection, lostText(error, connection->answered));
                    return;
                }
                ReplyReader::Result result =
                    connection->reader.feed(std::string_view(connection->chunk.data(), size));
                for (const ControlProtocol::Reply &reply : result.replies) {
                    connection->answered = true;
                    deliver(*connection, reply);
                }
                if (result.error) {
                    fail(connection, "the daemon sent " + *result.error);
                    return;
                }
                read(connection);
            });
    }

    void deliver(const Connection &connection, const ControlProtocol::Reply &reply) {
        std::shared_ptr<Pending> pending;
        {
            std::lock_guard guard(lock);
            auto it = requests.find(reply.id);
            // Unknown ids are answers to requests that already finished: ignored.
            if (it == requests.end() || it->second->connection != connection.number) {
                return;
            }
            pending = std::move(it->second);
            requests.erase(it);
        }
        finish(*pending, reply.text);
    }

    void writeNext(const std::shared_ptr<Connection> &connection) {
        if (!connection->connected || connection->writing || connection->outbox.empty()) {
            return;
        }
        connection->writing = true;
        asio::async_write(connection->socket, asio::buffer(connection->outbox.front()),
                          [this, connection](const std::error_code &error, std::size_t) {
                              connection->writing = false;
                              if (connection->closed) {
                                  return;
                              }
                              if (error) {
                                  fail(connection, lostText(error, connection->answered));
                                  return;
                              }
                              connection->outbox.pop_front();
                              writeNext(connection);
                          });
    }

    // Closes `connection`, finishing every request that went out on it with `reason`.
    // (By value: `current` itself may be the argument, and it is reset here.)
    void fail(std::shared_ptr<Connection> connection, const std::string &reason) {
        connection->closed = true;
        std::error_code ignored;
        connection->socket.close(ignored);
        if (current == connection) {
            current.reset();
        }
        std::vector<std::shared_ptr<Pending>> lost;
        {
            std::lock_guard guard(lock);
            for (auto it = requests.begin(); it != requests.end();) {
                if (it->second->connection == connection->number) {
                    lost.push_back(std::move(it->second));
                    it = requests.erase(it);
                } else {
                    ++it;
                }
            }
        }
        FanControlError error = FanControlError::helperUnavailable(reason);
        for (const std::shared_ptr<Pending> &pending : lost) {
            finish(*pending, error);
        }
    }

    // Drops the current connection if it is connection `number` (0: whichever it is).
    void drop(std::uint64_t number, const std::string &reason) {
        if (current && (number == 0 || current->number == number)) {
            fail(current, reason);
        }
    }
};

// ---- HelperClient --------------------------------------------------------------------

HelperClient::HelperClient(std::string socketPath, platform::Queue &deadlines)
    : state_(std::make_shared<State>(std::move(socketPath), deadlines)) {
    state_->start();
}

HelperClient::~HelperClient() {
    state_->stop();
}

std::future<std::string> HelperClient::version() {
    return state_->submit<std::string>(
        {0, Call::version, 0, {}}, versionLimit, [](const std::optional<std::string> &reply) {
            if (!reply) {
                throw FanControlError::helperUnavailable("the daemon sent an empty version");
            }
            return *reply;
        });
}

std::future<void> HelperClient::setPolicy(const FanPolicy &policy, std::int64_t fan) {
    return state_->submit<void>({0, Call::setPolicy, fan, PolicyCoding::encode(policy)},
                                setPolicyLimit, [](const std::optional<std::string> &reply) {
                                    if (reply) {
                                        throw FanControlError::helper(*reply);
                                    }
                                });
}

std::future<PolicyMap> HelperClient::policies() {
    return state_->submit<PolicyMap>(
        {0, Call::policies, 0, {}}, policiesLimit, [](const std::optional<std::string> &reply) {
            if (!reply) {
                throw FanControlError::helperUnavailable("the daemon sent no policies");
            }
            return decodePolicies(*reply);
        });
}

void HelperClient::reset() {
    State *state = state_.get();
    asio::post(state->io, [state] { state->drop(0, kResetConnection); });
}

std::size_t HelperClient::inFlight() const {
    std::lock_guard guard(state_->lock);
    return state_->requests.size();
}

// ---- blocking ------------------------------------------------------------------------

HelperClient::Wait HelperClient::startWait(double timeoutSeconds) {
    // 2^63 seconds: beyond it the whole seconds of the message would not fit.
    if (!std::isfinite(timeoutSeconds) || timeoutSeconds < 0 || timeoutSeconds >= 0x1p63) {
        throw std::invalid_argument(
            "a time limit must be a finite, non-negative number of "
            "seconds within the 64-bit range");
    }
    std::string message =
        "timed out after " + std::to_string(static_cast<std::int64_t>(timeoutSeconds)) + "s";
    // Timers count in 64-bit nanoseconds; a century is as good as forever here.
    double capped = std::min(timeoutSeconds, 100.0 * 365 * 24 * 3600);
    auto limit = std::chrono::duration_cast<platform::Queue::Duration>(
        std::chrono::duration<double>(capped));
    auto wait = std::make_shared<WaitState>();
    auto timer = after(state_->deadlines, limit, [weak = std::weak_ptr(state_), wait] {
        std::unique_ptr<Timer> mine;
        if (auto state = weak.lock()) {
            {
                std::lock_guard guard(state->waitLock);
                wait->expired = !wait->decided;
                mine = std::move(wait->timer);
            }
            state->settled.notify_all();
        }
    });
    {
        std::lock_guard guard(state_->waitLock);
        wait->timer = std::move(timer);
    }
    return Wait(state_, std::move(wait), std::move(message));
}

HelperClient::Wait::Wait(std::shared_ptr<State> state, std::shared_ptr<WaitState> wait,
                         std::string message)
    : state_(std::move(state)), wait_(std::move(wait)), message_(std::move(message)) {}

HelperClient::Wait::~Wait() {
    if (!wait_) {
        return;
    }
    std::unique_ptr<Timer> timer;
    {
        std::lock_guard guard(state_->waitLock);
        timer = std::move(wait_->timer);
    }
}

void HelperClient::Wait::until(const std::function<bool()> &ready) {
    std::unique_lock guard(state_->waitLock);
    state_->settled.wait(guard, [&] { return wait_->expired || ready(); });
    if (wait_->expired) {
        throw FanControlError::helperUnavailable(message_);
    }
    wait_->decided = true;
}

}  // namespace ostrel
