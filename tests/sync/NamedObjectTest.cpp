// The named-object building block every named primitive uses: the memory
// request layout, the create-or-open and release sequences, and their
// behaviour when the manager is missing or does not answer.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "SyncCoreSupport.h"
#include "TestSupport.h"
#include "os/sync/SyncInternal.h"

using namespace korvane::sync;
using namespace kvtest;

namespace {

TEST(MemoryRequestLayout, CreateNameAfterTheSizeDestroyNameAtByteFourBothInsideTheMapping) {
    for (const uint32_t operation : {kCreateRequest, kDestroyRequest}) {
        std::vector<uint8_t> channel(channelMappedBytes(), 0xEE);
        MemoryRequest request;
        request.operation = operation;
        request.size = 52;
        request.name.assign(kMaximumNameLength, 'n'); // ends past byte 1028
        ASSERT_TRUE(writeMemoryRequest(channel.data(), request));
        const size_t nameOffset = operation == kCreateRequest ? 8 : 4;
        EXPECT_EQ(channel[0], operation);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(channel.data() + nameOffset)), request.name);
        const MemoryRequest read = readMemoryRequest(channel.data());
        EXPECT_EQ(read.name, request.name);
        EXPECT_EQ(read.size, operation == kCreateRequest ? 52u : 0u);

        // A name that would end beyond the mapping is refused, unwritten.
        request.name.assign(channelMappedBytes() - nameOffset, 'x');
        std::fill(channel.begin(), channel.end(), 0);
        EXPECT_FALSE(writeMemoryRequest(channel.data(), request));
        EXPECT_EQ(std::count(channel.begin(), channel.end(), 0), static_cast<long>(channel.size()));

        // A name without NUL is read up to the end of the mapping and no
        // further (the buffer is exactly that size: ASan sees any overrun).
        std::fill(channel.begin(), channel.end(), 'z');
        std::memcpy(channel.data(), &operation, sizeof operation);
        EXPECT_EQ(readMemoryRequest(channel.data()).name.size(), channelMappedBytes() - nameOffset);
    }
}

using NamedObjectTest = SyncManagerFixture;

TEST_F(NamedObjectTest, FirstOpenerInitialisesLaterOpenersOnlyCount) {
    const std::string name = this->name("first");
    int initialised = 0;
    const InitialiseInPlace initialise = [&](uint8_t* object, key_t key) {
        ++initialised;
        EXPECT_EQ(key, -1);
        std::memset(object, 0xA5, 12);
    };
    NamedObject first;
    ASSERT_TRUE(createOrOpenNamedObject(first, name.c_str(), 16, nullptr, initialise));
    EXPECT_EQ(initialised, 1);
    EXPECT_EQ(openCountOf(name), 1);

    // A second process counts itself in without touching the object.
    const ChildResult second = runInChild([&] {
        NamedObject other;
        if (!createOrOpenNamedObject(other, name.c_str(), 16, nullptr, initialise))
            return 1;
        const bool untouched = initialised == 1 && other.object()[11] == 0xA5 && other.openCount() == 2;
        int destroyed = 0;
        releaseNamedObject(other, [&](uint8_t*) { ++destroyed; });
        return untouched && destroyed == 0 && other.memory == nullptr ? 0 : 2;
    });
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_EQ(openCountOf(name), 1);
    EXPECT_TRUE(shmExists(name));

    uint8_t* destroyedObject = nullptr;
    uint8_t* object = first.object();
    releaseNamedObject(first, [&](uint8_t* o) { destroyedObject = o; });
    EXPECT_EQ(destroyedObject, object);
    EXPECT_EQ(first.memory, nullptr);
    EXPECT_TRUE(first.name.empty());
    EXPECT_FALSE(shmExists(name)) << "the last release removes the name";
}

TEST_F(NamedObjectTest, FtokStepKeysTheMemoryFile) {
    const std::string name = this->name("keyed");
    key_t seen = -1;
    NamedObject named;
    ASSERT_TRUE(createOrOpenNamedObject(named, name.c_str(), 37, "semaphore",
                                        [&](uint8_t*, key_t key) { seen = key; }));
    EXPECT_EQ(seen, ftok(("/dev/shm/" + name).c_str(), 0));
    EXPECT_NE(seen, -1);
    releaseNamedObject(named, [](uint8_t*) {});

    // A name the platform refuses as a file: the manager makes nothing, the
    // key fails, the family's message is printed and nothing is mapped.
    const std::string refused(300, 'k');
    NamedObject failed;
    const std::string output = captureStdout([&] {
        EXPECT_FALSE(createOrOpenNamedObject(failed, refused.c_str(), 37, "semaphore", [](uint8_t*, key_t) {}));
    });
    EXPECT_EQ(output, "can't access memory file[(null)], create semaphore failed\n");
    EXPECT_EQ(failed.memory, nullptr);
}

TEST_F(NamedObjectTest, LongestNameReachesTheManagerOneMoreNeverDoes) {
    const std::string longest(kMaximumNameLength, 'L');
    NamedObject named;
    // The manager cannot make a file of that name, so the handle ends
    // unusable, but the request it received holds the whole name.
    EXPECT_FALSE(createOrOpenNamedObject(named, longest.c_str(), 52, nullptr, [](uint8_t*, key_t) {}));
    const std::vector<uint8_t> request = segmentBytes(kChannelMemoryName, 0, 8 + longest.size() + 1);
    ASSERT_EQ(request.size(), 8 + longest.size() + 1);
    EXPECT_EQ(request[0], kCreateRequest);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(request.data() + 8)), longest);

    const std::string tooLong(kMaximumNameLength + 1, 'T');
    EXPECT_FALSE(createOrOpenNamedObject(named, tooLong.c_str(), 60, nullptr, [](uint8_t*, key_t) {}));
    EXPECT_EQ(segmentBytes(kChannelMemoryName, 0, 8 + longest.size() + 1), request)
        << "the refused name must not reach the channel";
    EXPECT_FALSE(createOrOpenNamedObject(named, nullptr, 52, nullptr, [](uint8_t*, key_t) {}));
}

TEST_F(NamedObjectTest, ReleaseWithoutManagerKeepsTheCountAndUnmaps) {
    const std::string name = this->name("orphan");
    NamedObject named;
    ASSERT_TRUE(createOrOpenNamedObject(named, name.c_str(), 16, nullptr, [](uint8_t*, key_t) {}));
    stopManager();
    bool destroyed = false;
    const std::string output = captureStdout([&] { releaseNamedObject(named, [&](uint8_t*) { destroyed = true; }); });
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(named.memory, nullptr);
    EXPECT_NE(output.find("Error: Can not open os_mutex_manage_enabled_semaphore, errno = 2!"), std::string::npos);
}

// The channel's four resources with nobody serving them, or a stand-in
// manager that answers create requests and ignores destroy requests.
class SilentChannel : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(presentChannelEntries().empty());
        m_channel = os_sharememory_create(kChannelMemoryName, kChannelMemorySize);
        m_lock = sem_open(kLockSemaphoreName, O_CREAT | O_EXCL, 0755, 1);
        m_request = sem_open(kRequestSemaphoreName, O_CREAT | O_EXCL, 0755, 0);
        m_finish = sem_open(kFinishSemaphoreName, O_CREAT | O_EXCL, 0755, 0);
        ASSERT_TRUE(m_channel && m_lock != SEM_FAILED && m_request != SEM_FAILED && m_finish != SEM_FAILED);
    }
    void TearDown() override {
        m_serving = false;
        if (m_server.joinable())
            m_server.join();
        for (sharememory_handle*& memory : m_made) {
            os_sharememory_close(memory, true);
            os_sharememory_destroy(&memory);
        }
        for (sem_t* semaphore : {m_lock, m_request, m_finish}) {
            if (semaphore != SEM_FAILED)
                sem_close(semaphore);
        }
        sem_unlink(kLockSemaphoreName);
        sem_unlink(kRequestSemaphoreName);
        sem_unlink(kFinishSemaphoreName);
        os_sharememory_close(m_channel, true);
        os_sharememory_destroy(&m_channel);
    }
    void answerCreateRequestsOnly() {
        m_server = std::thread([this] {
            const uint8_t* channel = static_cast<const uint8_t*>(os_sharememory_get_buffer(m_channel));
            while (m_serving) {
                if (!waitForAnswer(m_request))
                    continue;
                const MemoryRequest request = readMemoryRequest(channel);
                if (request.operation != kCreateRequest)
                    continue;
                m_made.push_back(os_sharememory_create(request.name.c_str(), request.size));
                sem_post(m_finish);
            }
        });
    }
    int lockValue() {
        int value = -1;
        sem_getvalue(m_lock, &value);
        return value;
    }

    sem_t* m_lock = SEM_FAILED;
    sem_t* m_request = SEM_FAILED;
    sem_t* m_finish = SEM_FAILED;
    sharememory_handle* m_channel = nullptr;
    std::thread m_server;
    std::atomic<bool> m_serving{true};
    std::vector<sharememory_handle*> m_made;
};

TEST_F(SilentChannel, UnansweredCreateLeavesTheHandleUnusableAndTheChannelFree) {
    const std::string name = uniqueName("unanswered");
    NamedObject named;
    bool initialised = false;
    EXPECT_FALSE(createOrOpenNamedObject(named, name.c_str(), 52, nullptr, [&](uint8_t*, key_t) { initialised = true; }));
    EXPECT_FALSE(initialised);
    EXPECT_EQ(named.memory, nullptr);
    EXPECT_EQ(lockValue(), 1) << "the lock semaphore must be given back";
    EXPECT_FALSE(shmExists(name));
}

TEST_F(SilentChannel, UnansweredDestroyLeavesTheNameAndStillUnmaps) {
    answerCreateRequestsOnly();
    const std::string name = uniqueName("undestroyed");
    NamedObject named;
    ASSERT_TRUE(createOrOpenNamedObject(named, name.c_str(), 52, nullptr, [](uint8_t*, key_t) {}));
    int destroyed = 0;
    releaseNamedObject(named, [&](uint8_t*) { ++destroyed; });
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(named.memory, nullptr);
    EXPECT_EQ(lockValue(), 1);
    EXPECT_TRUE(shmExists(name)) << "without the manager's answer the client removes nothing";
    EXPECT_EQ(openCountOf(name), 0);
}

} // namespace
