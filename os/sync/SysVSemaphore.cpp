#include "os/sync/SysVSemaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstdio>


namespace korvane {
namespace sync {
namespace sysv {
namespace {

// The fourth argument of semctl, which every caller defines for itself.
union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

sembuf operation(short change, bool undo) {
    sembuf buffer{};
    buffer.sem_num = 0;
    buffer.sem_op = change;
    buffer.sem_flg = undo ? SEM_UNDO : 0;
    return buffer;
}

// EAGAIN is how a timed wait reports its time-out; it is not worth a message.
bool reportWaitResult(int result, const char* owner, const char* call) {
    if (result == 0)
        return true;
    if (errno != EAGAIN)
        printf("%s:%s[wait] failed,errno=%d!!\n", owner, call, errno);
    return false;
}

} // namespace

int create(key_t key, int initialValue) {
    const int id = semget(key, 1, IPC_CREAT | 0755);
    if (id != -1)
        setValue(id, initialValue);
    return id;
}

int remove(int id) {
    return semctl(id, 0, IPC_RMID);
}

int getValue(int id) {
    return semctl(id, 0, GETVAL);
}

int setValue(int id, int value) {
    semun argument{};
    argument.val = value;
    return semctl(id, 0, SETVAL, argument);
}

int post(int id, bool undo, const char* owner) {
    sembuf buffer = operation(+1, undo);
    const int result = semop(id, &buffer, 1);
    if (result != 0)
        printf("%s:semop[post] failed,errno=%d!!\n", owner, errno);
    return result;
}

bool wait(int id, bool undo, const char* owner) {
    sembuf buffer = operation(-1, undo);
    return reportWaitResult(semop(id, &buffer, 1), owner, "semop");
}

bool waitFor(int id, const timespec* relativeTimeout, bool undo, const char* owner) {
    sembuf buffer = operation(-1, undo);
    return reportWaitResult(semtimedop(id, &buffer, 1, relativeTimeout), owner, "semtimedop");
}

} // namespace sysv
} // namespace sync
} // namespace korvane
