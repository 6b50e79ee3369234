// Reader-writer mutexes through the exported functions: thread-local ones
// between threads, named ones between forked processes.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "SyncObjectsSupport.h"
#include "korvane/sync.h"

using namespace std::chrono_literals;

namespace {

// A thread that takes the lock (for reading or writing) and holds it until told.
class Holder {
public:
    Holder(rw_mutex_handle* lock, bool writer) : m_thread([this, lock, writer] {
        if (writer)
            os_rw_mutex_lock_wr(lock);
        else
            os_rw_mutex_lock_rd(lock);
        m_holding = true;
        kvtest::eventually([this] { return m_release.load(); });
        os_rw_mutex_unlock(lock);
    }) {}
    ~Holder() {
        m_release = true;
        m_thread.join();
    }
    bool holding() const { return m_holding; }
    // True when the lock is still not taken after a short look.
    bool stillWaiting() const {
        std::this_thread::sleep_for(30ms);
        return !m_holding;
    }
    void release() { m_release = true; }

private:
    std::atomic<bool> m_holding{false};
    std::atomic<bool> m_release{false};
    std::thread m_thread;
};

TEST(RWMutex, NullAndUnusableHandlesReturnAtOnce) {
    os_rw_mutex_lock_rd(nullptr);
    os_rw_mutex_lock_wr(nullptr);
    os_rw_mutex_unlock(nullptr);
    rw_mutex_handle* none = nullptr;
    os_rw_mutex_destroy(&none);
    os_rw_mutex_destroy(nullptr);
    const std::string overlong(1024, 'r');
    rw_mutex_handle* unusable = os_rw_mutex_create(overlong.c_str());
    os_rw_mutex_lock_wr(unusable);
    os_rw_mutex_lock_wr(unusable);
    os_rw_mutex_lock_rd(unusable);
    os_rw_mutex_unlock(unusable);
    os_rw_mutex_destroy(&unusable);
    EXPECT_EQ(unusable, nullptr);
}

TEST(RWMutex, WriterIsExcludedUntilBothReadersUnlock) {
    rw_mutex_handle* lock = os_rw_mutex_create(nullptr);
    os_rw_mutex_lock_rd(lock);
    {
        Holder secondReader(lock, false);
        ASSERT_TRUE(kvtest::eventually([&] { return secondReader.holding(); })) << "readers share the lock";
        Holder writer(lock, true);
        EXPECT_TRUE(writer.stillWaiting());
        secondReader.release();
        EXPECT_TRUE(writer.stillWaiting()) << "one reader still holds the lock";
        os_rw_mutex_unlock(lock);
        EXPECT_TRUE(kvtest::eventually([&] { return writer.holding(); }));
    }
    os_rw_mutex_destroy(&lock);
}

TEST(RWMutex, ReaderWaitsForTheWriter) {
    rw_mutex_handle* lock = os_rw_mutex_create(nullptr);
    os_rw_mutex_lock_wr(lock);
    {
        Holder reader(lock, false);
        EXPECT_TRUE(reader.stillWaiting());
        os_rw_mutex_unlock(lock);
        EXPECT_TRUE(kvtest::eventually([&] { return reader.holding(); }));
    }
    os_rw_mutex_destroy(&lock);
}

TEST(RWMutex, ReaderIsAdmittedWhileAWriterWaits) {
    rw_mutex_handle* lock = os_rw_mutex_create(nullptr);
    os_rw_mutex_lock_rd(lock);
    {
        Holder writer(lock, true);
        EXPECT_TRUE(writer.stillWaiting());
        {
            Holder lateReader(lock, false);
            EXPECT_TRUE(kvtest::eventually([&] { return lateReader.holding(); })) << "readers go first";
            EXPECT_FALSE(writer.holding());
        }
        EXPECT_TRUE(writer.stillWaiting());
        os_rw_mutex_unlock(lock);
        EXPECT_TRUE(kvtest::eventually([&] { return writer.holding(); }));
    }
    os_rw_mutex_destroy(&lock);
}

class NamedRWMutex : public kvtest::SyncManagerTest {};

TEST_F(NamedRWMutex, ObjectMemoryHasItsLayoutAndGoesWithTheLastHandle) {
    const std::string shared = name("rw");
    rw_mutex_handle* first = os_rw_mutex_create(shared.c_str());
    EXPECT_EQ(kvtest::segmentSize(shared), 152);
    rw_mutex_handle* second = os_rw_mutex_create(shared.c_str());
    EXPECT_EQ(kvtest::openCountOf(shared), 2);
    os_rw_mutex_lock_rd(first);
    os_rw_mutex_lock_rd(second);
    {
        kvtest::MappedObject memory(shared);
        ASSERT_NE(memory.bytes, nullptr);
        EXPECT_EQ(memory.bytes[4], 2) << "reader count at offset 4";
        EXPECT_EQ(memory.bytes[8], 0) << "writer flag at offset 8";
    }
    os_rw_mutex_unlock(second);
    os_rw_mutex_unlock(first);
    os_rw_mutex_destroy(&first);
    EXPECT_EQ(kvtest::openCountOf(shared), 1);
    os_rw_mutex_lock_wr(second);
    os_rw_mutex_unlock(second);
    os_rw_mutex_destroy(&second);
    EXPECT_EQ(kvtest::segmentSize(shared), -1);
}

// The first reader is this process; a second process reads too, a third
// wants to write and must wait for both.
TEST_F(NamedRWMutex, WriterInAnotherProcessWaitsForReadersInTwoProcesses) {
    const std::string shared = name("rw");
    rw_mutex_handle* lock = os_rw_mutex_create(shared.c_str());
    os_rw_mutex_lock_rd(lock);
    kvtest::Signal readerIn, readerGo, writerIn;
    kvtest::Child reader([&] {
        rw_mutex_handle* other = os_rw_mutex_create(shared.c_str());
        os_rw_mutex_lock_rd(other);
        readerIn.notify();
        const bool told = readerGo.waitFor();
        os_rw_mutex_unlock(other);
        os_rw_mutex_destroy(&other);
        return told ? 0 : 1;
    });
    ASSERT_TRUE(readerIn.waitFor()) << "a second process must share the read lock";
    kvtest::Child writer([&] {
        rw_mutex_handle* other = os_rw_mutex_create(shared.c_str());
        os_rw_mutex_lock_wr(other);
        writerIn.notify();
        os_rw_mutex_unlock(other);
        os_rw_mutex_destroy(&other);
        return 0;
    });
    EXPECT_FALSE(writerIn.waitFor(50ms));
    readerGo.notify();
    EXPECT_TRUE(reader.wait().exitCode == 0);
    EXPECT_FALSE(writerIn.waitFor(50ms)) << "this process still reads";
    os_rw_mutex_unlock(lock);
    EXPECT_TRUE(writerIn.waitFor());
    const kvtest::ChildResult result = writer.wait();
    EXPECT_TRUE(result.exited && result.exitCode == 0);
    os_rw_mutex_destroy(&lock);
}

// The first reader leaves before the last one. The last reader's release of
// the hold mutex is refused (it is not its owner), and the lock must still be
// usable by a writer elsewhere.
TEST_F(NamedRWMutex, StaysUsableWhenTheLastReaderIsNotTheFirst) {
    const std::string shared = name("rw");
    rw_mutex_handle* lock = os_rw_mutex_create(shared.c_str());
    os_rw_mutex_lock_rd(lock);
    kvtest::Signal readerIn, readerGo;
    kvtest::Child lastReader([&] {
        rw_mutex_handle* other = os_rw_mutex_create(shared.c_str());
        os_rw_mutex_lock_rd(other);
        readerIn.notify();
        const bool told = readerGo.waitFor();
        os_rw_mutex_unlock(other);
        os_rw_mutex_destroy(&other);
        return told ? 0 : 1;
    });
    ASSERT_TRUE(readerIn.waitFor());
    os_rw_mutex_unlock(lock); // the first reader leaves first
    readerGo.notify();
    EXPECT_EQ(lastReader.wait().exitCode, 0);

    const kvtest::ChildResult writer = kvtest::runInChild(
        [&] {
            rw_mutex_handle* other = os_rw_mutex_create(shared.c_str());
            os_rw_mutex_lock_wr(other);
            os_rw_mutex_unlock(other);
            os_rw_mutex_destroy(&other);
            return 0;
        },
        5s);
    EXPECT_FALSE(writer.timedOut) << "a writer must get the lock once every reader has left";
    EXPECT_TRUE(writer.exited && writer.exitCode == 0);
    os_rw_mutex_destroy(&lock);
}

TEST_F(NamedRWMutex, ReaderInAnotherProcessWaitsForTheWriter) {
    const std::string shared = name("rw");
    rw_mutex_handle* lock = os_rw_mutex_create(shared.c_str());
    os_rw_mutex_lock_wr(lock);
    kvtest::Signal readerIn;
    kvtest::Child reader([&] {
        rw_mutex_handle* other = os_rw_mutex_create(shared.c_str());
        os_rw_mutex_lock_rd(other);
        readerIn.notify();
        os_rw_mutex_unlock(other);
        os_rw_mutex_destroy(&other);
        return 0;
    });
    EXPECT_FALSE(readerIn.waitFor(50ms));
    os_rw_mutex_unlock(lock);
    EXPECT_TRUE(readerIn.waitFor());
    EXPECT_EQ(reader.wait().exitCode, 0);
    os_rw_mutex_destroy(&lock);
}

// A process dies holding the gate mutex (offset 12): the next locker repairs
// it and goes on. The locker runs in a child so a fault cannot hang the test.
TEST_F(NamedRWMutex, OwnerDeathOfTheGateMutexIsRepairedByTheNextLocker) {
    const std::string shared = name("rw");
    rw_mutex_handle* lock = os_rw_mutex_create(shared.c_str());
    const kvtest::ChildResult dead = kvtest::runInChild([&] {
        kvtest::MappedObject memory(shared);
        pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(memory.bytes + 12));
        _exit(0); // still mapped: the kernel marks the mutex as its owner's death
        return 0;
    });
    ASSERT_TRUE(dead.exited);
    const kvtest::ChildResult locker = kvtest::runInChild(
        [&] {
            os_rw_mutex_lock_wr(lock);
            os_rw_mutex_unlock(lock);
            return 0;
        },
        kvtest::kDefaultTimeout, true);
    EXPECT_TRUE(locker.exited && locker.exitCode == 0);
    EXPECT_EQ(locker.output, "");
    os_rw_mutex_lock_rd(lock);
    os_rw_mutex_unlock(lock);
    os_rw_mutex_destroy(&lock);
}

} // namespace
