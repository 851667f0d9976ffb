#include "ostrel/vsmc/virtual_mac.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>

namespace ostrel::vsmc {

namespace {

// A request that cannot be carried out; its message goes back to the caller.
class CallError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

double numberField(const Json &request, const char *name, double min, double max) {
    auto it = request.find(name);
    if (it == request.end() || !it->is_number() || !std::isfinite(it->get<double>()) ||
        it->get<double>() < min || it->get<double>() > max) {
        throw CallError(fmt::format("'{}' must be a number from {} to {}", name, min, max));
    }
    return it->get<double>();
}

std::uint32_t keyField(const Json &request, const char *name = "key") {
    auto it = request.find(name);
    if (it == request.end() || !it->is_string() || it->get<std::string>().empty() ||
        it->get<std::string>().size() > 4) {
        throw CallError(fmt::format("'{}' must be a key of 1 to 4 characters", name));
    }
    return smc_fourcc(it->get<std::string>().c_str());
}

std::size_t fanField(const Machine &machine, const Json &request) {
    auto fan = static_cast<std::size_t>(numberField(request, "fan", 0, 15));
    if (fan >= machine.fanCount()) {
        throw CallError(fmt::format("no fan {} (the machine has {})", fan, machine.fanCount()));
    }
    return fan;
}

std::uint8_t commandField(const Json &request) {
    const std::string name = request.value("command", "");
    if (name == "read") {
        return SMC_CMD_READ;
    }
    if (name == "write") {
        return SMC_CMD_WRITE;
    }
    if (name == "key-info") {
        return SMC_CMD_KEY_INFO;
    }
    if (name == "key-at-index") {
        return SMC_CMD_KEY_AT_INDEX;
    }
    throw CallError("'command' must be read, write, key-info or key-at-index");
}

}  // namespace

VirtualMac::VirtualMac(const Profile &profile, std::uint64_t seed, double speed)
    : profileSource_(profile.source), machine_(profile, seed), speed_(speed) {
    machine_.setRefuseUnprivilegedWrites(true);
    machine_.advance(0);  // every bound key shows the starting state
}

void VirtualMac::elapse(double realSeconds) {
    if (realSeconds > 0 && speed_ > 0) {
        machine_.advance(realSeconds * speed_);
    }
}

Json VirtualMac::status() const {
    Json status = statusJson(machine_);
    status["speed"] = speed_;
    status["profile"] = profileSource_;
    return status;
}

Json VirtualMac::call(const Json &request) {
    try {
        if (!request.is_object() || !request.contains("call") || !request["call"].is_string()) {
            throw CallError("a request is an object with a \"call\" name");
        }
        Json reply = dispatch(request["call"].get<std::string>(), request);
        Json ok = {{"ok", true}};
        if (reply.is_object()) {
            ok.update(reply);
        }
        return ok;
    } catch (const CallError &e) {
        return {{"ok", false}, {"error", e.what()}};
    } catch (const std::exception &e) {
        return {{"ok", false}, {"error", std::string("cannot carry out the call: ") + e.what()}};
    }
}

Json VirtualMac::dispatch(const std::string &name, const Json &request) {
    Machine &m = machine_;
    if (name == "model") {
        return {{"model", m.model()}};
    }
    if (name == "sensors") {
        Json sensors = Json::array();
        for (const csmc::TemperatureSensor &s : m.temperatureSensors()) {
            sensors.push_back({{"name", s.name}, {"celsius", s.celsius}});
        }
        return {{"sensors", sensors}};
    }
    if (name == "battery") {
        return {{"battery", Json(m.batteryProperties())}};
    }
    if (name == "status") {
        return {{"status", status()}};
    }
    if (name == "load") {
        double cpu = numberField(request, "cpu", 0, 1);
        double gpu = request.contains("gpu") ? numberField(request, "gpu", 0, 1)
                                             : m.simulation().state().gpuLoad;
        m.setLoad(cpu, gpu);
        return {};
    }
    if (name == "scenario") {
        auto text = request.find("text");
        if (text == request.end() || !text->is_string()) {
            throw CallError("'text' must hold the scenario");
        }
        std::string source = request.value("source", "scenario");
        try {
            m.play(parseScenario(text->get<std::string>(), source));
        } catch (const ScenarioError &e) {
            throw CallError(e.what());
        }
        return {};
    }
    if (name == "stop-scenario") {
        m.stopScenario();
        return {};
    }
    if (name == "speed") {
        speed_ = numberField(request, "value", 0, kMaxSpeed);
        return {};
    }
    if (name == "advance") {
        m.advance(numberField(request, "seconds", 0, kMaxAdvance));
        return {{"time", m.time()}};
    }
    if (name == "ambient") {
        m.setAmbient(numberField(request, "celsius", -30, 60));
        return {};
    }
    if (name == "power") {
        auto external = request.find("external");
        if (external == request.end() || !external->is_boolean()) {
            throw CallError("'external' must be true (adapter) or false (battery)");
        }
        m.setExternalPower(external->get<bool>());
        return {};
    }
    if (name == "fault") {
        Fault fault;
        if (request.contains("key") && !request["key"].is_null()) {
            fault.key = keyField(request);
        }
        if (request.contains("command") && !request["command"].is_null()) {
            fault.command = commandField(request);
        }
        fault.times = static_cast<std::uint32_t>(
            request.contains("times") ? numberField(request, "times", 1, 1e9) : 1);
        if (request.contains("kern")) {
            fault.kern = static_cast<std::uint32_t>(numberField(request, "kern", 1, 0xFFFFFFFF));
        } else {
            fault.result = static_cast<std::uint8_t>(numberField(request, "result", 1, 255));
        }
        m.injectFault(fault);
        return {};
    }
    if (name == "clear-faults") {
        m.clearFaults();
        return {};
    }
    if (name == "vanish" || name == "restore") {
        std::uint32_t key = keyField(request);
        bool done = name == "vanish" ? m.vanishKey(key) : m.restoreKey(key);
        if (!done) {
            throw CallError(name == "vanish" ? "no such key (or #KEY, which cannot vanish)"
                                             : "that key has not vanished");
        }
        return {};
    }
    if (name == "limits") {
        std::size_t fan = fanField(m, request);
        if (!m.setFanLimits(fan, numberField(request, "min", -1e9, 1e9),
                            numberField(request, "max", -1e9, 1e9))) {
            throw CallError("the fan's limit keys cannot hold those values");
        }
        return {};
    }
    if (name == "stall") {
        std::size_t fan = fanField(m, request);
        m.setFanStalled(fan, request.value("stalled", true));
        return {};
    }
    if (name == "takeover") {
        m.takeOverFan(fanField(m, request));
        return {};
    }
    if (name == "sleep") {
        m.sleepAndWake();
        return {};
    }
    if (name == "unlock-refusals") {
        m.setUnlockRefusals(static_cast<std::uint32_t>(numberField(request, "value", 0, 1e6)));
        return {};
    }
    throw CallError(fmt::format("unknown call '{}'", name));
}

}  // namespace ostrel::vsmc
