#pragma once

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

#include "rovalis/Export.h"

namespace rovalis {

// A queue that runs tasks one at a time, in the order they were given.
class ROVALIS_EXPORT Executor {
public:
    virtual ~Executor() = default;

    // Queues the task and returns at once.
    virtual void async(std::function<void()> task) = 0;

    // Runs the task on the queue and waits for it. Called from the queue itself, the
    // task runs in place, so a task may call sync on its own queue without deadlock.
    virtual void sync(const std::function<void()>& task) = 0;

    // True on the thread that is currently running this queue's tasks.
    virtual bool isCurrent() const = 0;
};

// Runs fn on the executor, waits, and returns its result.
template <typename Fn>
auto syncResult(Executor& executor, Fn&& fn) -> std::invoke_result_t<Fn&> {
    using Result = std::invoke_result_t<Fn&>;
    if constexpr (std::is_void_v<Result>) {
        executor.sync(std::forward<Fn>(fn));
    } else {
        std::optional<Result> result;
        executor.sync([&] { result.emplace(fn()); });
        return std::move(*result);
    }
}

}  // namespace rovalis
