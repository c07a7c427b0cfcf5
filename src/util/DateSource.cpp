#include "rovalis/DateSource.h"

#include <chrono>

namespace rovalis {

Date SystemDateSource::now() const {
    using namespace std::chrono;
    const auto sinceEpoch = system_clock::now().time_since_epoch();
    return Date{duration<double>(sinceEpoch).count()};
}

void SettableDateSource::advance(double seconds) {
    double current = seconds_.load();
    while (!seconds_.compare_exchange_weak(current, current + seconds)) {
    }
}

}  // namespace rovalis
