#include <gtest/gtest.h>

#include "platform/sim/Scenario.h"
#include "platform/sim/TraceReader.h"
#include "platform/sim/TraceTime.h"
#include "support/TestSupport.h"

namespace rovalis::sim {
namespace {

// The trace starts at 06:12 on the 16th, so clock times and offsets differ.
const Date traceStart = *parseIsoTime("2024-01-16T06:12:00Z");
Date clock(const char* hms) { return *parseIsoTime(std::string("2024-01-16T") + hms + "Z"); }

std::string errorOf(const std::string& text) {
    try {
        parseScenario(text, traceStart);
    } catch (const ScenarioError& error) {
        return error.what();
    }
    return "no error";
}

TEST(Scenario, ReadsClockTimesAndOffsetsInTimeOrder) {
    const auto scenario = parseScenario("# times\n"
                                        "at 18:00 app foreground\n"
                                        "\n"
                                        "  at 08:10:30 app background   # seconds too\n"
                                        "AT +1h30m TRACKING START\n"
                                        "at 8:10:30 low-power on\n"
                                        "at +45m5s charging on\n"
                                        "at 24:00 charging off\n",
                                        traceStart);
    const std::vector<std::pair<Date, int>> expected{
        {traceStart.addingSeconds(45 * 60 + 5), 7}, {traceStart.addingSeconds(5400), 5}, {clock("08:10:30"), 4},
        {clock("08:10:30"), 6},                     {clock("18:00:00"), 2},              {clock("24:00:00"), 8},
    };
    ASSERT_EQ(scenario.steps.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(scenario.steps[i].time, expected[i].first) << i;
        EXPECT_EQ(scenario.steps[i].line, expected[i].second) << i;
    }
}

// One change of each setting, so a setting read or described as another shows.
TEST(Scenario, ReadsEveryKindOfChangeAndDescribesItAsWritten) {
    const std::pair<const char*, ScenarioChange> cases[] = {
        {"network offline", NetworkChange{SimulatedConnection::offline}},
        {"permission not-determined", PermissionChange{AuthorizationStatus::notDetermined}},
        {"accuracy reduced", AccuracyChange{AccuracyAuthorization::reducedAccuracy}},
        {"location-services off", LocationServicesChange{false}},
        {"motion-permission denied", MotionPermissionChange{MotionAuthorizationStatus::denied}},
        {"charging on", ChargingChange{true}}, {"battery 12.5%", BatteryChange{0.125}},
        {"low-power on", LowPowerChange{true}}, {"app foreground", AppStateChange{true}},
        {"wifi-only on", WifiOnlyChange{true}}, {"tracking stop", TrackingChange{false}},
        {"relaunch", RelaunchChange{}}, {"relaunch as version 2.0 build 7", RelaunchChange{"7", "2.0"}},
    };
    for (const auto& [text, change] : cases) {
        EXPECT_EQ(describe(change), text);
        std::string line = std::string("at 10:00 ") + text;
        if (const auto as = line.find(" as "); as != std::string::npos) line.erase(as, 3);
        EXPECT_EQ(parseScenario(line, traceStart).steps.at(0).change, change) << line;
    }
    EXPECT_EQ(parseScenario("at 10:00 battery 0.2", traceStart).steps[0].change, ScenarioChange(BatteryChange{0.2}));
}

TEST(Scenario, SpansRestoreWhatHeldBeforeThem) {
    const auto scenario = parseScenario("from 12:00 to 12:30 network offline\n"         // 1: restores line 4's cellular
                                        "from 08:10 to 08:40 permission when-in-use\n"  // 2: restores the default
                                        "at 13:00 network offline\n"                    // 3: after line 5's end
                                        "at 09:00 network cellular\n"                   // 4
                                        "from 12:30 to 13:00 network wifi\n",           // 5: adjacent to line 1
                                        traceStart);
    struct Expected {
        const char* time;
        ScenarioChange change;
        int line;
        bool ending;
    };
    const Expected expected[] = {
        {"08:10:00", PermissionChange{AuthorizationStatus::authorizedWhenInUse}, 2, false},
        {"08:40:00", PermissionChange{AuthorizationStatus::authorizedAlways}, 2, true},
        {"09:00:00", NetworkChange{SimulatedConnection::cellular}, 4, false},
        {"12:00:00", NetworkChange{SimulatedConnection::offline}, 1, false},
        {"12:30:00", NetworkChange{SimulatedConnection::cellular}, 1, true},
        {"12:30:00", NetworkChange{SimulatedConnection::wifi}, 5, false},
        {"13:00:00", NetworkChange{SimulatedConnection::cellular}, 5, true},
        {"13:00:00", NetworkChange{SimulatedConnection::offline}, 3, false},
    };
    ASSERT_EQ(scenario.steps.size(), std::size(expected));
    for (std::size_t i = 0; i < scenario.steps.size(); ++i) {
        const auto& step = scenario.steps[i];
        EXPECT_EQ(step.time, clock(expected[i].time)) << i;
        EXPECT_EQ(step.change, expected[i].change) << i << ": " << describe(step.change);
        EXPECT_EQ(step.line, expected[i].line) << i;
        EXPECT_EQ(step.ending, expected[i].ending) << i;
    }
}

TEST(Scenario, RefusesMistakesWithTheirLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"\nat 10:00 network lte\n", "line 2: network takes wifi, cellular or offline, not 'lte'"},
        {"at 10:00 bluetooth off", "line 1: unknown change 'bluetooth'"},
        {"# a\n# b\nat 25:00 app foreground", "line 3: bad time '25:00'"},
        {"at 10:60 app foreground", "line 1: bad time '10:60'"},
        {"at +90 app foreground", "line 1: bad time '+90'"},
        {"at +30m1h app foreground", "line 1: bad time '+30m1h'"},
        {"at 10:00", "line 1: the step says no change"},
        {"at 10:00 app", "line 1: app needs a value: foreground or background"},
        {"at 10:00 app foreground now", "line 1: unexpected 'now' after app foreground"},
        {"at 10:00 battery 150%", "line 1: battery takes a level 0..1 or a percentage, not '150%'"},
        {"at 10:00 relaunch build", "line 1: relaunch build needs a value"},
        {"at 10:00 relaunch build 4 build 5", "line 1: relaunch takes 'build B' and 'version V', not 'build'"},
        {"when 10:00 app foreground", "line 1: expected 'at TIME change' or 'from TIME to TIME change'"},
        {"from 10:00 until 11:00 app foreground", "line 1: expected 'to' after the start time"},
        {"\n\nfrom 11:00 to 11:00 app foreground", "line 3: the span ends at or before its start"},
        {"from 11:00 to 12:00 relaunch", "line 1: a relaunch happens at one moment"},
        {"from 10:00 to 11:00 network offline\nat 10:00 charging on\nfrom 10:30 to 12:00 network cellular",
         "line 3: 'from 10:30 to 12:00 network cellular' conflicts with 'from 10:00 to 11:00 network offline' on "
         "line 1"},
        {"at 10:30 wifi-only on\nfrom 10:00 to 11:00 wifi-only off",
         "line 2: 'from 10:00 to 11:00 wifi-only off' conflicts with 'at 10:30 wifi-only on' on line 1"},
        {"from 10:00 to 11:00 tracking stop\nat 10:00 tracking start", "line 2: 'at 10:00 tracking start' conflicts"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_NE(errorOf(text).find(message), std::string::npos) << errorOf(text) << "\nwanted: " << message;
    }
    EXPECT_EQ(errorOf("from 10:00 to 11:00 network offline\nfrom 11:00 to 12:00 network cellular\n"
                      "at 12:00 network offline\nat 10:00 relaunch\nat 10:00 relaunch build 2"),
              "no error")
        << "touching spans, a step at a span's end and two relaunches at once are fine";
}

TEST(Scenario, ReadsTheCommittedLondonWeekday) {
    const std::filesystem::path data(ROVALIS_SOURCE_DATA_DIR);
    const Date start = readTrace(data / "traces" / "london-weekday.gpx").front().time;
    std::vector<std::string> lines;
    for (const auto& step : readScenario(data / "scenarios" / "london-weekday.scenario", start).steps)
        lines.push_back(isoTime(step.time).substr(11, 5) + " " + describe(step.change));
    for (const char* wanted : {"08:10 network offline", "08:40 network wifi", "12:00 permission when-in-use",
                               "12:30 permission always", "18:00 relaunch as build 42", "18:20 wifi-only on"}) {
        EXPECT_NE(std::find(lines.begin(), lines.end(), wanted), lines.end()) << wanted;
    }

    test::TempDir directory;
    test::writeFile(directory / "bad.scenario", "at 10:00 network 5g\n");
    try {
        readScenario(directory / "bad.scenario", start);
        ADD_FAILURE() << "no error";
    } catch (const ScenarioError& error) {
        EXPECT_EQ(std::string(error.what()).find((directory / "bad.scenario").string() + ": line 1: network takes"), 0u)
            << error.what();
    }
}

}  // namespace
}  // namespace rovalis::sim
