#include "ostrel/vsmc/scenario.h"

#include <fmt/format.h>

#include <cmath>

#include "ostrel/platform/text.h"

namespace ostrel::vsmc {

namespace {

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) {
            ++i;
        }
        std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
            ++i;
        }
        if (i > start) {
            out.push_back(line.substr(start, i - start));
        }
    }
    return out;
}

// One channel (cpu, gpu or ambient) with its linear ramps.
struct Ramp {
    double from;
    double to;
    double start = 0;
    double length = 0;

    double at(double t) const {
        if (length <= 0 || t >= start + length) {
            return to;
        }
        if (t <= start) {
            return from;
        }
        return from + (to - from) * (t - start) / length;
    }
    void retarget(double t, double target, double over) {
        from = at(t);
        to = target;
        start = t;
        length = over;
    }
};

}  // namespace

Scenario parseScenario(std::string_view text, const std::string &source) {
    Scenario scenario;
    scenario.source = source;
    std::size_t lineNo = 0;
    auto fail = [&](const std::string &message) -> void {
        throw ScenarioError(fmt::format("{}:{}: {}", source, lineNo, message));
    };
    auto number = [&](std::string_view word, const char *what, double min, double max) {
        auto value = text::parseNumber(word);
        if (!value || !std::isfinite(*value) || *value < min || *value > max) {
            fail(fmt::format("{} '{}' must be a number from {} to {}", what, word, min, max));
        }
        return *value;
    };
    while (!text.empty()) {
        ++lineNo;
        std::size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text = eol == std::string_view::npos ? std::string_view{} : text.substr(eol + 1);
        if (std::size_t hash = line.find('#'); hash != std::string_view::npos) {
            line = line.substr(0, hash);
        }
        std::vector<std::string_view> w = words(line);
        if (w.empty()) {
            continue;
        }
        if (scenario.loop) {
            fail("nothing may follow 'loop'");
        }
        if (w[0] == "loop") {
            if (w.size() != 2) {
                fail("'loop' needs one time in seconds: loop 300");
            }
            double at = number(w[1], "loop time", 0, 1e9);
            if (at <= 0 || (!scenario.points.empty() && at < scenario.points.back().time)) {
                fail("the loop time must be after the last point");
            }
            scenario.loop = at;
            continue;
        }
        if (w[0] != "at") {
            fail(fmt::format("unknown directive '{}' (expected 'at' or 'loop')", w[0]));
        }
        if (w.size() < 4 || w.size() % 2 != 0) {
            fail("a point reads: at TIME SETTING VALUE... (cpu, gpu, ambient, power, over)");
        }
        ScenarioPoint point;
        point.time = number(w[1], "time", 0, 1e9);
        if (!scenario.points.empty() && point.time < scenario.points.back().time) {
            fail(fmt::format("time {} comes before the previous point's {}", point.time,
                             scenario.points.back().time));
        }
        for (std::size_t i = 2; i < w.size(); i += 2) {
            std::string_view name = w[i];
            std::string_view value = w[i + 1];
            if (name == "cpu") {
                point.cpu = number(value, "cpu load", 0, 1);
            } else if (name == "gpu") {
                point.gpu = number(value, "gpu load", 0, 1);
            } else if (name == "ambient") {
                point.ambient = number(value, "ambient temperature", -30, 60);
            } else if (name == "over") {
                point.over = number(value, "ramp time", 0, 1e6);
            } else if (name == "power") {
                if (value != "ac" && value != "battery") {
                    fail(fmt::format("power '{}' must be ac or battery", value));
                }
                point.external = value == "ac";
            } else {
                fail(fmt::format("unknown setting '{}' (expected cpu, gpu, ambient, power or over)",
                                 name));
            }
        }
        scenario.points.push_back(point);
    }
    if (scenario.points.empty()) {
        throw ScenarioError(fmt::format("{}: no 'at' line", source));
    }
    return scenario;
}

ScenarioValues scenarioAt(const Scenario &scenario, double elapsed, const ScenarioValues &start) {
    if (scenario.loop && *scenario.loop > 0) {
        elapsed = std::fmod(elapsed, *scenario.loop);
    }
    Ramp cpu{start.cpu, start.cpu};
    Ramp gpu{start.gpu, start.gpu};
    Ramp ambient{start.ambient, start.ambient};
    bool external = start.external;
    for (const ScenarioPoint &p : scenario.points) {
        if (p.time > elapsed) {
            break;
        }
        if (p.cpu) {
            cpu.retarget(p.time, *p.cpu, p.over);
        }
        if (p.gpu) {
            gpu.retarget(p.time, *p.gpu, p.over);
        }
        if (p.ambient) {
            ambient.retarget(p.time, *p.ambient, p.over);
        }
        if (p.external) {
            external = *p.external;
        }
    }
    return {cpu.at(elapsed), gpu.at(elapsed), ambient.at(elapsed), external};
}

bool scenarioFinished(const Scenario &scenario, double elapsed) {
    if (scenario.loop) {
        return false;
    }
    for (const ScenarioPoint &p : scenario.points) {
        if (p.time + p.over > elapsed) {
            return false;
        }
    }
    return true;
}

}  // namespace ostrel::vsmc
