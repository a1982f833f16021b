#include "tools/qelboard/sysv.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <ctime>
#include <fstream>

namespace qel::tool {

namespace {

constexpr time_t kGrain = 1;  // both clocks count in steps of their own

union SemArgument {
    int value;
    semid_ds *status;
};

void remove_semaphore(int id, time_t newest) {
    semid_ds status{};
    SemArgument argument{};
    argument.status = &status;
    if (semctl(id, 0, IPC_STAT, argument) == 0 && status.sem_ctime <= newest + kGrain)
        semctl(id, 0, IPC_RMID);
}

void remove_segment(int id, time_t newest) {
    shmid_ds status{};
    if (shmctl(id, IPC_STAT, &status) == 0 && status.shm_ctime <= newest + kGrain)
        shmctl(id, IPC_RMID, nullptr);
}

}  // namespace

void remove_sysv_objects(const std::string &list) {
    struct stat written {};
    if (::stat(list.c_str(), &written) != 0) return;
    {
        std::ifstream file(list);
        std::string kind;
        int id = -1;
        while (file >> kind >> id) {
            if (kind == "sem")
                remove_semaphore(id, written.st_mtime);
            else if (kind == "shm")
                remove_segment(id, written.st_mtime);
        }
    }
    ::unlink(list.c_str());
}

}  // namespace qel::tool
