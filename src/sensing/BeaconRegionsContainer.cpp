#include "sensing/BeaconRegionsContainer.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "rovalis/Console.h"
#include "rovalis/SleepRegions.h"

namespace rovalis {

namespace {

using Json = nlohmann::json;

// A JSON integer from 0 to 65535; a number with a fraction, a boolean or a text is not one.
std::optional<std::uint16_t> regionNumber(const Json& value) {
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (number <= 0xFFFF) return static_cast<std::uint16_t>(number);
    } else if (value.is_number_integer()) {
        const auto number = value.get<std::int64_t>();
        if (number >= 0 && number <= 0xFFFF) return static_cast<std::uint16_t>(number);
    }
    return std::nullopt;
}

std::string defaultIdentifier(std::size_t index) {
    return BeaconRegionsContainer::defaultIdentifierPrefix + std::to_string(index);
}

// The region an entry describes, or why it cannot be one. `taken` holds the identifiers of the
// regions accepted before it.
std::variant<BeaconRegion, std::string> regionOf(const Json& entry, std::size_t index,
                                                 const std::vector<BeaconRegion>& taken) {
    if (!entry.is_object()) return std::string("it is not an object");

    BeaconRegion region;
    const auto uuid = entry.find("uuid");
    if (uuid == entry.end()) return std::string("\"uuid\" is missing");
    const auto parsedUuid = uuid->is_string() ? Uuid::parse(uuid->get<std::string>()) : std::nullopt;
    if (!parsedUuid) return "\"uuid\" is not a UUID text: " + uuid->dump();
    region.constraint.uuid = *parsedUuid;

    const std::pair<const char*, std::optional<std::uint16_t>*> numbers[] = {{"major", &region.constraint.major},
                                                                             {"minor", &region.constraint.minor}};
    for (const auto& [key, field] : numbers) {
        const auto value = entry.find(key);
        if (value == entry.end()) continue;
        *field = regionNumber(*value);
        if (!*field) return "\"" + std::string(key) + "\" is not an integer from 0 to 65535: " + value->dump();
    }
    if (region.constraint.minor && !region.constraint.major) return std::string("\"minor\" is given without \"major\"");

    region.identifier = defaultIdentifier(index);
    if (const auto identifier = entry.find("identifier"); identifier != entry.end()) {
        if (!identifier->is_string()) return "\"identifier\" is not a text: " + identifier->dump();
        region.identifier = identifier->get<std::string>();
        if (region.identifier.empty()) return std::string("\"identifier\" is empty");
    }
    const std::string& sleepPrefix = SleepRegionConfiguration{}.identifierPrefix;
    if (region.identifier.starts_with(sleepPrefix)) {
        return "identifier \"" + region.identifier + "\" starts with \"" + sleepPrefix +
               "\", which the sleep regions use";
    }
    const auto same = std::find_if(taken.begin(), taken.end(),
                                   [&](const BeaconRegion& other) { return other.identifier == region.identifier; });
    if (same != taken.end()) return "identifier \"" + region.identifier + "\" is used by an earlier region";
    return region;
}

}  // namespace

BeaconRegionsContainer::BeaconRegionsContainer(const InfoDictionary& info) {
    const auto found = info.find(infoKey);
    if (found == info.end()) return;
    const std::string prefix = std::string(infoKey) + ": ";
    const auto* text = std::get_if<std::string>(&found->second);
    if (!text) {
        Console::log(prefix + "not a text; no beacon region is watched");
        return;
    }
    const Json entries = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (!entries.is_array()) {
        // A parse error gives a discarded value, which is no array either.
        Console::log(prefix + "not a JSON array; no beacon region is watched");
        return;
    }
    for (std::size_t index = 0; index < entries.size(); ++index) {
        auto region = regionOf(entries[index], index, regions_);
        if (auto* reason = std::get_if<std::string>(&region)) {
            Console::log(prefix + "entry " + std::to_string(index) + " refused: " + *reason);
        } else {
            regions_.push_back(std::move(std::get<BeaconRegion>(region)));
        }
    }
}

bool BeaconRegionsContainer::contains(const std::string& identifier) const {
    return std::any_of(regions_.begin(), regions_.end(),
                       [&](const BeaconRegion& region) { return region.identifier == identifier; });
}

}  // namespace rovalis
