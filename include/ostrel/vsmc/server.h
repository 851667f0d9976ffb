// The virtual Mac's socket server: serves one VirtualMac to any number of clients on a Unix
// stream socket with the wire protocol of ostrel/vsmc/protocol.h, and drives its clock.
//
// Everything runs on the thread that runs the io_context given to it (the server is its
// only user of the machine, so nothing is locked). Each client's credentials are read
// from the socket (SO_PEERCRED); writes from a peer that is not root are refused by the
// machine as not privileged. A client that sends a frame the server cannot use is
// disconnected; the others carry on.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace asio {
class io_context;
}

namespace ostrel::vsmc {

class VirtualMac;

class Server {
  public:
    // Listens on `socketPath`: creates its directory, replaces a stale socket file (one
    // nobody answers on), makes the socket usable by every local user, and starts the
    // simulation clock, which lets real time pass on `mac` every `tick`. Throws
    // std::runtime_error with a message for the user when the path is taken by a live
    // server or cannot be used. `io` and `mac` must outlive the server.
    Server(asio::io_context &io, VirtualMac &mac, std::string socketPath,
           std::chrono::milliseconds tick = std::chrono::milliseconds(100));
    ~Server();  // stops, and removes the socket file
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Stops accepting, closes every connection and stops the clock; once the handlers
    // have finished, io.run() returns. Call on the io_context's thread.
    void stop();

    const std::string &socketPath() const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace ostrel::vsmc
