// korvane-syncd (the machine's sync manager as a service) and korvane-shm
// (status, list, clean and reclaim, for people and as JSON), run as the
// separate processes they are, with bounded waits.
#include <grp.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "korvane/korvane.h"

namespace {

using kvtest::ChildResult;
using kvtest::shmEntriesContaining;

// The service lock of the tools run here lives in a folder of this run,
// removed by the process that made it (not by its forked children).
struct RuntimeDirectory {
    RuntimeDirectory() {
        if (mkdtemp(path) != nullptr)
            setenv("KORVANE_RUNTIME_DIR", path, 1);
    }
    ~RuntimeDirectory() {
        if (getpid() == owner)
            std::filesystem::remove_all(path);
    }
    char path[32] = "/tmp/kvt_runtime_XXXXXX";
    const pid_t owner = getpid();
} runtimeDirectory;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Runs in a child: becomes the built tool, as the unprivileged user nobody
// when `asNobody`; a cross build starts it through the emulator. What the
// tool says on either stream ends in the child's captured output.
int execTool(const std::string& tool, const std::vector<std::string>& arguments, bool asNobody) {
    std::vector<std::string> words{KORVANE_TOOL_LAUNCHER};
    words.push_back(KORVANE_TOOLS_DIR "/" + tool);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const bool dropped = !asNobody || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
    if (dup2(STDOUT_FILENO, STDERR_FILENO) >= 0 && dropped)
        execv(argv[0], argv.data());
    // Tells a tool that could not start from the tool's own status 127.
    perror("tool runner: cannot start the tool");
    return 127;
}

// A tool left running in the background, killed if still running at the end.
class Tool : public kvtest::Child {
public:
    explicit Tool(const std::string& tool, const std::vector<std::string>& arguments = {})
        : Child([&] { return execTool(tool, arguments, false); }, true) {}
    // Sends `signal` (0: none) and waits for the exit.
    ChildResult stop(int signal = 0) {
        kill(pid(), signal);
        return wait();
    }
};

ChildResult runTool(const std::string& tool, const std::vector<std::string>& arguments, bool asNobody = false) {
    return kvtest::runInChild([&] { return execTool(tool, arguments, asNobody); }, kvtest::kDefaultTimeout, true);
}

// What `korvane-shm status` (with `arguments`) prints once a manager answers,
// "" if none does in time. One probe waits half a second for the answer, which
// a loaded machine can miss: no check rests on a single one.
std::string answeringStatus(const std::vector<std::string>& arguments = {"status"}) {
    ChildResult run;
    const bool answered = kvtest::eventually([&] { return (run = runTool("korvane-shm", arguments)).exitCode == 0; });
    return answered ? run.output : "";
}

// A child that runs `setUp` (making named objects), then stops, holding them
// until it is destroyed (killed).
std::unique_ptr<kvtest::Child> holder(const std::function<void()>& setUp) {
    auto child = std::make_unique<kvtest::Child>([&] { setUp(); return raise(SIGSTOP); });
    int status = 0;
    EXPECT_TRUE(kvtest::eventually([&] { return waitpid(child->pid(), &status, WNOHANG | WUNTRACED) > 0; }));
    EXPECT_TRUE(WIFSTOPPED(status)) << "the holder did not get ready";
    return child;
}

// The life of the channel: none; made by the one of two services started at
// once that wins; answering (to root, not to an outsider); crashed and in use;
// crashed and unused; removed.
TEST(KorvaneTools, OneServiceRunsAndOnlyADeadOnesChannelIsCleaned) {
    EXPECT_EQ(runTool("korvane-shm", {"status"}).output.find("sync manager: no channel\n"), 0u);
    auto syncd = std::make_unique<Tool>("korvane-syncd");
    auto loser = std::make_unique<Tool>("korvane-syncd");
    const std::string status = answeringStatus();
    if (!contains(status, "(pid " + std::to_string(syncd->pid()) + ")"))
        std::swap(syncd, loser);
    const std::string pid = std::to_string(syncd->pid());
    EXPECT_TRUE(contains(status, "sync manager: answering (pid " + pid + ")")) << status;
    // The one that lost exits by itself, naming the winner.
    const ChildResult lost = loser->stop();
    EXPECT_EQ(lost.exitCode, 1);
    EXPECT_TRUE(contains(lost.output, "korvane-syncd is already running (pid " + pid + ")")) << lost.output;
    EXPECT_TRUE(contains(answeringStatus({"--json", "status"}),
                         "{\"manager\":\"answering\",\"pids\":[" + pid + "],\"channel\":[{\"name\":"));
    // A user outside the service's group is told why it cannot use the channel.
    const ChildResult outsider = runTool("korvane-shm", {"status"}, true);
    EXPECT_EQ(outsider.exitCode, 1);
    EXPECT_TRUE(contains(outsider.output, "sync manager: present, not accessible")) << outsider.output;
    EXPECT_NE(runTool("korvane-shm", {"reclaim"}, true).exitCode, 0);
    // Answering or stopped, a running service keeps its channel.
    for (int signal : {0, SIGSTOP}) {
        kill(syncd->pid(), signal);
        const ChildResult refused = runTool("korvane-shm", {"clean"});
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(contains(refused.output, "korvane-syncd (pid " + pid + ") is running")) << refused.output;
    }

    // The refusals left the channel in place: now a crash's leftover.
    syncd->stop(SIGKILL);
    EXPECT_TRUE(contains(runTool("korvane-shm", {"status"}).output, "sync manager: not answering\n"));
    EXPECT_TRUE(contains(runTool("korvane-syncd", {}).output, "stale sync channel resources"));
    EXPECT_NE(runTool("korvane-shm", {"clean"}, true).exitCode, 0) << "an unprivileged clean removes nothing";
    {
        // Any other live process using the channel, a stalled manager hosted
        // by an application for one, keeps it too.
        const auto user = holder([] { sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, 0); });
        EXPECT_TRUE(contains(runTool("korvane-shm", {"--json", "clean"}).output,
                             "{\"refused\":\"process " + std::to_string(user->pid()) + " still uses"));
    }
    const ChildResult removed = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.output, "{\"removed\":[\"" KORVANE_SYNC_CHANNEL_MEMORY "\",\"" KORVANE_SYNC_LOCK_SEMAPHORE
                              "\",\"" KORVANE_SYNC_REQUEST_SEMAPHORE "\",\"" KORVANE_SYNC_FINISH_SEMAPHORE "\"]}\n");
    EXPECT_EQ(runTool("korvane-shm", {"clean"}).output, "no stale channel resources\n");
}

std::string listed(const std::string& name) {
    return runTool("korvane-shm", {"--json", "list", name}).output;
}

TEST(KorvaneShm, ListShowsLockStateAndOrphansWhichReclaimRemoves) {
    Tool syncd("korvane-syncd");
    ASSERT_NE(answeringStatus(), "");
    const std::string n = kvtest::uniqueName("state");
    auto user = holder([&] {
        os_mutex_lock(os_mutex_create((n + "m").c_str()));
        recursive_mutex_handle* recursive = os_recursive_mutex_create((n + "r").c_str());
        os_recursive_mutex_lock(recursive);
        os_recursive_mutex_lock(recursive);
        os_event_set_event(os_event_create(true, false, (n + "e").c_str()));
        os_semaphore_create(3, (n + "s").c_str());
        rw_mutex_handle* lock = os_rw_mutex_create((n + "w").c_str());
        os_rw_mutex_lock_rd(lock);
        os_rw_mutex_lock_rd(lock);
    });
    const std::string p = std::to_string(user->pid());
    const std::string owned = "\"locked\":true,\"owner_tid\":" + p + ",\"owner_pid\":" + p + ",\"owner_alive\":true";
    const struct {
        const char* suffix;
        const char* kindAndSize;
        std::string state;
    } objects[] = {
        {"m", "mutex\",\"size\":52", owned},
        {"r", "recursive mutex\",\"size\":52", owned + ",\"depth\":2"},
        {"e", "event\",\"size\":104", "\"set\":true,\"manual_reset\":true"},
        {"s", "semaphore\",\"size\":37", "\"count\":3"},
        {"w", "rw mutex\",\"size\":152", "\"readers\":2,\"writer\":false,\"hold_locked\":false"},
    };
    for (const auto& object : objects)
        EXPECT_EQ(listed(n + object.suffix), "{\"objects\":[{\"name\":\"" + n + object.suffix + "\",\"kind\":\"" +
                                                  object.kindAndSize + ",\"open_count\":1,\"holders\":[" + p +
                                                  "],\"orphan\":false,\"state\":{" + object.state + "}}]}\n");
    const std::string table = runTool("korvane-shm", {"list"}).output;
    EXPECT_TRUE(contains(table, " ORPHAN STATE\n")) << table;
    EXPECT_TRUE(contains(table, " 52    1 " + p + " ")) << table;
    EXPECT_TRUE(contains(table, "locked by tid " + p + " (pid " + p + ")\n")) << table;

    user.reset();
    EXPECT_TRUE(contains(listed(n + "m"), "\"holders\":[],\"orphan\":true,\"state\":{\"locked\":true,\"owner_tid\":" +
                                              p + ",\"owner_alive\":false}"));
    const ChildResult reclaimed = runTool("korvane-shm", {"reclaim"});
    EXPECT_EQ(reclaimed.exitCode, 0);
    EXPECT_EQ(reclaimed.output, "reclaimed " + n + "e\nreclaimed " + n + "m\nreclaimed " + n + "r\nreclaimed " + n +
                                 "s\nreclaimed " + n + "w\n");
    EXPECT_EQ(runTool("korvane-shm", {"reclaim"}).output, "no orphans\n");
    const ChildResult stopped = syncd.stop(SIGINT);
    EXPECT_EQ(stopped.exitCode, 0);
    EXPECT_TRUE(contains(stopped.output, "Interrupt received, sync manager stopped")) << stopped.output;
    EXPECT_TRUE(shmEntriesContaining("os_mutex_manage_").empty()) << "the channel was left behind";
}

// A usage error ends with status 2, a request for help with 0.
TEST(KorvaneTools, RejectMissingAndUnknownArguments) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"korvane-shm"}, {"korvane-shm", "frobnicate"}, {"korvane-shm", "status", "x"},
             {"korvane-shm", "list", "a", "b"}, {"korvane-shm", "--help"}, {"korvane-syncd", "--bogus"},
             {"korvane-syncd", "--reclaim-interval"}, {"korvane-syncd", "--reclaim-interval", "x"},
             {"korvane-syncd", "--help"}})
        EXPECT_EQ(runTool(words.front(), {words.begin() + 1, words.end()}).exitCode, words.back() == "--help" ? 0 : 2)
            << testing::PrintToString(words);
    EXPECT_TRUE(contains(runTool("korvane-shm", {"frobnicate"}).output, "unknown command 'frobnicate'"));
}

class KorvaneSyncdRestart : public testing::TestWithParam<int> {};

// A process holds a mutex locked while the manager restarts, after a stop
// (SIGTERM) or a crash (SIGKILL). The next manager adopts the object: a second
// create opens it, still locked by its owner.
TEST_P(KorvaneSyncdRestart, KeepsObjectsInUseAndRemovesTheRest) {
    const std::string held = kvtest::uniqueName("held"), dropped = kvtest::uniqueName("dropped");
    auto syncd = std::make_unique<Tool>("korvane-syncd");
    ASSERT_NE(answeringStatus(), "");
    auto owner = holder([&] { os_mutex_lock(os_mutex_create(held.c_str())); });
    holder([&] { os_mutex_create(dropped.c_str()); }).reset();
    syncd->stop(GetParam());
    // As the unit does before each start: after a crash, the channel goes.
    ASSERT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);
    EXPECT_EQ(shmEntriesContaining(dropped).size(), GetParam() == SIGKILL ? 1u : 0u);

    // The next manager reclaims the crash's orphan on its own.
    syncd = std::make_unique<Tool>("korvane-syncd", std::vector<std::string>{"--reclaim-interval", "1"});
    ASSERT_NE(answeringStatus(), "");
    mutex_handle* second = os_mutex_create(held.c_str());
    const std::string state = listed(held);
    EXPECT_TRUE(contains(state, "\"open_count\":2,")) << state;
    EXPECT_TRUE(contains(state, "\"owner_pid\":" + std::to_string(owner->pid()))) << state;
    EXPECT_TRUE(kvtest::eventually([&] { return shmEntriesContaining(dropped).empty(); }));
    os_mutex_destroy(&second);
    owner.reset();
    EXPECT_EQ(syncd->stop(SIGTERM).exitCode, 0);
    EXPECT_TRUE(shmEntriesContaining(kvtest::namePrefix()).empty());
}

INSTANTIATE_TEST_SUITE_P(StopOrCrash, KorvaneSyncdRestart, testing::Values(SIGTERM, SIGKILL));

} // namespace
