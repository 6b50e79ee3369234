// Counting semaphores: an unnamed one between threads, and a named one whose
// counter processes share.
#include <atomic>
#include <string>
#include <thread>

#include "NamedKinds.h"
#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

bool takeAtOnce(semaphore_handle* semaphore) {
    return os_semaphore_wait_timeout(semaphore, pastDeadline());
}

TEST(Semaphore, UnnamedCountsUnitsAndAReleaseWakesABlockedWait) {
    semaphore_handle* semaphore = os_semaphore_create(2, nullptr);
    EXPECT_TRUE(os_semaphore_set_undo_track(semaphore, true));
    EXPECT_TRUE(os_semaphore_wait(semaphore));
    EXPECT_TRUE(takeAtOnce(semaphore)) << "a free unit is taken even past the deadline";
    EXPECT_FALSE(takeAtOnce(semaphore)) << "the third take finds nothing";
    std::atomic<bool> woken{false};
    std::thread waiter([&] { woken = os_semaphore_wait_timeout(semaphore, boundedDeadline()); });
    std::this_thread::sleep_for(20ms); // let it block
    os_semaphore_release(semaphore);
    waiter.join();
    EXPECT_TRUE(woken);
    os_semaphore_destroy(&semaphore);
    EXPECT_EQ(semaphore, nullptr);

    semaphore = os_semaphore_create(-1, nullptr);
    EXPECT_FALSE(takeAtOnce(semaphore)) << "a negative count starts empty";
    os_semaphore_release(semaphore);
    EXPECT_TRUE(takeAtOnce(semaphore));
    os_semaphore_destroy(&semaphore);
}

class NamedSemaphore : public SyncTest {};

TEST_F(NamedSemaphore, ProcessesShareOneCounterWhoseLaterCountsAreIgnored) {
    using OwnedSemaphore = Owned<semaphore_handle, os_semaphore_destroy>;
    const std::string shared = name("sem");
    const auto semaphore = openMapped(shared, [&] { return OwnedSemaphore(os_semaphore_create(1, shared.c_str())); });
    EXPECT_EQ(MappedObject(shared).bytes[36], 0) << "the System V flag byte stays 0";
    Signal emptied;
    Child other([&] {
        const auto mine = openMapped(shared, [&] { return OwnedSemaphore(os_semaphore_create(5, shared.c_str())); });
        // Exit codes: 1 the first creator's unit missing, 2 the later count of 5 taken.
        const int counted = !takeAtOnce(mine.get()) ? 1 : takeAtOnce(mine.get()) ? 2 : 0;
        emptied.notify();
        return counted != 0 ? counted : os_semaphore_wait(mine.get()) ? 0 : 3;
    });
    ASSERT_TRUE(emptied.waitFor());
    std::this_thread::sleep_for(20ms); // let it block
    os_semaphore_release(semaphore.get());
    EXPECT_EQ(other.wait().exitCode, 0);
    EXPECT_FALSE(takeAtOnce(semaphore.get()));
}

} // namespace
