// The commands of `ostrel`, one function each. Each writes its result to `out` (JSON when
// asked) and throws the library's typed errors, which cli::run turns into messages and
// exit statuses.
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli.h"
#include "ostrel/models.h"
#include "ostrel/sampler.h"

namespace ostrel::cli {

// smc keys / smc read KEY / smc dump
void smcKeys(SMC &smc, bool json, std::ostream &out);
void smcRead(SMC &smc, const std::string &key, bool json, std::ostream &out);
void smcDump(SMC &smc, const SystemAccess &system, bool json, std::ostream &out);

// curve TEXT [--sensor] [--min --max] [--at]...
struct CurveOptions {
    std::string text;
    std::string sensor = "cpu";
    std::optional<std::string> min, max;
    std::vector<std::string> at;
};
// Throws FanControlError for a bad curve, CLI::ValidationError for a bad number option.
void curveCommand(const CurveOptions &options, bool json, std::ostream &out);

// sensors [--scope] [--group]... / fans / battery / discovery [--refresh]
struct SensorOptions {
    SamplerScope scope = SamplerScope::known;
    std::set<SensorGroup> groups;  // empty: every group
};
void sensorsCommand(Context &context, const SensorOptions &options, bool json, std::ostream &out);
void fansCommand(Context &context, bool json, std::ostream &out);
void batteryCommand(Context &context, bool json, std::ostream &out);
void discoveryCommand(Context &context, bool refresh, bool json, std::ostream &out);

}  // namespace ostrel::cli
