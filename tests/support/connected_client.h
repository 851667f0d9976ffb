// A real client process connected to a socket of the test: the peer that vetting examines.
#pragma once

#include <spawn.h>
#include <sys/wait.h>

#include <stdexcept>
#include <string>

#include "ostrel/platform/unique_fd.h"
#include "support/unix_socket.h"

extern char **environ;

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
        std::string preloadVariable = "LD_PRELOAD=" + preload;
        char *args[] = {const_cast<char *>(program.c_str()), path.data(), nullptr};
        char *preloadEnv[] = {preloadVariable.data(), nullptr};
        if (::posix_spawn(&pid_, program.c_str(), nullptr, nullptr, args,
                          preload.empty() ? environ : preloadEnv) != 0) {
            throw std::runtime_error("cannot start " + program);
        }
        pollfd ready{listener.get(), POLLIN, 0};
        if (::poll(&ready, 1, 10000) != 1) {
            finish();
            throw std::runtime_error(program + " did not connect");
        }
        connection_.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    ~ConnectedClient() { finish(); }
    ConnectedClient(const ConnectedClient &) = delete;
    ConnectedClient &operator=(const ConnectedClient &) = delete;

    int fd() const { return connection_.get(); }

    // Closes the connection, which ends the client, and reaps it.
    void finish() {
        connection_.reset();
        if (pid_ > 0) {
            ::waitpid(pid_, nullptr, 0);
            pid_ = 0;
        }
    }

  private:
    pid_t pid_ = 0;
    platform::UniqueFd connection_;
};

}  // namespace ostrel::test
