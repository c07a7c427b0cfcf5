#include "upload/Keychain.h"

#include "util/Fatal.h"

namespace rovalis {

std::string keychainService(const HostInfo& host) {
    if (host.identifier && !host.identifier->empty()) return *host.identifier;
    return "rovalis";
}

bool isValidUtf8(std::string_view bytes) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        // The smallest code point each length may carry, so that overlong forms fail.
        char32_t minimum = 0;
        char32_t code = 0;
        if ((lead & 0xE0) == 0xC0) {
            length = 2;
            minimum = 0x80;
            code = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            minimum = 0x800;
            code = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            minimum = 0x10000;
            code = lead & 0x07;
        } else {
            return false;
        }
        if (bytes.size() - i < length) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(bytes[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            code = code << 6 | (next & 0x3F);
        }
        if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

KeychainItemOperations::KeychainItemOperations(std::shared_ptr<KeychainStore> store,
                                               std::shared_ptr<const KeychainItem> item)
    : store_(std::move(store)), item_(std::move(item)) {}

KeychainQuery KeychainItemOperations::query() const {
    return KeychainQuery{item_->itemClass(), item_->service(), item_->key()};
}

void KeychainItemOperations::fail(std::string_view action, std::string_view preposition,
                                  KeychainStatus status) const {
    fatalError("Could not " + std::string(action) + " " + item_->key() + " " + std::string(preposition) +
               " Keychain.\n" + store_->statusMessage(status));
}

bool KeychainItemOperations::exists() const {
    return store_->copyMatching(query(), false).status == kKeychainSuccess;
}

std::optional<KeychainOperationable::Bytes> KeychainItemOperations::retrieve() const {
    auto lookup = store_->copyMatching(query(), true);
    if (lookup.status != kKeychainSuccess) return std::nullopt;
    if (!lookup.data) fail("retrieve", "from", lookup.status);
    return std::move(lookup.data);
}

void KeychainItemOperations::add(const Bytes& data) const {
    if (item_->key().empty()) fatalError("should not use an empty key");
    const KeychainStatus status = store_->add(query(), item_->accessibility(), data);
    if (status != kKeychainSuccess) fail("add", "to", status);
}

void KeychainItemOperations::update(const Bytes& data) const {
    const KeychainStatus status = store_->update(query(), data, item_->accessibility());
    if (status != kKeychainSuccess) fail("update", "to", status);
}

void KeychainItemOperations::deleteItem() const {
    const KeychainStatus status = store_->remove(query());
    if (status != kKeychainSuccess) fail("delete", "from", status);
}

KeychainWrapper::KeychainWrapper(std::shared_ptr<KeychainStore> store, std::shared_ptr<const KeychainItem> item,
                                 std::optional<std::vector<std::uint8_t>> defaultValue)
    : item_(item), defaultValue_(std::move(defaultValue)), operations_(std::move(store), std::move(item)) {}

std::optional<std::string> KeychainWrapper::decode(const std::vector<std::uint8_t>& data) const {
    std::string text(data.begin(), data.end());
    // The message gives the length only: the bytes may be a secret, and no secret goes to
    // the console.
    if (!isValidUtf8(text)) fatalError("Could not encode " + std::to_string(data.size()) + " bytes to String.");
    return text;
}

std::optional<std::string> KeychainWrapper::value() const {
    if (operations_.exists()) {
        if (const auto data = operations_.retrieve()) return decode(*data);
    }
    if (defaultValue_) return decode(*defaultValue_);
    return std::nullopt;
}

void KeychainWrapper::setValue(const std::optional<std::string>& value) {
    if (!value) {
        if (operations_.exists()) operations_.deleteItem();
        return;
    }
    if (!isValidUtf8(*value)) fatalError("Could not encode a string item to Data");
    const std::vector<std::uint8_t> data(value->begin(), value->end());
    if (operations_.exists()) {
        operations_.update(data);
    } else {
        operations_.add(data);
    }
}

}  // namespace rovalis
