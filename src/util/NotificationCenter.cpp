#include "rovalis/NotificationCenter.h"

#include <atomic>
#include <vector>

namespace rovalis {

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() {
    // Deliberately leaked: no static destructor may run while other threads still post.
    static const auto* const center = new std::shared_ptr<NotificationCenter>(std::make_shared<NotificationCenter>());
    return *center;
}

struct NotificationCenter::Observer {
    std::string name;
    Callback callback;
    std::atomic<bool> active{true};
};

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::string name, Callback callback) {
    auto observer = std::make_shared<Observer>();
    observer->name = std::move(name);
    observer->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    const ObserverToken token = nextToken_++;
    observers_.emplace(token, std::move(observer));
    return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::shared_ptr<Observer> removed;
    {
        std::lock_guard lock(mutex_);
        const auto found = observers_.find(token);
        if (found == observers_.end()) return;
        removed = std::move(found->second);
        observers_.erase(found);
    }
    removed->active = false;
}

void NotificationCenter::post(const std::string& name, std::optional<InfoDictionary> object,
                              std::optional<InfoDictionary> userInfo) {
    post(Notification{name, std::move(object), std::move(userInfo)});
}

void NotificationCenter::post(Notification notification) {
    std::vector<std::shared_ptr<Observer>> recipients;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, observer] : observers_) {
            if (observer->name == notification.name) recipients.push_back(observer);
        }
    }
    // Called without the lock, so that callbacks may add and remove observers.
    for (const auto& observer : recipients) {
        if (observer->active) observer->callback(notification);
    }
}

}  // namespace rovalis
