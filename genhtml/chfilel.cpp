/* Record locks on log files that several processes append to. */
#include "genhtml/chfilel.h"

#include <fcntl.h>
#include <unistd.h>

#include "process/owned.h"

namespace {

/** The first byte stands for the file: all writers ask for it, wherever they write. */
int change_lock(int fd, short kind) {
    struct flock first_byte {};
    first_byte.l_type = kind;
    first_byte.l_whence = SEEK_SET;
    first_byte.l_start = 0;
    first_byte.l_len = 1;
    const int result = fcntl(fd, F_SETLKW, &first_byte);

    const KeptErrno kept;
    lseek(fd, 0, SEEK_END);
    return result;
}

}  // namespace

int chfilel_lock(int fd) { return change_lock(fd, F_WRLCK); }

int chfilel_unlock(int fd) { return change_lock(fd, F_UNLCK); }
