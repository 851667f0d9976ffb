// The virtual Mac's socket server: serves one VirtualMac to any number of clients on a Unix
// stream socket with the wire protocol of csmc/vsmc_protocol.h, and drives its clock.
//
// Listening, connection limits and time-outs are the shared platform::UnixServer's; this
// adds the frames and the machine. Everything runs on the thread that runs the io_context
// given to it (the server is the machine's only user, so nothing is locked). Writes from a
// peer that is not root (SO_PEERCRED) are refused by the machine as not privileged. A
// client that sends a frame the server cannot use is disconnected; the others carry on.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ostrel/platform/clock.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/unix_server.h"

namespace asio {
class io_context;
}

namespace ostrel::vsmc {

class VirtualMac;

// Answers the whole request frames at the front of `buffered` (csmc/vsmc_protocol.h) on
// `mac`, as `peer` asked them, handing each reply frame to `reply`, which returns false
// when the connection went away (answering then stops). Returns the bytes consumed (a
// frame still arriving is left for later), or nothing when the bytes are not a frame a
// client may send. This is how the server reads a connection; it touches no socket, so
// it can be fuzzed.
std::optional<std::size_t> answerFrames(VirtualMac &mac, std::string_view buffered,
                                        const platform::PeerCredentials &peer,
                                        const std::function<bool(std::string)> &reply);

class Server {
  public:
    // Frames up to the protocol's largest, any local user may connect (the machine refuses
    // their writes), idle clients closed after a minute.
    static platform::UnixServerLimits defaultLimits();

    // Listens on `socketPath` (see platform::UnixServer) and starts the simulation clock,
    // which lets the time `clock` measures pass on `mac`, waking every `tick` while the
    // machine's speed is above 0 and sleeping while it is paused. Throws
    // platform::UnixServerError when the path is taken by a live server or cannot be used.
    // Every argument must outlive the server.
    Server(asio::io_context &io, VirtualMac &mac, std::string socketPath,
           const platform::Files &files, const platform::Clock &clock,
           std::chrono::milliseconds tick = std::chrono::milliseconds(100),
           platform::UnixServerLimits limits = defaultLimits());
    ~Server();  // stops, and removes the socket file
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Stops accepting, closes every connection and stops the clock; once the handlers
    // have finished, io.run() returns. Call on the io_context's thread.
    void stop();

    // Lets the time that passed on the clock since the machine last moved pass on it now,
    // at its current speed (at most a few seconds' worth at once, so a suspended process
    // does not come back to a jump). The tick timer calls it, and so does every call that
    // arrives; tests call it after moving a fake clock. Call on the io_context's thread.
    void catchUp();
    // Whether the tick timer is armed; it is not while the machine is paused.
    bool clockRunning() const;

    const std::string &socketPath() const;
    platform::UnixServer &listener();

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace ostrel::vsmc
