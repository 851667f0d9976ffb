// A real client process connected to a socket of the test: the peer that vetting examines.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "ostrel/platform/unique_fd.h"
#include "support/background_process.h"
#include "support/unix_socket.h"

namespace ostrel::test {

class ConnectedClient {
  public:
    // Starts `program` (the peer_client test program or a copy of it) with LD_PRELOAD set
    // to `preload` when that is not empty, and accepts its connection on a socket in `dir`.
    // Throws std::runtime_error when it does not connect within 10 s.
    ConnectedClient(const std::string &program, const std::string &dir,
                    const std::string &preload = "") {
        std::string path = dir + "/peer.sock";
        ::unlink(path.c_str());
        platform::UniqueFd listener(rawSocket(path, true));
        if (listener.get() < 0 || ::listen(listener.get(), 1) != 0) {
            throw std::runtime_error("cannot listen on " + path);
        }
        std::map<std::string, std::string> env;
        if (!preload.empty()) {
            env["LD_PRELOAD"] = preload;
        }
        process_ =
            std::make_unique<BackgroundProcess>(program, std::vector{path}, env, "/dev/null");
        pollfd ready{listener.get(), POLLIN, 0};
        if (::poll(&ready, 1, 10000) != 1) {
            throw std::runtime_error(program + " did not connect");
        }
        connection_.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    int fd() const { return connection_.get(); }

    // Closes the connection, which ends the client, and reaps it.
    void finish() {
        connection_.reset();
        process_->wait();
    }

  private:
    std::unique_ptr<BackgroundProcess> process_;
    platform::UniqueFd connection_;
};

}  // namespace ostrel::test
