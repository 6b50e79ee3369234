// Reader-writer mutexes, thread-local between threads and named between
// processes: readers share, a writer excludes, readers go first.

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

#include "NamedKinds.h"
#include "SyncTestSupport.h"

namespace {

using namespace kvtest;
using OwnedLock = Owned<rw_mutex_handle, os_rw_mutex_destroy>;

// The first entry of this thread's list of robust mutexes it holds, as the
// kernel has it; null where the list cannot be read (an emulator).
const void* firstRobustEntry() {
    robust_list_head* head = nullptr;
    size_t length = 0;
    if (syscall(SYS_get_robust_list, 0, &head, &length) != 0 || head == nullptr)
        return nullptr;
    return head->list.next;
}

// The parameter: a named lock (true) or a thread-local one.
class RWMutex : public SyncTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        SyncTest::SetUp();
        m_name = GetParam() ? name("rw") : "";
        m_lock = GetParam() ? openMapped(m_name, [&] { return OwnedLock(os_rw_mutex_create(m_name.c_str())); })
                            : OwnedLock(os_rw_mutex_create(nullptr));
    }
    void TearDown() override {
        m_lock.reset();
        SyncTest::TearDown();
    }
    // A reader or writer (a thread sharing the lock, or a process opening it
    // by name) that takes the lock, says so on `in` and unlocks when told on `go`.
    std::unique_ptr<Worker> locker(bool writer, Signal& in, Signal& go) {
        return std::make_unique<Worker>(GetParam(), [this, writer, &in, &go] {
            OwnedLock own;
            if (GetParam())
                own = openMapped(m_name, [&] { return OwnedLock(os_rw_mutex_create(m_name.c_str())); });
            rw_mutex_handle* lock = GetParam() ? own.get() : m_lock.get();
            writer ? os_rw_mutex_lock_wr(lock) : os_rw_mutex_lock_rd(lock);
            in.notify();
            const bool told = go.waitFor();
            os_rw_mutex_unlock(lock);
            return told ? 0 : 1;
        });
    }

    std::string m_name;
    OwnedLock m_lock;
};

// This thread reads first and leaves first: a named lock's hold mutex refuses
// an unlock by a reader that did not take it, so the lock must stay usable
// when the last reader is not the first, and this thread must not keep the
// hold mutex on its list of robust mutexes once the lock's memory is unmapped
// (glibc writes into that list's entries on every later robust lock).
TEST_P(RWMutex, ReadersShareAWriterWaitsForAllOfThemAndKeepsLaterReadersOut) {
    const void* robustEntry = firstRobustEntry();
    os_rw_mutex_lock_rd(m_lock.get());
    Signal readerIn, readerGo, writerIn, writerGo, lateIn, lateGo, laterIn, laterGo;
    const auto reader = locker(false, readerIn, readerGo);
    ASSERT_TRUE(readerIn.waitFor()) << "readers share the lock";
    if (GetParam()) {
        EXPECT_EQ(MappedObject(m_name).bytes[4], 2) << "the reader count at offset 4";
    }
    const auto writer = locker(true, writerIn, writerGo);
    EXPECT_FALSE(writerIn.waitFor(50ms));
    const auto late = locker(false, lateIn, lateGo);
    EXPECT_TRUE(lateIn.waitFor()) << "a reader arriving while a writer waits is admitted";
    os_rw_mutex_unlock(m_lock.get()); // the first reader leaves first
    readerGo.notify();
    EXPECT_EQ(reader->result(), 0);
    EXPECT_FALSE(writerIn.waitFor(50ms)) << "a reader still reads";
    lateGo.notify();
    EXPECT_EQ(late->result(), 0);
    EXPECT_TRUE(writerIn.waitFor()) << "a writer must get the lock once every reader has left";
    if (GetParam()) {
        EXPECT_EQ(MappedObject(m_name).bytes[8], 1) << "the writer flag at offset 8";
    }
    const auto later = locker(false, laterIn, laterGo);
    EXPECT_FALSE(laterIn.waitFor(50ms)) << "a reader waits for the writer";
    writerGo.notify();
    EXPECT_TRUE(laterIn.waitFor());
    laterGo.notify();
    EXPECT_EQ(writer->result(), 0);
    EXPECT_EQ(later->result(), 0);
    m_lock.reset();
    EXPECT_EQ(firstRobustEntry(), robustEntry) << "the first reader still holds the hold mutex";
}

// Threads reading and writing one thread-local lock at random: no reader ever
// meets a writer and no writer meets anyone. Run in a child, so a lost
// wake-up fails the test instead of hanging it.
TEST(ThreadLocalRWMutex, StressKeepsWritersExclusive) {
    const ChildResult result = runInChild([] {
        rw_mutex_handle* lock = os_rw_mutex_create(nullptr);
        std::atomic<int> readers{0}, writers{0}, faults{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 20000; ++i) {
                    const bool write = (i * 7 + t) % 5 == 0;
                    write ? os_rw_mutex_lock_wr(lock) : os_rw_mutex_lock_rd(lock);
                    std::atomic<int>& mine = write ? writers : readers;
                    mine.fetch_add(1);
                    std::this_thread::yield(); // let the others try while it is held
                    faults += writers.load() > (write ? 1 : 0) || (write && readers.load() > 0);
                    mine.fetch_sub(1);
                    os_rw_mutex_unlock(lock);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        os_rw_mutex_destroy(&lock);
        return faults.load() == 0 ? 0 : 1;
    });
    EXPECT_TRUE(result.exited) << "timed out: " << result.timedOut;
    EXPECT_EQ(result.exitCode, 0) << "exclusion broken";
}

INSTANTIATE_TEST_SUITE_P(Kinds, RWMutex, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Named" : "ThreadLocal";
});

} // namespace
