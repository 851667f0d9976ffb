// The commands of `ostrel`, one function each, and what they share. Each writes its result
// to the context's output (JSON when asked) and throws the library's typed errors, or
// IncompleteOutput when it printed only part of what it should have; cli::run turns them
// into messages and exit statuses.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli.h"
#include "ostrel/fan_policy.h"
#include "ostrel/json.h"
#include "ostrel/models.h"
#include "ostrel/sampler.h"

namespace ostrel::cli {

// Everything any command's arguments can set; each command reads its own.
struct Options {
    bool json = false;
    // sensors
    SamplerScope scope = SamplerScope::known;
    std::set<SensorGroup> groups;  // empty: every group
    // discovery
    bool refresh = false;
    // smc read
    std::string key;
    // curve
    std::string curveText;
    std::optional<std::string> sensor;  // curve, set: nothing means cpu
    std::optional<std::string> min, max;
    std::vector<std::string> at;
    // set
    std::string fan;
    std::string policy;
    // helper install
    std::optional<std::string> from;
    // watch
    double interval = 2;
    std::optional<std::int64_t> count;
};

// A command stopped by a signal (watch on Ctrl-C); the exit status is 128 + the signal.
struct Interrupted {
    int signal;
};

// A command stopped part-way or printed less than the machine has: what it printed stands,
// the message says what is missing, and the exit status is 1.
class IncompleteOutput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// JSON as the commands print it: indented, and with any invalid UTF-8 from outside
// replaced rather than thrown over.
void printJson(std::ostream &out, const Json &json);

// A fan as every command shows it: its reading (units: rpm) and its alarms, as JSON or as
// one line of text ("0  Left  2500 rpm  (min 1200, max 6000, 27%)  auto").
Json fanJson(const FanReading &fan, bool stopsAtIdle);
std::string fanLine(const FanReading &fan, bool stopsAtIdle);
// Whether the machine's firmware stops its fans when cool (so 0 rpm is no stall).
bool stopsAtIdle(const Sampler &sampler);
// The essential temperatures printed as `sensors` prints readings.
void printReadings(std::ostream &out, const std::vector<Reading> &readings, Quantity quantity);

// A preset by name, or a curve text, driven by `sensor`. Throws FanControlError (badCurve).
FanCurve curveNamed(const std::string &text, CurveSensor sensor);
// The daemon's policies, waiting at most `seconds`. Throws FanControlError.
PolicyMap fetchPolicies(Context &context, double seconds);

// smc keys / smc read KEY / smc dump
void smcKeysCommand(Context &context, const Options &options);
void smcReadCommand(Context &context, const Options &options);
void smcDumpCommand(Context &context, const Options &options);
// Whether the text can name an SMC key: 1 to 4 printable ASCII characters.
bool isKeyText(const std::string &text);

// curve TEXT [--sensor] [--min --max] [--at]...: throws FanControlError for a bad curve,
// CLI::ValidationError for a bad number option. Needs no SMC.
void curveCommand(Context &context, const Options &options);

// set FAN|all POLICY [--sensor]: throws CLI::ValidationError for a FAN or POLICY that
// names nothing, FanControlError for a policy that is invalid, refused or cannot be sent.
void setCommand(Context &context, const Options &options);
// The policy a POLICY argument names: auto, max, a speed in rpm, a curve text or a preset
// (with `sensor`, "cpu" when none). Throws CLI::ValidationError for text that is none of
// these, and for a sensor given with anything but a curve; FanControlError when the policy
// it names is invalid (the messages the daemon would give).
FanPolicy parsePolicy(const std::string &text, const std::optional<std::string> &sensor);
// policies: every fan with its policy.
void policiesCommand(Context &context, const Options &options);
// helper version / status / install [--from] / uninstall
void helperVersionCommand(Context &context, const Options &options);
void helperStatusCommand(Context &context, const Options &options);
void helperInstallCommand(Context &context, const Options &options);
void helperUninstallCommand(Context &context, const Options &options);
// watch [--interval S] [--count N]: throws Interrupted when a signal stops it.
void watchCommand(Context &context, const Options &options);

// sensors [--scope] [--group]... / fans / battery / discovery [--refresh]
void sensorsCommand(Context &context, const Options &options);
void fansCommand(Context &context, const Options &options);
void batteryCommand(Context &context, const Options &options);
void discoveryCommand(Context &context, const Options &options);

}  // namespace ostrel::cli
