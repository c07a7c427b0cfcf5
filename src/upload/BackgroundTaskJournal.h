#pragma once

// The on-disk record of a background session's pending upload tasks, so that a process
// that starts again can finish what an earlier one left. One file per session identifier,
// replaced atomically on every change. Credentials are never written: the "Authorization"
// header is left out and put back by the session's delegate when a task is restored.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "upload/UrlSession.h"

namespace rovalis {

struct JournaledTask {
    std::uint64_t taskIdentifier = 0;
    UrlRequest request;
    std::filesystem::path bodyFile;
    Date created;
};

class BackgroundTaskJournal {
public:
    BackgroundTaskJournal(std::filesystem::path directory, const std::string& sessionIdentifier);

    const std::filesystem::path& file() const { return file_; }

    // The journaled tasks. A file that cannot be read as a journal, and entries that
    // cannot be read as tasks, are dropped with a console line.
    std::vector<JournaledTask> load() const;

    // Replaces the journal with these tasks (none removes the file). Answers whether the
    // change reached the disk; a failure is also written to the console.
    bool store(const std::vector<JournaledTask>& tasks) const;

    // The request as it may be written down: without credentials.
    static UrlRequest withoutCredentials(const UrlRequest& request);

private:
    const std::filesystem::path directory_;
    const std::filesystem::path file_;
};

}  // namespace rovalis
