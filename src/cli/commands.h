// The commands of `ostrel`, one function each, and what they share. Each writes its result
// to the context's output (JSON when asked) and throws the library's typed errors, or
// IncompleteOutput when it printed only part of what it should have; cli::run turns them
// into messages and exit statuses.
#pragma once

#include <iosfwd>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli.h"
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
    std::string sensor = "cpu";
    std::optional<std::string> min, max;
    std::vector<std::string> at;
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

// smc keys / smc read KEY / smc dump
void smcKeysCommand(Context &context, const Options &options);
void smcReadCommand(Context &context, const Options &options);
void smcDumpCommand(Context &context, const Options &options);
// Whether the text can name an SMC key: 1 to 4 printable ASCII characters.
bool isKeyText(const std::string &text);

// curve TEXT [--sensor] [--min --max] [--at]...: throws FanControlError for a bad curve,
// CLI::ValidationError for a bad number option. Needs no SMC.
void curveCommand(Context &context, const Options &options);

// sensors [--scope] [--group]... / fans / battery / discovery [--refresh]
void sensorsCommand(Context &context, const Options &options);
void fansCommand(Context &context, const Options &options);
void batteryCommand(Context &context, const Options &options);
void discoveryCommand(Context &context, const Options &options);

}  // namespace ostrel::cli
