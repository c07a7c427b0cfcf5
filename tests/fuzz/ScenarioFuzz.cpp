// The simulator's scenario parser and the device list: a scenario is written by hand and the
// device list can be replaced in an installation. A scenario is refused with a ScenarioError
// or read, and every beacon it places, described as a line, reads back the same.
//
// The first byte chooses: 0 a scenario, 1 the device list, 2 a device description.

#include <cstddef>
#include <cstdint>
#include <variant>

#include "FuzzSupport.h"
#include "platform/sim/Scenario.h"
#include "rovalis/Console.h"
#include "util/DeviceUtil.h"

namespace {

using rovalis::fuzz::require;
namespace sim = rovalis::sim;

const rovalis::Date traceStart{1714550400.0};  // a midnight UTC

void scenario(std::string_view text) {
    sim::Scenario parsed;
    try {
        parsed = sim::parseScenario(text, traceStart);
    } catch (const sim::ScenarioError&) {
        return;
    }
    for (const auto& beacon : parsed.beacons) {
        const auto again = sim::parseScenario(sim::describe(beacon), traceStart);
        require(again.beacons.size() == 1, "a beacon's line did not read back as one beacon");
        auto expected = beacon;
        expected.line = again.beacons[0].line;
        require(again.beacons[0] == expected, "a beacon changed through its line");
    }
    // A change's description is for people (a relaunch reads "relaunch as build 42", a battery
    // level is rounded), so it only has to be made.
    for (const auto& step : parsed.steps) (void)sim::describe(step.change);
}

void deviceList(std::string_view text) {
    static const auto directory = [] {
        const auto path = rovalis::fuzz::scratchDirectory() / "resources";
        std::filesystem::create_directories(path);
        rovalis::RVL_DeviceUtil::setResourceDirectory(path);
        return path;
    }();
    rovalis::fuzz::writeFile(directory / "DeviceList.json", text);
    (void)rovalis::RVL_DeviceUtil::hardwareDescription();
    (void)rovalis::RVL_DeviceUtil::hardwareSimpleDescription();
    (void)rovalis::RVL_DeviceUtil::hardwareNumber();
}

void deviceDescription(std::string_view text) { (void)rovalis::RVL_DeviceUtil::simpleDescription(std::string(text)); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    rovalis::Console::setSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return rovalis::fuzz::readWithChosenReader(data, size, {scenario, deviceList, deviceDescription});
}
