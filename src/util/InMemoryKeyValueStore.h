#pragma once

#include <map>
#include <mutex>

#include "rovalis/platform/KeyValueStore.h"

namespace rovalis {

// A key-value store that lives as long as the object, for tests and the simulated device.
class InMemoryKeyValueStore final : public KeyValueStore {
public:
    std::optional<Value> object(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        const auto found = values_.find(key);
        if (found == values_.end()) return std::nullopt;
        return found->second;
    }

    void setObject(const Value& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_.insert_or_assign(key, value);
    }

    void removeObject(const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_.erase(key);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, Value> values_;
};

}  // namespace rovalis
