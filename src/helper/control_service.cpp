#include "control_service.h"

#include <fmt/format.h>
#include <pthread.h>

#include "ostrel/helper_constants.h"
#include "ostrel/policy_coding.h"

namespace ostrel::helper {

namespace {

constexpr std::chrono::minutes kRefusalWindow{1};

}  // namespace

// One accepted connection. Lives on the service's thread; requests on the controller's
// queue hold it weakly, so a reply to a connection that has gone is dropped.
struct ControlService::Connection {
    platform::UnixConnection *link = nullptr;  // null once closed
    unsigned uid = 0;
    std::optional<Peer> peer;  // who connected; without one every message is refused
    std::string problem;       // why there is none
    std::size_t pending = 0;   // requests waiting for the controller
};

ControlService::ControlService(ControlServiceServices services, ControlServiceLimits limits)
    : services_(std::move(services)),
      limits_(limits),
      loop_([this](const std::string &message) { services_.log("unexpected error: " + message); }) {
    platform::UnixServerLimits server;
    server.maxConnections = limits_.maxConnections;
    server.maxMessageBytes = ControlProtocol::maxLineBytes + 1;  // a whole line and its end
    server.maxBufferedBytes = limits_.maxConnections * server.maxMessageBytes;
    server.maxQueuedReplyBytes = limits_.maxQueuedReplyBytes;
    server.idleTimeout = limits_.idleTimeout;
    server.messageTimeout = limits_.lineTimeout;
    server.socketMode = 0666;  // who is served is decided per message
    platform::UnixServerHandler &handler = *this;
    server_ = std::make_unique<platform::UnixServer>(loop_.context(), services_.socketPath, handler,
                                                     services_.files, services_.clock, server);
}

ControlService::~ControlService() {
    stop();
    // A request that was already past its check when the service stopped may still be
    // running on the controller's queue; it must not outlive what it uses.
    services_.controller.queue().sync([] {});
}

void ControlService::start() {
    thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "helper.service");
        loop_.run();
    });
}

void ControlService::stop() {
    if (stopped_->exchange(true)) {
        return;
    }
    if (thread_.joinable()) {
        loop_.sync([this] { server_->stop(); });
        loop_.quit();
        thread_.join();
    } else {
        server_->stop();
    }
}

void ControlService::accepted(platform::UnixConnection &link) {
    auto connection = std::make_shared<Connection>();
    connection->link = &link;
    connection->uid = link.peer().uid;
    connections_[&link] = connection;
    if (++perUser_[connection->uid] > limits_.maxConnectionsPerUser && connection->uid != 0) {
        link.close();
        return;
    }
    // Once, right after accept: the pidfd pins the process that connected.
    PeerLookup lookup = identifyPeer(link.nativeHandle(), services_.processAccess);
    connection->peer = std::move(lookup.peer);
    connection->problem = std::move(lookup.problem);
}

void ControlService::closed(platform::UnixConnection &link) {
    auto it = connections_.find(&link);
    if (it == connections_.end()) {
        return;
    }
    it->second->link = nullptr;
    if (--perUser_[it->second->uid] == 0) {
        perUser_.erase(it->second->uid);
    }
    connections_.erase(it);
}

std::optional<std::size_t> ControlService::received(platform::UnixConnection &link,
                                                    std::string_view buffered) {
    auto it = connections_.find(&link);
    if (it == connections_.end()) {
        return std::nullopt;
    }
    std::shared_ptr<Connection> connection = it->second;
    std::size_t consumed = 0;
    for (;;) {
        std::size_t end = buffered.find('\n', consumed);
        if (end == std::string_view::npos) {
            // Bytes are taken in as they arrive; a line that grows past the limit is refused
            // before it is complete.
            if (buffered.size() - consumed > ControlProtocol::maxLineBytes) {
                return std::nullopt;
            }
            return consumed;
        }
        if (!serve(connection, buffered.substr(consumed, end - consumed))) {
            return std::nullopt;
        }
        consumed = end + 1;
        if (connection->link == nullptr) {
            return consumed;  // a reply overflowed the connection's queue and closed it
        }
    }
}

bool ControlService::serve(const std::shared_ptr<Connection> &connection, std::string_view line) {
    if (!connection->peer) {
        refuse("a peer: " + connection->problem);
        return false;
    }
    PeerVerdict verdict = services_.vetting.check(*connection->peer);
    if (!verdict.accepted) {
        refuse(verdict.reason);
        return false;
    }
    std::optional<ControlProtocol::Request> request = ControlProtocol::parseRequest(line);
    if (!request) {
        return false;
    }
    if (request->call == ControlProtocol::Call::version) {
        // Here and now: a version never waits for the control loop.
        connection->link->send(
            ControlProtocol::replyLine({request->id, std::string(HelperConstants::version)}));
        return true;
    }
    if (connection->pending >= limits_.maxPendingPerConnection ||
        waiting_.size() >= limits_.maxWaiting ||
        waitingBytes_ + request->policy.size() > limits_.maxWaitingBytes) {
        return false;  // more than its share of the controller's time
    }
    ++connection->pending;
    waitingBytes_ += request->policy.size();
    waiting_.push_back({connection, std::move(*request)});
    dispatch();
    return true;
}

void ControlService::dispatch() {
    while (inFlight_ < limits_.maxInFlight && !waiting_.empty()) {
        Waiting next = std::move(waiting_.front());
        waiting_.pop_front();
        waitingBytes_ -= next.request.policy.size();
        if (next.connection.expired()) {
            continue;  // the client has gone; its request goes with it
        }
        ++inFlight_;
        services_.controller.queue().async([this, stopped = stopped_, next = std::move(next)] {
            if (*stopped) {
                return;  // the daemon is stopping; the service must change nothing now
            }
            bool tick = false;
            std::string reply =
                ControlProtocol::replyLine({next.request.id, answer(next.request, tick)});
            loop_.async([this, weak = next.connection, reply = std::move(reply)] {
                --inFlight_;
                if (auto connection = weak.lock()) {
                    --connection->pending;
                    if (connection->link != nullptr) {
                        connection->link->send(reply);
                    }
                }
                dispatch();
            });
            // After the reply: a new policy reaches the fans now rather than at the next tick.
            if (tick) {
                services_.controller.queue().async([this, stopped] {
                    if (!*stopped) {
                        services_.controller.tick();
                    }
                });
            }
        });
    }
}

std::optional<std::string> ControlService::answer(const ControlProtocol::Request &request,
                                                  bool &tick) {
    if (request.call == ControlProtocol::Call::policies) {
        try {
            return PolicyCoding::encodeMap(services_.controller.policies());
        } catch (const std::exception &) {
            return "{}";
        }
    }
    try {
        FanPolicy policy = PolicyCoding::decode(request.policy);
        if (const FanPolicy::Fixed *fixed = policy.asFixed(); fixed && !(fixed->rpm >= 0)) {
            throw FanControlError::helper("invalid rpm");
        }
        services_.controller.setPolicy(policy, request.fan);
        tick = true;
        return std::nullopt;
    } catch (const std::exception &e) {
        return std::string(e.what());
    }
}

void ControlService::refuse(const std::string &reason) {
    platform::Clock::Monotonic now = services_.clock.monotonic();
    if (now - refusalWindow_ >= kRefusalWindow) {
        if (refusalsSuppressed_ > 0) {
            services_.log(
                fmt::format("refused {} more peers in the last minute", refusalsSuppressed_));
        }
        refusalWindow_ = now;
        refusalsLogged_ = refusalsSuppressed_ = 0;
    }
    if (refusalsLogged_ < limits_.refusalsLoggedPerMinute) {
        services_.log("refused " + reason);
        ++refusalsLogged_;
    } else {
        ++refusalsSuppressed_;
    }
}

}  // namespace ostrel::helper
