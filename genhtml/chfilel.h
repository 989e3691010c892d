/* Record locks on files that several processes append to: event logs, for example. A process that holds the lock of a
 * file writes its record there without another one's lines coming between. The lock is advisory: it binds those who
 * ask for it. */
#ifndef GENHTML_CHFILEL_H
#define GENHTML_CHFILEL_H

#ifdef __cplusplus
extern "C" {
#endif

/** Waits for the write lock of a file, which is on its first byte, and moves to the file's end. The lock goes with
 *  chfilel_unlock, and also when the process closes any descriptor of that file.
 *
 *  @param fd  open for writing
 *  @return what fcntl returned: 0, or below 0 with errno set, EINTR for a signal
 */
int chfilel_lock(int fd);

/** Gives that lock up and moves to the file's end. A stream over the descriptor is to be flushed before. Returns as
 *  chfilel_lock does. */
int chfilel_unlock(int fd);

#ifdef __cplusplus
}
#endif

#endif
