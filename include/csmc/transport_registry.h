// Choosing a transport by name, above the channel's seam.
//
// The channel knows transports only as csmc::Transport. Which ones a program can reach is
// the program's choice: each executable's main fills a TransportRegistry with the
// transports it links (the CLI and the tests: memory, vsmc and applesmc; the daemon:
// applesmc and vsmc; `ostrel-vsmc ctl`: vsmc), reads OSTREL_SMC once, and hands both down.
// A program that never registers the in-process virtual Mac never links it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "csmc/transport.h"
#include "ostrel/platform/files.h"

namespace csmc {

// Opens one transport from the selector's argument: the text after "SCHEME:", or "" when
// the selector is the bare scheme (or empty, for the platform default). Must not throw;
// a failure is an OpenedTransport with a status and a detail for the user.
using TransportFactory = std::function<OpenedTransport(std::string_view argument)>;

// Schemes and their factories. Filled once by main, then only read: open() may be called
// from any thread.
class TransportRegistry {
  public:
    // Registers `scheme` (the part of a selector before the colon). `usage` is how a user
    // writes it ("memory:PROFILE"), listed in messages in registration order. A scheme
    // registered again replaces the earlier factory.
    void add(std::string scheme, std::string usage, TransportFactory factory);
    // What the empty selector opens: the platform's own SMC. When it fails with
    // SMC_ENOSERVICE, the detail tells the user which selectors would work instead.
    void setDefault(TransportFactory factory);

    // Opens what `selector` names: "SCHEME:ARGUMENT", "SCHEME", or "" for the default.
    // An unknown scheme, or an empty selector without a default, is SMC_ENOSERVICE with a
    // detail listing the registered usages. Never throws (out of memory is SMC_ENOMEM).
    OpenedTransport open(std::string_view selector) const;

    // The registered usages for messages: "memory:PROFILE, vsmc:SOCKET or applesmc[:DIR]".
    std::string usages() const;

  private:
    struct Entry {
        std::string scheme;
        std::string usage;
        TransportFactory factory;
    };
    std::vector<Entry> entries_;
    TransportFactory default_;
};

// The machine the C entry points reach: smc_open (and so the kit's SMC()) opens
// `selector` through `transports`; smc_hid_open asks that machine for its sensor list and,
// on real hardware, reads the hwmon inputs under `sysfs` through `files`.
struct ProcessMachine {
    std::shared_ptr<const TransportRegistry> transports;
    std::string selector;  // OSTREL_SMC as main read it; "" for the platform default
    std::string sysfs;     // the sysfs root (OSTREL_ROOT/sys)
    const ostrel::platform::Files *files = nullptr;  // must outlive every use
};

// Installs the process's machine. Each main calls it once at start-up, before any thread
// opens a connection; a later call replaces it (tests). Until one is installed,
// smc_open fails with SMC_ENOSERVICE and says that no transport was configured, and
// smc_hid_open finds no services.
void installProcessMachine(ProcessMachine machine);

// The installed machine, or null. Any thread may call.
std::shared_ptr<const ProcessMachine> processMachine();

}  // namespace csmc
