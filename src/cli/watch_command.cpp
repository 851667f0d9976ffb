// `ostrel watch`: the essential temperatures, the fans with their policies and the daemon's
// latest log lines, redrawn until Ctrl-C.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ostream.h>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include <csignal>
#include <cstdint>
#include <ostream>
#include <sstream>

#include "commands.h"
#include "ostrel/helper_constants.h"
#include "ostrel/platform/text.h"

namespace ostrel::cli {

namespace {

// The daemon answers at once or not at all; a frame should not wait for it long.
constexpr double kPolicyWait = 1;
// The daemon's latest lines shown under each frame, read from at most this much of its log.
constexpr std::size_t kLogLines = 3;
constexpr std::size_t kLogTailBytes = 4096;

// ANSI: cursor home, then clear the screen.
constexpr std::string_view kClear = "\x1b[H\x1b[2J";

class SignalPause final : public Pause {
  public:
    SignalPause() { arm(); }

    int wait(std::chrono::nanoseconds duration) override {
        if (caught_ == 0) {
            asio::steady_timer timer(io_, duration);
            bool done = false;
            timer.async_wait([&](const std::error_code &) { done = true; });
            io_.restart();
            while (!done && caught_ == 0) {
                io_.run_one();
            }
            timer.cancel();
            while (!done) {
                io_.run_one();  // the cancelled timer's handler, which refers to this frame
            }
        }
        return caught_;
    }

  private:
    void arm() {
        signals_.async_wait([this](const std::error_code &error, int signal) {
            if (!error) {
                caught_ = signal;
            }
        });
    }

    asio::io_context io_;
    asio::signal_set signals_{io_, SIGINT, SIGTERM};
    int caught_ = 0;
};

// The last `count` complete lines of `tail` (its first line may be cut by the read).
std::vector<std::string> lastLines(const std::string &tail, std::size_t count, bool cut) {
    std::vector<std::string> lines;
    std::istringstream in(tail);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    if (cut && !lines.empty()) {
        lines.erase(lines.begin());
    }
    if (lines.size() > count) {
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(count));
    }
    return lines;
}

struct Frame {
    Snapshot snapshot;
    bool stopsAtIdle = false;
    std::optional<PolicyMap> policies;  // nothing when the daemon did not answer
    std::string daemonError;
    std::optional<std::vector<std::string>> log;  // nothing when the log cannot be read
    std::optional<std::string> missing;           // readings lost to a failing connection
};

Frame takeFrame(Context &context, Sampler &sampler) {
    Frame frame;
    frame.snapshot = sampler.sample();
    frame.stopsAtIdle = stopsAtIdle(sampler);
    if (const std::optional<SMCError> &failure = sampler.lastFailure()) {
        frame.missing = failure->explanation();
    }
    try {
        frame.policies = fetchPolicies(context, kPolicyWait);
    } catch (const FanControlError &e) {
        frame.daemonError =
            e.kind() == FanControlError::Kind::helperUnavailable ? e.text() : e.what();
    } catch (const DecodingError &e) {
        frame.daemonError = std::string("its policies cannot be read: ") + e.what();
    }
    std::string logPath = HelperConstants::logFile(context.system.paths());
    if (std::optional<std::string> tail = context.system.files->readTail(logPath, kLogTailBytes)) {
        frame.log = lastLines(*tail, kLogLines, tail->size() == kLogTailBytes);
    }
    return frame;
}

std::optional<FanPolicy> policyOf(const Frame &frame, std::int64_t fan) {
    if (!frame.policies) {
        return std::nullopt;
    }
    auto found = frame.policies->find(fan);
    return found == frame.policies->end() ? FanPolicy() : found->second;
}

void printJsonFrame(std::ostream &out, const Frame &frame) {
    Json json = frame.snapshot;
    json["fans"] = Json::array();
    for (const FanReading &fan : frame.snapshot.fans()) {
        Json entry = fanJson(fan, frame.stopsAtIdle);
        std::optional<FanPolicy> policy = policyOf(frame, fan.id);
        entry["policy"] = policy ? Json(policy->description()) : Json();
        json["fans"].push_back(entry);
    }
    json["daemon"] = {{"reachable", frame.policies.has_value()}};
    if (!frame.policies) {
        json["daemon"]["error"] = frame.daemonError;
    }
    json["log"] = frame.log ? Json(*frame.log) : Json::array();
    if (frame.missing) {
        json["missing"] = *frame.missing;
    }
    out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

void printTextFrame(std::ostream &out, const Frame &frame, double interval,
                    platform::Clock::WallTime now) {
    fmt::print(
        out, "Every {}s: ostrel watch{:>40}\n\n", interval,
        fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", std::chrono::floor<std::chrono::seconds>(now)));
    if (!frame.snapshot.temperatures().empty()) {
        out << "Temperatures\n";
        printReadings(out, frame.snapshot.temperatures(), Quantity::temperature);
    }
    out << "Fans\n";
    for (const FanReading &fan : frame.snapshot.fans()) {
        std::optional<FanPolicy> policy = policyOf(frame, fan.id);
        fmt::print(out, "  {}  policy: {}\n", fanLine(fan, frame.stopsAtIdle),
                   policy ? policy->description() : "unknown");
    }
    if (frame.snapshot.fans().empty()) {
        out << "  none found\n";
    }
    if (frame.missing) {
        fmt::print(out, "Some readings are missing: {}\n", text::printable(*frame.missing));
    }
    if (!frame.policies) {
        fmt::print(out, "Daemon not reachable: {}\n", text::printable(frame.daemonError));
    }
    if (frame.log && !frame.log->empty()) {
        out << "Daemon log\n";
        for (const std::string &line : *frame.log) {
            fmt::print(out, "  {}\n", text::printable(line));
        }
    }
}

}  // namespace

std::unique_ptr<Pause> signalPause() {
    return std::make_unique<SignalPause>();
}

void watchCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    std::unique_ptr<Pause> pause = context.pause();
    Sampler sampler(context.openSmc(), SamplerScope::essential, true, context.system);
    sampler.parts = {SamplerParts::temperatures, SamplerParts::fans};
    bool incomplete = false;
    for (std::int64_t shown = 0;; ++shown) {
        Frame frame = takeFrame(context, sampler);
        incomplete = incomplete || frame.missing;
        if (options.json) {
            printJsonFrame(out, frame);
        } else {
            // A terminal gets the frame in place; a pipe or a file gets them one after
            // another, so that a log of the run reads like the screen did.
            out << (context.terminal ? kClear : shown > 0 ? "\n" : "");
            printTextFrame(out, frame, options.interval, context.system.clock->now());
        }
        if (!out.flush()) {
            return;  // the output is gone; cli::run reports it
        }
        if (options.count && shown + 1 >= *options.count) {
            break;
        }
        auto interval = std::chrono::duration<double>(options.interval);
        if (int signal =
                pause->wait(std::chrono::duration_cast<std::chrono::nanoseconds>(interval))) {
            throw Interrupted{signal};
        }
    }
    if (incomplete) {
        throw IncompleteOutput("some frames lack readings lost to a failing connection");
    }
}

}  // namespace ostrel::cli
