#include "rovalis/DateSource.h"

#include <chrono>

namespace rovalis {

Date SystemDateSource::now() const {
    using namespace std::chrono;
    const auto sinceEpoch = system_clock::now().time_since_epoch();
    return Date{duration<double>(sinceEpoch).count()};
}

}  // namespace rovalis
