// The credentials under several threads at once: the sessions' delegate threads and the
// operations queue read and renew the ids concurrently. Also run under ThreadSanitizer.

#include <gtest/gtest.h>

#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/FileKeychain.h"
#include "support/TestSupport.h"
#include "upload/CredentialsManager.h"

namespace rovalis {
namespace {

// Runs body on every thread at once, released together.
template <typename Body>
void allAtOnce(int threads, Body body) {
    std::latch start(threads);
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&, t] {
            start.arrive_and_wait();
            body(t);
        });
    }
    for (auto& thread : running) thread.join();
}

TEST(CredentialsConcurrency, IdsAreMadeOnceAndAnAcceptanceRenewsOnceWhateverTheThreads) {
    constexpr int threads = 8;
    for (int round = 0; round < 20; ++round) {
        test::TempDir dir;
        CredentialsManager credentials(std::make_shared<FileKeychain>(dir / "Keychain"),
                                       HostInfo{"Demo", "1.0", "1", "org.example.demo", {}});

        // A fresh install: every thread asks for the device id at once and gets the same one.
        std::vector<std::string> seen(threads);
        allAtOnce(threads, [&](int t) { seen[t] = credentials.deviceId(); });
        ASSERT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), 1u);
        ASSERT_EQ(credentials.deviceId(), seen[0]);

        // One acceptance handled by every thread at once: one new id, one step of the number.
        const BatchIdentity sent{credentials.batchId(), credentials.sequentialId()};
        allAtOnce(threads, [&](int) { credentials.renewBatchIdentityAfter(sent); });
        ASSERT_NE(credentials.batchId(), sent.batchId);
        ASSERT_EQ(credentials.sequentialId(), sent.sequentialId + 1);
    }
}

}  // namespace
}  // namespace rovalis
