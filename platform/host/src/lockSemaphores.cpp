// Named mutex and file semaphore: both are one-semaphore System V sets keyed
// from a file name, used as binary semaphores.  SEM_UNDO on every operation
// makes the kernel release a lock whose holder died.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "BraskSvf/svfPlatform.h"
#include "controls.h"
#include "hostFiles.h"

namespace {

using hostplat::Fn;

constexpr int kProjectId = 'B';
// How long a process waits for another one to finish initialising a new set.
constexpr int kInitWaitMs = 5000;

// Key of the name's set: from the name's file (made if missing), or a hash of
// the name when no file can be made there.
key_t keyFor(const char* name) noexcept {
    if (hostplat::ensureFile(name, 0, 0) == 0) {
        const key_t key = ::ftok(name, kProjectId);
        if (key != -1) return key;
    }
    unsigned h = 2166136261u;  // FNV-1a
    for (const char* p = name; *p != '\0'; ++p) {
        h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
    }
    return static_cast<key_t>(h & 0x7FFFFFFFu);
}

// The set's first semop sets sem_otime; until then its creator may still be
// setting its value.
int waitInitialised(int semId) noexcept {
    for (int waited = 0; waited < kInitWaitMs; ++waited) {
        struct semid_ds ds;
        if (::semctl(semId, 0, IPC_STAT, &ds) != 0) return -1;
        if (ds.sem_otime != 0) return 0;
        struct timespec ms = {0, 1000000};
        (void)::nanosleep(&ms, nullptr);
    }
    errno = ETIMEDOUT;
    return -1;
}

// Opens (or creates, initialised to 1 = free) the binary semaphore of `key`.
int openSet(key_t key) noexcept {
    int semId = ::semget(key, 1, IPC_CREAT | IPC_EXCL | 0600);
    if (semId >= 0) {
        if (::semctl(semId, 0, SETVAL, 1) != 0) return -1;
        // Take and give back in one atomic call: the value stays 1 and the
        // operation stamps sem_otime, which tells other openers it is ready.
        struct sembuf stamp[2] = {{0, -1, IPC_NOWAIT}, {0, 1, IPC_NOWAIT}};
        if (::semop(semId, stamp, 2) != 0) return -1;
        return semId;
    }
    if (errno != EEXIST) return -1;
    semId = ::semget(key, 1, 0600);
    if (semId < 0) return -1;
    return waitInitialised(semId) == 0 ? semId : -1;
}

int openNamed(const char* name, key_t* keyOut) noexcept {
    if (name == nullptr || name[0] == '\0') {
        errno = EINVAL;
        return -1;
    }
    const key_t key = keyFor(name);
    if (keyOut != nullptr) *keyOut = key;
    return openSet(key);
}

long long nowMs() noexcept {
    struct timespec ts;
    (void)::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Takes the semaphore; timeoutMs -1 waits without limit.
int takeSemaphore(int semId, int timeoutMs) noexcept {
    if (semId < 0 || timeoutMs < -1) {
        errno = EINVAL;
        return -1;
    }
    struct sembuf take = {0, -1, SEM_UNDO};
    if (timeoutMs == -1) {
        while (::semop(semId, &take, 1) != 0) {
            if (errno != EINTR) return -1;
        }
        return 0;
    }
    const long long deadline = nowMs() + timeoutMs;
    for (;;) {
        long long left = deadline - nowMs();
        if (left < 0) left = 0;
        struct timespec limit = {static_cast<time_t>(left / 1000),
                                 static_cast<long>((left % 1000) * 1000000)};
        if (::semtimedop(semId, &take, 1, &limit) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

int giveSemaphore(int semId) noexcept {
    if (semId < 0) {
        errno = EINVAL;
        return -1;
    }
    // A binary semaphore: releasing a free one would let two holders in later.
    const int value = ::semctl(semId, 0, GETVAL);
    if (value < 0) return -1;
    if (value > 0) {
        errno = EPERM;
        return -1;
    }
    struct sembuf give = {0, 1, SEM_UNDO};
    while (::semop(semId, &give, 1) != 0) {
        if (errno != EINTR) return -1;
    }
    return 0;
}

}  // namespace

extern "C" {

int hslCreateMutex(Mutex_T** ppMutex, const char* pName) {
    if (hostplat::enterCall(Fn::CreateMutex)) return -1;
    if (ppMutex == nullptr) {
        errno = EINVAL;
        return -1;
    }
    key_t key = -1;
    const int semId = openNamed(pName, &key);
    if (semId < 0) return -1;
    auto* m = static_cast<Mutex_T*>(std::calloc(1, sizeof(Mutex_T)));
    if (m == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    std::strncpy(m->MutexName, pName, sizeof m->MutexName - 1);
    m->SemID = semId;
    m->Key = static_cast<int>(key);
    m->OwnerPID = static_cast<int>(::getpid());
    *ppMutex = m;
    return 0;
}

int hslAcquireMutex(Mutex_T* pMutex, int Timeout) {
    if (hostplat::enterCall(Fn::AcquireMutex)) return -1;
    if (pMutex == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return takeSemaphore(pMutex->SemID, Timeout);
}

int hslReleaseMutex(Mutex_T* pMutex) {
    if (hostplat::enterCall(Fn::ReleaseMutex)) return -1;
    if (pMutex == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int rc = giveSemaphore(pMutex->SemID);
    return hostplat::failsLate(Fn::ReleaseMutex) ? -1 : rc;
}

// The set itself stays: other processes may hold handles on the same name.
int hslDestroyMutex(Mutex_T* pMutex) {
    if (hostplat::enterCall(Fn::DestroyMutex)) return -1;
    if (pMutex == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::free(pMutex);
    return hostplat::failsLate(Fn::DestroyMutex) ? -1 : 0;
}

int hslAcquireSysvSemaphore(int* pSemId, const char* pName, int Timeout) {
    if (hostplat::enterCall(Fn::AcquireSysvSemaphore)) return -1;
    if (pSemId == nullptr || Timeout < -1) {
        errno = EINVAL;
        return -1;
    }
    const int semId = openNamed(pName, nullptr);
    if (semId < 0) return -1;
    if (takeSemaphore(semId, Timeout) != 0) return -1;
    *pSemId = semId;
    return 0;
}

int hslReleaseSysvSemaphore(int SemId) {
    if (hostplat::enterCall(Fn::ReleaseSysvSemaphore)) return -1;
    const int rc = giveSemaphore(SemId);
    return hostplat::failsLate(Fn::ReleaseSysvSemaphore) ? -1 : rc;
}

}  // extern "C"
