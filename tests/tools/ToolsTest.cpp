// korvane-syncd (the machine's sync manager as a service) and korvane-shm
// (status, list, clean and reclaim, for people and as JSON), run as the
// separate processes they are, with bounded waits.
#include <grp.h>
#include <gtest/gtest.h>

#include "TestSupport.h" // the standard and POSIX headers the suites share
#include "korvane/korvane.h"

namespace {

// The service lock of the tools run here lives in a folder of this run,
// removed at the end by this process (forked children leave through _exit).
struct RuntimeDirectory : kvtest::TempDir {
    RuntimeDirectory() { setenv("KORVANE_RUNTIME_DIR", path().c_str(), 1); }
} runtimeDirectory;

// Whether `text` contains `part`, showing both when it does not.
testing::AssertionResult contains(const std::string& text, const std::string& part) {
    return testing::IsSubstring("part", "text", part, text);
}

// Whether a tool ended with `exitCode`, saying `part`.
testing::AssertionResult ended(const kvtest::ChildResult& run, int exitCode, const std::string& part) {
    if (run.exitCode != exitCode)
        return testing::AssertionFailure() << "status " << run.exitCode << ", said: " << run.output;
    return contains(run.output, part);
}

// Runs in a child: becomes the built tool, as the unprivileged user nobody
// when `asNobody`; a cross build starts it through the emulator. What the
// tool says on either stream ends in the child's captured output.
int execTool(const std::string& tool, const std::vector<std::string>& arguments, bool asNobody) {
    std::vector<std::string> words{KORVANE_TOOL_LAUNCHER};
    words.push_back(KORVANE_TOOLS_DIR "/" + tool);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv(words.size() + 1); // ends with a null pointer
    for (size_t i = 0; i < words.size(); ++i)
        argv[i] = words[i].data();
    const bool dropped = !asNobody || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
    if (dup2(STDOUT_FILENO, STDERR_FILENO) >= 0 && dropped)
        execv(argv[0], argv.data());
    // Tells a tool that could not start from the tool's own status 127.
    perror("tool runner: cannot start the tool");
    return 127;
}

// korvane-syncd left running in the background, killed if still running at the end.
std::unique_ptr<kvtest::Child> startSyncd(const std::vector<std::string>& arguments = {}) {
    return std::make_unique<kvtest::Child>([&] { return execTool("korvane-syncd", arguments, false); }, true);
}

kvtest::ChildResult runTool(const std::string& tool, const std::vector<std::string>& arguments, bool asNobody = false) {
    return kvtest::runInChild([&] { return execTool(tool, arguments, asNobody); }, kvtest::kDefaultTimeout, true);
}

// What `korvane-shm status` (with `arguments`) prints once a manager answers,
// "" if none does in time. One probe waits half a second for the answer, which
// a loaded machine can miss: no check rests on a single one.
std::string answeringStatus(const std::vector<std::string>& arguments = {"status"}) {
    kvtest::ChildResult run;
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

std::string listed(const std::string& name) { return runTool("korvane-shm", {"--json", "list", name}).output; }

// The life of the service. The one of two started at once that wins answers
// (to root, not to an outsider) and keeps its channel. A live process's
// objects are listed with their state; a dead one's are orphans, which
// reclaim removes. A stop keeps the objects in use and removes the rest. A
// crash leaves the channel, removed only once nothing uses it, and the next
// manager adopts the objects in use and reclaims the crash's orphans itself.
TEST(KorvaneTools, OneServiceRunsKeepsObjectsInUseAndOnlyADeadOnesChannelIsCleaned) {
    EXPECT_EQ(runTool("korvane-shm", {"status"}).output.find("sync manager: no channel\n"), 0u);
    auto syncd = startSyncd();
    auto loser = startSyncd();
    const std::string status = answeringStatus();
    if (!contains(status, "(pid " + std::to_string(syncd->pid()) + ")"))
        std::swap(syncd, loser);
    const std::string pid = std::to_string(syncd->pid());
    EXPECT_TRUE(contains(status, "sync manager: answering (pid " + pid + ")"));
    // The one that lost exits by itself, naming the winner.
    EXPECT_TRUE(ended(loser->wait(), 1, "korvane-syncd is already running (pid " + pid + ")"));
    EXPECT_TRUE(contains(answeringStatus({"--json", "status"}),
                         "{\"manager\":\"answering\",\"pids\":[" + pid + "],\"channel\":[{\"name\":"));
    // A user outside the service's group is told why it cannot use the channel.
    EXPECT_TRUE(ended(runTool("korvane-shm", {"status"}, true), 1, "sync manager: present, not accessible"));
    EXPECT_NE(runTool("korvane-shm", {"reclaim"}, true).exitCode, 0);
    // Stopped or running, a service keeps its channel.
    for (int signal : {SIGSTOP, SIGCONT}) {
        kill(syncd->pid(), signal);
        EXPECT_TRUE(ended(runTool("korvane-shm", {"clean"}), 1, "korvane-syncd (pid " + pid + ") is running"));
    }

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
    const struct { const char *suffix, *kindAndSize; std::string state; } objects[] = {
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
    EXPECT_TRUE(contains(table, " ORPHAN STATE\n"));
    EXPECT_TRUE(contains(table, " 52    1 " + p + " "));
    EXPECT_TRUE(contains(table, "locked by tid " + p + " (pid " + p + ")\n"));
    user.reset();
    EXPECT_TRUE(contains(listed(n + "m"), "\"holders\":[],\"orphan\":true,\"state\":{\"locked\":true,\"owner_tid\":" +
                                              p + ",\"owner_alive\":false}"));
    const kvtest::ChildResult reclaimed = runTool("korvane-shm", {"reclaim"});
    EXPECT_EQ(reclaimed.exitCode, 0);
    EXPECT_EQ(reclaimed.output, "reclaimed " + n + "e\nreclaimed " + n + "m\nreclaimed " + n + "r\nreclaimed " + n +
                                 "s\nreclaimed " + n + "w\n");
    EXPECT_EQ(runTool("korvane-shm", {"reclaim"}).output, "no orphans\n");

    // The owner keeps its mutex locked through a stop, a crash and the starts
    // after them; an orphan made before each tells what the manager removes.
    const std::string held = n + "h", dropped = n + "d";
    auto owner = holder([&] { os_mutex_lock(os_mutex_create(held.c_str())); });
    holder([&] { os_mutex_create(dropped.c_str()); }).reset();
    kill(syncd->pid(), SIGTERM);
    EXPECT_EQ(syncd->wait().exitCode, 0);
    EXPECT_EQ(kvtest::shmEntriesContaining(dropped).size(), 0u);
    EXPECT_EQ(runTool("korvane-shm", {"clean"}).output, "no stale channel resources\n");
    syncd = startSyncd();
    ASSERT_NE(answeringStatus(), "");
    holder([&] { os_mutex_create(dropped.c_str()); }).reset();
    syncd.reset(); // killed: a crash
    EXPECT_TRUE(ended(runTool("korvane-shm", {"status"}), 1, "sync manager: not answering\n"));
    EXPECT_TRUE(ended(runTool("korvane-syncd", {}), 1, "stale sync channel resources"));
    EXPECT_NE(runTool("korvane-shm", {"clean"}, true).exitCode, 0) << "an unprivileged clean removes nothing";
    // Any other live process using the channel, a stalled manager hosted by
    // an application for one, keeps it too.
    user = holder([] { sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, 0); });
    EXPECT_TRUE(ended(runTool("korvane-shm", {"--json", "clean"}), 1,
                      "{\"refused\":\"process " + std::to_string(user->pid()) + " still uses"));
    user.reset();
    const kvtest::ChildResult removed = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.output, "{\"removed\":[\"" KORVANE_SYNC_CHANNEL_MEMORY "\",\"" KORVANE_SYNC_LOCK_SEMAPHORE
                              "\",\"" KORVANE_SYNC_REQUEST_SEMAPHORE "\",\"" KORVANE_SYNC_FINISH_SEMAPHORE "\"]}\n");
    EXPECT_EQ(kvtest::shmEntriesContaining(dropped).size(), 1u);

    // The next manager adopts the mutex (a second create opens it, still
    // locked by its owner) and reclaims the crash's orphan on its own.
    syncd = startSyncd({"--reclaim-interval", "1"});
    ASSERT_NE(answeringStatus(), "");
    mutex_handle* second = os_mutex_create(held.c_str());
    const std::string state = listed(held);
    EXPECT_TRUE(contains(state, "\"open_count\":2,"));
    EXPECT_TRUE(contains(state, "\"owner_pid\":" + std::to_string(owner->pid())));
    EXPECT_TRUE(kvtest::eventually([&] { return kvtest::shmEntriesContaining(dropped).empty(); }));
    os_mutex_destroy(&second);
    owner.reset();
    kill(syncd->pid(), SIGINT);
    EXPECT_TRUE(ended(syncd->wait(), 0, "Interrupt received, sync manager stopped"));
    EXPECT_TRUE(kvtest::shmEntriesContaining(kvtest::namePrefix()).empty());
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

} // namespace
