// rovalis-sim: replays a day of movement through the real SDK on the simulated device,
// against a collection service, and shows what the SDK made of it.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>

#include "platform/sim/Scenario.h"
#include "platform/sim/TraceReader.h"
#include "platform/sim/TraceTime.h"
#include "rovalis/Console.h"
#include "sim/ReportRenderers.h"
#include "sim/SimulationRunner.h"

namespace {

using namespace rovalis;
using namespace rovalis::sim;

// A one-line bar of simulated time, redrawn in place.
void drawProgress(Date now, double fraction) {
    constexpr int width = 40;
    const int filled = static_cast<int>(fraction * width + 0.5);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r  [%s] %s %3d%%", bar.c_str(), isoTime(now).c_str(), static_cast<int>(fraction * 100 + 0.5));
    std::fflush(stderr);
}

bool writeText(const std::filesystem::path& file, const std::string& text) {
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out << text;
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    std::filesystem::path trace;
    std::optional<std::filesystem::path> scenario;
    std::optional<std::string> serviceURL;
    std::filesystem::path out = "out/sim";
    std::optional<std::filesystem::path> summaryJson;
    std::optional<std::filesystem::path> map;
    std::uint64_t seed = 1;
    bool quiet = false;
    bool integration = false;

    CLI::App app{"Replays a trace through the SDK on the simulated device and reports what it recorded, "
                 "where it slept, what it spent and what it delivered."};
    app.add_option("--trace", trace, "GPX 1.1 or CSV (time, latitude, longitude[, accuracy]) trace")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--scenario", scenario, "Scenario file: what happens to the device and the app, and when")
        ->check(CLI::ExistingFile);
    app.add_option("--service-url", serviceURL,
                   "Collection service to upload to (default: one started in-process on a free loopback port)");
    app.add_option("--out", out, "Directory for the device's files, the service's database and the map")
        ->capture_default_str();
    app.add_option("--summary-json", summaryJson, "Also write the summary's figures as JSON to this file");
    app.add_option("--map", map, "Where to write the map page (default: <out>/map.html)");
    app.add_option("--seed", seed, "Seed of the device's randomness; the same seed gives the same day")
        ->capture_default_str();
    app.add_flag("--quiet", quiet, "No progress bar and none of the SDK's console lines");
    app.add_flag("--integration", integration, "Run an integration build (stays after 15 seconds)");
    CLI11_PARSE(app, argc, argv);

    std::signal(SIGPIPE, SIG_IGN);
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    const bool showProgress = !quiet && ::isatty(STDERR_FILENO) == 1;
    // The SDK's console lines would tear the progress bar; they go to a log file instead.
    std::filesystem::create_directories(out);
    std::ofstream consoleLog(out / "console.log");
    Console::setSink([&](std::string_view line) { consoleLog << line << '\n'; });

    try {
        SimulationOptions options;
        options.serviceURL = serviceURL;
        options.outDir = out;
        options.seed = seed;
        options.integrationBuild = integration;
        if (showProgress) options.progress = drawProgress;
        SimulationRunner runner(readSimulationInput(trace, scenario), options);
        const SimulationReport report = runner.run();
        if (showProgress) std::fprintf(stderr, "\n");

        std::cout << renderSummary(report, terminal);
        const auto mapFile = map.value_or(out / "map.html");
        if (!writeText(mapFile, renderMapHtml(report))) {
            std::cerr << "could not write " << mapFile << std::endl;
            return 1;
        }
        std::cout << "\nMap: " << mapFile.string() << "\nSDK console: " << (out / "console.log").string() << "\n";
        if (summaryJson) {
            if (!writeText(*summaryJson, renderSummaryJson(report))) {
                std::cerr << "could not write " << *summaryJson << std::endl;
                return 1;
            }
            std::cout << "Summary figures: " << summaryJson->string() << "\n";
        }
        // A service without read-back leaves nothing to check once the run has gone through.
        return !report.delivery.readBack || report.deliveredExactlyOnce() ? 0 : 1;
    } catch (const std::exception& error) {
        if (showProgress) std::fprintf(stderr, "\n");
        std::cerr << "rovalis-sim: " << error.what() << std::endl;
        return 2;
    }
}
