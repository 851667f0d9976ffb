// The client side of the control protocol: one connection to the daemon's socket, and the
// three requests as asynchronous operations that always finish, within a fixed time, with
// a result or a FanControlError whose message a person can act on.
//
//     platform::SerialQueue deadlines("dev.ostrel.client.deadlines", nullptr);
//     HelperClient client(HelperConstants::socketPath(paths), deadlines);
//     std::string version = client.blocking(5, [](HelperClient &c) { return c.version(); });
//
// The connection is made lazily by the first request, replaced after any error, close or
// time-out, and never shared between clients. Several requests may be in flight on it;
// each reply carries its request's id. Every request finishes exactly once: by its reply,
// by the failure of its connection, by its time-out, or by reset() or the destructor,
// whichever comes first (`Once`); later completions do nothing, so a reply arriving after
// its request timed out is ignored. A time-out always costs the connection, so the next
// request connects afresh.
//
// Threads: the connection lives on an Asio io_context run by a thread of the client's own.
// Time limits are timers on the `deadlines` queue, so they fire on that queue's thread and
// follow its clock (a ManualQueue in tests). The client touches the queue only on the
// threads that make requests or call blocking (arming timers, and cancelling those of
// requests that have finished), in the queue's own work, and in its destructor; a
// single-threaded queue therefore works when those calls are made on the thread that
// drives it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/control_protocol.h"
#include "ostrel/fan_policy.h"
#include "ostrel/platform/serial_queue.h"

namespace ostrel {

// Makes the first of several competing completions of one request win: each completion
// path runs its action through the same Once, and only the first action runs. Safe from
// any thread; the action runs under the Once's lock, so it must not wait for another
// completion of the same request.
class Once {
  public:
    // Runs `action` unless an action ran on this object before; returns whether it ran.
    template <class Action>
    bool operator()(Action &&action) {
        std::lock_guard guard(lock_);
        if (done_) {
            return false;
        }
        done_ = true;
        action();
        return true;
    }
    bool done() const {
        std::lock_guard guard(lock_);
        return done_;
    }

  private:
    mutable std::mutex lock_;
    bool done_ = false;
};

// The daemon's byte stream cut into replies. Bounded: a line longer than
// ControlProtocol::maxLineBytes is an error as soon as that many bytes arrived without a
// newline, so a daemon can never make the client hold more. Not thread-safe.
class ReplyReader {
  public:
    struct Result {
        std::vector<ControlProtocol::Reply> replies;  // in the order they arrived
        // Set when the stream cannot go on: a line that is not a reply, or one too long.
        // The replies before it are still in `replies`.
        std::optional<std::string> error;
    };
    // Adds bytes as they came off the socket and returns the replies they complete.
    Result feed(std::string_view bytes);
    // Bytes of an unfinished line held.
    std::size_t buffered() const { return partial_.size(); }

  private:
    std::string partial_;
};

// The policies reply: a JSON object of policies keyed by fan index in decimal. Throws
// DecodingError when the text is not that, or a key is not a canonical fan index.
PolicyMap decodePolicies(std::string_view text);

class HelperClient {
  public:
    // Time limits of the requests; on expiry the request fails with helperUnavailable
    // "no answer within 3 s" (version, policies) or "no answer within 10 s" (setPolicy).
    static constexpr std::chrono::seconds versionLimit{3};
    static constexpr std::chrono::seconds setPolicyLimit{10};
    static constexpr std::chrono::seconds policiesLimit{3};

    // Connects (lazily) to the daemon's socket at `socketPath`. `deadlines` fires the time
    // limits and must outlive the client. Starts the client's connection thread.
    HelperClient(std::string socketPath, platform::Queue &deadlines);
    // Finishes every request still in flight with helperUnavailable, closes the connection,
    // cancels the client's timers and joins its thread. Must not run on the connection
    // thread or inside the client's own timer work.
    ~HelperClient();
    HelperClient(const HelperClient &) = delete;
    HelperClient &operator=(const HelperClient &) = delete;

    // The requests. Callable from any thread; each returns at once. The futures hold the
    // result or a FanControlError:
    //   helperUnavailable: no socket ("no daemon is listening on ..."), nobody accepting
    //     ("connection refused on ..."), a connection closed without an answer (this
    //     program's signature was not accepted), a lost connection, or the time limit;
    //   helper: what the daemon said, unchanged (a refused policy: "no fan with id 7").
    // A reply that cannot be understood is helperUnavailable too; a policies reply that is
    // not a map of policies is the decoder's DecodingError.

    // The daemon's version, "1/1.1.13".
    std::future<std::string> version();
    // Sets the policy of fan `fan` (-1: every fan). Succeeds once the daemon accepted it.
    std::future<void> setPolicy(const FanPolicy &policy, std::int64_t fan);
    // Every fan with a policy other than auto.
    std::future<PolicyMap> policies();

    // Drops the current connection; its requests in flight fail with helperUnavailable
    // and the next request connects afresh. Callable from any thread.
    void reset();

    // Runs `operation` (which makes one of this client's requests and returns its future)
    // and waits for its result on the calling thread, for at most `timeoutSeconds`: returns
    // the value, rethrows the request's error, or throws helperUnavailable "timed out after
    // Ns" with N the limit in whole seconds (2.9 gives "timed out after 2s"). The limit must
    // be finite, not negative and within the signed 64-bit range (else
    // std::invalid_argument). The wait wakes when a request of this client finishes, so the
    // future must be one of them (or ready when `operation` returns). Must not be called
    // from the deadlines queue, whose timer ends the wait.
    template <class Operation>
    auto blocking(double timeoutSeconds, Operation &&operation)
        -> decltype(operation(std::declval<HelperClient &>()).get()) {
        Wait wait = startWait(timeoutSeconds);
        auto future = operation(*this);
        wait.until([&future] {
            return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
        return future.get();
    }

    // Requests that have not finished yet (a test and diagnostics aid).
    std::size_t inFlight() const;

  private:
    struct State;
    struct WaitState;

    // One blocking() wait: its deadline timer and the flag the timer sets.
    class Wait {
      public:
        Wait(std::shared_ptr<State> state, std::shared_ptr<WaitState> wait, std::string message);
        ~Wait();  // cancels the timer if it has not fired
        Wait(Wait &&) = default;
        // Returns once `ready` holds (checked again whenever a request finishes) or throws
        // helperUnavailable when the deadline fired first.
        void until(const std::function<bool()> &ready);

      private:
        std::shared_ptr<State> state_;
        std::shared_ptr<WaitState> wait_;
        std::string message_;
    };

    Wait startWait(double timeoutSeconds);

    std::shared_ptr<State> state_;
};

}  // namespace ostrel
