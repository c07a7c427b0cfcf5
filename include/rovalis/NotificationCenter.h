#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "rovalis/Export.h"
#include "rovalis/InfoDictionary.h"

namespace rovalis {

// One in-process notification: its name, an optional object and optional user info, as in
// "RVLGeneralNotification" with user info {"paused": true} or "RVLSDKNotification" with the
// object {"message": "Asleep"}.
struct Notification {
    std::string name;
    std::optional<InfoDictionary> object;
    std::optional<InfoDictionary> userInfo;
    // The object that posted it, when it names itself, for observers to compare against
    // what they hold: the SDK posts "RVLGeneralNotification" with its instance, as the
    // `Rovalis*` the host holds, so that a process with several instances can tell them apart.
    const void* sender = nullptr;
};

// An in-process notification centre. Notifications are delivered synchronously on the
// posting thread, to the observers of that name in the order they were added. Thread-safe.
// An observer may remove itself or others, or add observers, from its callback: an observer
// removed during a delivery is not called afterwards, one added during a delivery first
// hears the next post.
class ROVALIS_EXPORT NotificationCenter {
public:
    using ObserverToken = std::uint64_t;
    using Callback = std::function<void(const Notification&)>;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;

    // The process's one default centre, made on first use and never destroyed, so that it
    // can be used from anywhere until the process ends.
    static std::shared_ptr<NotificationCenter> defaultCenter();

    NotificationCenter& operator=(const NotificationCenter&) = delete;

    ObserverToken addObserver(std::string name, Callback callback);

    // After this returns the observer is not called again by later posts; a call already
    // running on another thread may still be finishing. Unknown tokens are ignored.
    void removeObserver(ObserverToken token);

    void post(const std::string& name, std::optional<InfoDictionary> object = std::nullopt,
              std::optional<InfoDictionary> userInfo = std::nullopt);
    void post(Notification notification);

private:
    struct Observer;

    mutable std::mutex mutex_;
    ObserverToken nextToken_ = 1;
    std::map<ObserverToken, std::shared_ptr<Observer>> observers_;
};

}  // namespace rovalis
