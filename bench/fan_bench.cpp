// Speed of what the control loop does on every tick for every fan: pick the curve's
// temperature from a snapshot and evaluate the curve; and of the policy coding that every
// request and every save goes through.

#include <benchmark/benchmark.h>

#include <limits>

#include "ostrel/fan_curve.h"
#include "ostrel/models.h"
#include "ostrel/policy_coding.h"

namespace {

using namespace ostrel;

void BM_CurveRpm(benchmark::State &state) {
    // A ten-point curve, evaluated across its range: the scan's worst case is the last span.
    FanCurve curve(
        "40:min,45:1500,50:1800,55:2100,60:2500,65:3000,70:3500,75:4200,80:5000,"
        "90:max",
        CurveSensor::cpu);
    double at = 35;
    for (auto _ : state) {
        benchmark::DoNotOptimize(curve.rpm(at, 1200, 6000));
        at = at >= 95 ? 35 : at + 0.7;
    }
}
BENCHMARK(BM_CurveRpm);

void BM_CurveParse(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(FanCurve("50:min,70:3000,85:max", CurveSensor::cpu));
    }
}
BENCHMARK(BM_CurveParse);

const FanPolicy &curvePolicy() {
    static const FanPolicy policy = FanPolicy::curve(FanCurve::balanced());
    return policy;
}

void BM_PolicyEncode(benchmark::State &state) {
    FanPolicy policy = state.range(0) == 0 ? FanPolicy::fixed(2500) : curvePolicy();
    for (auto _ : state) {
        benchmark::DoNotOptimize(PolicyCoding::encode(policy));
    }
    state.SetLabel(state.range(0) == 0 ? "fixed" : "curve");
}
BENCHMARK(BM_PolicyEncode)->Arg(0)->Arg(1);

void BM_PolicyDecode(benchmark::State &state) {
    std::string data =
        PolicyCoding::encode(state.range(0) == 0 ? FanPolicy::fixed(2500) : curvePolicy());
    for (auto _ : state) {
        benchmark::DoNotOptimize(PolicyCoding::decode(data));
    }
    state.SetLabel(state.range(0) == 0 ? "fixed" : "curve");
}
BENCHMARK(BM_PolicyDecode)->Arg(0)->Arg(1);

// A realistic Intel notebook sample: 40 temperatures across the groups (a few unknown,
// one unreadable), two fans.
Snapshot realisticSnapshot() {
    const SensorGroup groups[] = {SensorGroup::cpu,     SensorGroup::cpu,    SensorGroup::gpu,
                                  SensorGroup::memory,  SensorGroup::board,  SensorGroup::storage,
                                  SensorGroup::battery, SensorGroup::ambient};
    std::vector<Reading> temperatures;
    for (int i = 0; i < 40; ++i) {
        double value = i == 17 ? std::numeric_limits<double>::quiet_NaN() : 35.0 + (i * 7) % 40;
        temperatures.push_back(
            Reading{"T" + std::to_string(100 + i), "Sensor", groups[i % 8], value, i % 13 != 5});
    }
    std::vector<FanReading> fans = {{0, "Left", 2100, 1200, 6000, std::nullopt, false},
                                    {1, "Right", 2000, 1200, 6000, 2500, true}};
    return Snapshot(Snapshot::Clock::now(), std::move(temperatures), std::move(fans), {}, {}, {},
                    std::nullopt);
}

void BM_SnapshotHottest(benchmark::State &state) {
    Snapshot snapshot = realisticSnapshot();
    for (auto _ : state) {
        benchmark::DoNotOptimize(snapshot.hottest());
    }
}
BENCHMARK(BM_SnapshotHottest);

void BM_SnapshotCurveTemperature(benchmark::State &state) {
    Snapshot snapshot = realisticSnapshot();
    for (auto _ : state) {
        benchmark::DoNotOptimize(snapshot.temperature(CurveSensor::gpu));
    }
}
BENCHMARK(BM_SnapshotCurveTemperature);

}  // namespace
