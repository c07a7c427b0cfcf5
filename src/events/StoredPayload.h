#pragma once

// What an event row keeps of its event's JSON. Every event ends with its time and type,
// `"tracked_at_ms":<ms>,"type":"<type>"}`, which the row's own columns hold too; the row
// keeps the JSON without that ending whenever the columns give it back byte for byte,
// which cuts a 20 Hz acceleration row to less than half. A kept payload that ends in ','
// is cut; one that ends otherwise (a JSON object ends in '}') is whole, as rows of older
// stores and events of another shape are.

#include <string>
#include <string_view>

namespace rovalis::stored_payload {

// The payload as the row keeps it: a prefix of payload, or payload itself. scratch holds
// the ending it was checked against.
std::string_view kept(std::string_view type, double trackedAt, std::string_view payload, std::string& scratch);

// Replaces out with the event's JSON, from what its row keeps.
void restore(std::string_view type, double trackedAt, std::string_view kept, std::string& out);

std::string restored(std::string_view type, double trackedAt, std::string_view kept);

}  // namespace rovalis::stored_payload
