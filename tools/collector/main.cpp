// rovalis-collector: the local collection service for development and end-to-end runs.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>

#include "collector/CollectorServer.h"

int main(int argc, char** argv) {
    using namespace rovalis::collector;

    CollectorOptions options;
    std::string database;
    CLI::App app{"Local collection service: accepts event batch uploads and stores them in SQLite."};
    app.add_option("--host", options.host, "Address to listen on")->capture_default_str();
    app.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    app.add_option("--db", database, "SQLite file that keeps the batches (default: in memory)");
    app.add_option("--fail-every", options.faults.failEvery, "Fail every Nth upload without storing it")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--fail-status", options.faults.failStatus, "Status of a failed upload")
        ->capture_default_str()
        ->check(CLI::Range(200, 599));
    app.add_option("--fail-body", options.faults.failBody, "Body of a failed upload")->capture_default_str();
    app.add_option("--delay-ms", options.faults.delayMs, "Delay every upload's answer")->check(CLI::Range(0, 86400000));
    app.add_option("--drop-every", options.faults.dropEvery,
                   "Close the connection of every Nth upload unanswered, before storing it")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--garbage-every", options.faults.garbageEvery,
                   "Store every Nth upload and answer it 200 with a body that is not JSON")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--close-after-store-every", options.faults.closeAfterStoreEvery,
                   "Store every Nth upload, then close its connection without an answer")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--reset-after-store-every", options.faults.resetAfterStoreEvery,
                   "Store every Nth upload, then reset its connection without an answer")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--late-answer-every", options.faults.lateAnswerEvery,
                   "Store every Nth upload, then hold its answer for --late-answer-ms")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--late-answer-ms", options.faults.lateAnswerMs, "How long a late answer is held")
        ->capture_default_str()
        ->check(CLI::Range(0, 86400000));
    app.add_option("--trickle-every", options.faults.trickleEvery,
                   "Store every Nth upload, then write its answer one byte per --trickle-interval-ms")
        ->check(CLI::Range(0, 86400000));
    app.add_option("--trickle-interval-ms", options.faults.trickleIntervalMs, "Time between the bytes of a trickle")
        ->capture_default_str()
        ->check(CLI::Range(0, 86400000));
    app.footer(
        "At most one fault besides the delay acts on an upload. A drop or a failure acts before anything is "
        "stored, a drop first. The others act on an upload that is answered 200 (stored now or before), after "
        "storing; the first that hits wins, in this order: close after store, reset after store, late answer, "
        "trickle, garbage. A batch id received before is answered 200 and not stored again when its content is "
        "the same, 409 when it differs.");
    CLI11_PARSE(app, argc, argv);
    options.databasePath = database;

    // The signals are taken by sigwait on this thread; every thread started after this
    // inherits the blocked mask, so no handler runs anywhere.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        CollectorServer server(options);
        server.start();
        std::cout << "rovalis-collector listening on " << server.baseURL() << std::endl;
        int received = 0;
        sigwait(&signals, &received);
        std::cout << "rovalis-collector stopping (" << (received == SIGINT ? "SIGINT" : "SIGTERM") << ")"
                  << std::endl;
        server.stop();
        std::cout << statsJson(server.stats()) << std::endl;
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        return 1;
    }
    return 0;
}
