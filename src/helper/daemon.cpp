#include "daemon.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include "control_service.h"
#include "controller.h"
#include "executable_watch.h"
#include "ostrel/code_signature.h"
#include "ostrel/helper_constants.h"
#include "ostrel/platform/paths.h"
#include "ostrel/sampler.h"
#include "ostrel/version.h"
#include "self_update_check.h"

namespace ostrel::helper {

namespace {

constexpr const char *kNotRoot = "must run as root (installed by `ostrel helper install`)";
constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Holds the termination signals back on this thread (and on every thread started while it
// lives) until release(): from before the first fan is touched until the main loop takes
// them, none can end the daemon by its default action with fans under manual control.
class HeldSignals {
  public:
    HeldSignals() {
        sigset_t held;
        sigemptyset(&held);
        for (int signal : kStopSignals) {
            sigaddset(&held, signal);
        }
        pthread_sigmask(SIG_BLOCK, &held, &previous_);
    }
    ~HeldSignals() { release(); }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    // Lets this thread take them again; the threads started meanwhile keep them held, so
    // the main loop's thread is the one that receives them.
    void release() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

  private:
    sigset_t previous_;
};

// --release-fans: every fan back to the firmware, whatever state a daemon that died left
// them in. A fan that refuses is reported and the others are still handed back.
int releaseFans(DaemonServices &services) {
    std::vector<std::string> failed;
    try {
        std::shared_ptr<SMC> smc = services.openSMC();
        SystemAccess system{&services.environment, &services.files, &services.clock};
        Discovery discovery = loadDiscovery(*smc, /*useCache=*/false, system);
        FanWriter writer(smc, discovery, services.clock);
        for (const FanDescriptor &fan : discovery.fans) {
            try {
                writer.setAuto(fan.index);
            } catch (const std::exception &e) {
                failed.push_back(fmt::format("fan {}: {}", fan.index, e.what()));
            }
        }
        writer.setAllAuto();  // also hands the test key back
    } catch (const std::exception &e) {
        services.log(std::string("cannot open SMC: ") + e.what());
        return 1;
    }
    if (!failed.empty()) {
        services.log(
            fmt::format("could not return fans to auto (release): {}", fmt::join(failed, "; ")));
        return 1;
    }
    services.log("fans returned to auto (release)");
    return 0;
}

// The path of the running executable, which the watch follows: the kernel's word, else
// the path the daemon was started as.
std::string executablePath(const DaemonServices &services, const DaemonOptions &options) {
    platform::TextResult self = services.fileAccess.readLink("/proc/self/exe");
    if (self.error == 0 && !self.text.ends_with(" (deleted)")) {
        return self.text;
    }
    return options.program;
}

int serve(const DaemonOptions &options, DaemonServices &services) {
    platform::Paths paths(services.environment);
    HeldSignals held;
    auto uncaught = [&services](const std::string &message) {
        services.log("unexpected error: " + message);
    };

    platform::SerialQueue controlQueue("dev.ostrel.helper.control", uncaught);
    std::unique_ptr<Controller> controller;
    try {
        controller = std::make_unique<Controller>(ControllerServices{
            controlQueue, SystemAccess{&services.environment, &services.files, &services.clock},
            services.files, HelperConstants::policiesFile(paths), services.log, services.openSMC});
    } catch (const std::exception &e) {
        services.log(std::string("cannot open SMC: ") + e.what());
        return 1;
    }
    // The socket before any fan is touched: a second daemon leaves the first one's alone.
    PeerVetting vetting(HelperConstants::clientRequirement(services.fileAccess),
                        services.processAccess);
    std::string socketPath = HelperConstants::socketPath(paths);
    std::unique_ptr<ControlService> service;
    try {
        service = std::make_unique<ControlService>(
            ControlServiceServices{*controller, vetting, services.processAccess, services.files,
                                   services.clock, services.log, socketPath});
    } catch (const platform::UnixServerError &e) {
        services.log(e.inUse() ? "another daemon is already serving " + socketPath + "; exiting"
                               : std::string("cannot serve the control socket: ") + e.what());
        return 1;
    }
    controller->start();

    platform::RunLoop main(uncaught);
    bool stopping = false;
    auto stop = [&](const std::string &reason) {
        if (stopping) {
            return;
        }
        stopping = true;
        services.serviceManager.notify("STOPPING=1");
        service->stop();  // no request changes anything after this
        controlQueue.sync([&] { controller->shutdown(reason); });
        main.quit();
    };

    asio::signal_set signals(main.context());
    for (int signal : kStopSignals) {
        signals.add(signal);
    }
    signals.async_wait([&](const std::error_code &error, int signal) {
        if (!error) {
            stop(fmt::format("signal {}", signal));
        }
    });
    held.release();

    std::unique_ptr<ExecutableWatch> watch =
        ExecutableWatch::start(main.context(), executablePath(services, options),
                               [&] { stop("executable replaced (update)"); });

    std::unique_ptr<SelfUpdateCheck> selfUpdate;
    std::optional<Signer> self = CodeSignature::signer(services.fileAccess);
    if (options.source && self) {
        // In a sandbox the daemon runs as its user, who cannot give the staged copy to root.
        bool sandbox = !paths.root().empty();
        selfUpdate = std::make_unique<SelfUpdateCheck>(
            *options.source, options.program, *self,
            HelperSelfUpdate::UpdateServices{services.fileAccess, services.processes, paths,
                                             sandbox ? services.uid : 0u,
                                             sandbox ? services.gid : 0u},
            services.log, stop);
        selfUpdate->start(main);
    }

    std::unique_ptr<platform::Queue::Timer> watchdog =
        startWatchdog(services.serviceManager, controlQueue);
    service->start();
    services.serviceManager.notify("READY=1");
    main.run();
    return 0;
}

}  // namespace

DaemonOptions parseArguments(const std::vector<std::string> &args) {
    DaemonOptions options;
    if (args.empty()) {
        return options;
    }
    options.program = args.front();
    CLI::App app;
    app.allow_extras();  // the daemon ignores what it does not know
    app.set_help_flag();
    std::vector<std::string> source;
    app.add_flag("--print-version", options.printVersion);
    app.add_flag("--release-fans", options.releaseFans);
    app.add_option("--source", source)
        ->expected(0, 1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeFirst)
        ->allow_extra_args(false);
    try {
        app.parse(std::vector<std::string>(args.rbegin(), args.rend() - 1));
    } catch (const CLI::ParseError &) {
        return options;  // nothing the daemon takes can be malformed; keep what was read
    }
    if (!source.empty() && !source.front().empty()) {
        options.source = source.front();
    }
    return options;
}

int runDaemon(const std::vector<std::string> &args, DaemonServices &services) {
    DaemonOptions options = parseArguments(args);
    if (options.printVersion) {
        services.out << OstrelVersion::string << '\n' << std::flush;
        return services.out ? 0 : 1;
    }
    // A sandbox is its user's own: the daemon runs as that user (the real SMC still needs
    // root, the virtual Mac does not).
    if (services.uid != 0 && platform::Paths(services.environment).root().empty()) {
        services.log(kNotRoot);
        return 1;
    }
    if (options.releaseFans) {
        return releaseFans(services);
    }
    return serve(options, services);
}

}  // namespace ostrel::helper
