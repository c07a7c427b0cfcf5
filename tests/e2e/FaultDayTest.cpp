// The sample weekday replayed through the SDK against a collection service that misbehaves in
// one way at every 2nd, 3rd or 4th batch request: refusing it, cutting it off, answering late
// or in a trickle, or storing it and then losing its answer. Every recorded event must arrive
// once: nothing lost, nothing stored twice, no batch id reused for other content.

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "sim/SimulationRunner.h"
#include "support/TestSupport.h"

namespace rovalis::sim {
namespace {

using collector::FaultOptions;

// The SDK gives a slow upload up after 1 s here instead of a minute, so that answers held past
// it, and trickles under its floor, cost seconds of the replay rather than minutes.
constexpr double idleTimeout = 1.0;

struct FaultKind {
    const char* name;
    void (*set)(FaultOptions& faults, int every);
};

const FaultKind kinds[] = {
    {"fail", [](FaultOptions& f, int every) { f.failEvery = every; }},
    {"drop", [](FaultOptions& f, int every) { f.dropEvery = every; }},
    {"garbage", [](FaultOptions& f, int every) { f.garbageEvery = every; }},
    {"close_after_store", [](FaultOptions& f, int every) { f.closeAfterStoreEvery = every; }},
    {"reset_after_store", [](FaultOptions& f, int every) { f.resetAfterStoreEvery = every; }},
    {"late_answer",
     [](FaultOptions& f, int every) {
         f.lateAnswerEvery = every;
         f.lateAnswerMs = static_cast<int>(idleTimeout * 1000) + 1000;
     }},
    {"trickle",
     [](FaultOptions& f, int every) {
         f.trickleEvery = every;
         f.trickleIntervalMs = 400;
     }},
};

class FaultDay : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(FaultDay, EveryRecordedEventArrivesOnce) {
    const auto& [kindIndex, every] = GetParam();
    const FaultKind& kind = kinds[kindIndex];
    test::ConsoleCapture console;
    test::TempDir dir;
    SimulationOptions options;
    options.outDir = dir.path();
    options.transferLimits.idleTimeout = idleTimeout;
    options.transferLimits.lowSpeedWindow = idleTimeout;
    kind.set(options.faults, every);
    const std::filesystem::path data = ROVALIS_SOURCE_DATA_DIR;
    SimulationRunner runner(
        readSimulationInput(data / "traces/london-weekday.gpx", data / "scenarios/london-weekday.scenario"),
        options);
    const SimulationReport report = runner.run();
    const auto& delivery = report.delivery;
    EXPECT_TRUE(report.deliveredExactlyOnce())
        << kind.name << " every " << every << ": recorded " << delivery.recorded << ", accepted "
        << delivery.accepted << " (" << delivery.batchDiagnostics << " batch diagnostics), left "
        << delivery.leftInStore;
    EXPECT_EQ(delivery.conflicts, 0);
    EXPECT_EQ(delivery.sequentialIdStepBacks, 0);
    EXPECT_GE(delivery.faultsInjected, 3) << "the fault hit batches";
}

INSTANTIATE_TEST_SUITE_P(EveryKindAtEvery2nd3rd4thBatch, FaultDay,
                         ::testing::Combine(::testing::Range(0, static_cast<int>(std::size(kinds))),
                                            ::testing::Values(2, 3, 4)),
                         [](const auto& info) {
                             return std::string(kinds[std::get<0>(info.param)].name) + "_every_" +
                                    std::to_string(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace rovalis::sim
