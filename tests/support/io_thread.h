// An io_context run on its own thread, for servers whose clients block in the test's
// thread; the raw socket moves that tests of those servers make come along.
#pragma once

#include <asio.hpp>
#include <future>
#include <thread>

#include "support/unix_socket.h"

namespace ostrel::test {

class IoThread {
  public:
    IoThread() : thread_([this] { io.run(); }) {}
    ~IoThread() {
        guard_.reset();
        thread_.join();
    }
    IoThread(const IoThread &) = delete;
    IoThread &operator=(const IoThread &) = delete;

    // Runs `fn` on the io thread and returns its result once it has run. Servers are made,
    // inspected and destroyed this way.
    template <class F>
    auto run(F fn) -> decltype(fn()) {
        std::packaged_task<decltype(fn())()> task(std::move(fn));
        auto result = task.get_future();
        asio::post(io, [&task] { task(); });
        return result.get();
    }

    asio::io_context io;

  private:
    asio::executor_work_guard<asio::io_context::executor_type> guard_ = asio::make_work_guard(io);
    std::thread thread_;
};

}  // namespace ostrel::test
