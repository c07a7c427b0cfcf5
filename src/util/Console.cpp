#include "rovalis/Console.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace rovalis {
namespace {

std::mutex& sinkMutex() {
    static std::mutex mutex;
    return mutex;
}

// Leaked on purpose: nothing may run in static destructors, and lines can still be
// logged by threads that outlive main's locals.
Console::Sink& currentSink() {
    static auto* sink = new Console::Sink();
    return *sink;
}

}  // namespace

void Console::log(std::string_view line) {
    std::lock_guard lock(sinkMutex());
    if (auto& sink = currentSink()) {
        sink(line);
        return;
    }
    std::string text(line);
    text.push_back('\n');
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

Console::Sink Console::setSink(Sink sink) {
    std::lock_guard lock(sinkMutex());
    Sink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

}  // namespace rovalis
