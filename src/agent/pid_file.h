// pid_file.h: the file that names the running daemon, and whether to believe it.
//
// libdaemon makes and reads the file, and takes whatever it finds at its word: it follows links, waits for pipes and
// for locks, and signals any process. But other users may write in the file's folder. So each operation first looks at
// what is there: the file must be a regular file with one link, and belong to root, to the caller, or to the user whose
// process it names. Anything else is foreign, and so is a third user's file that is locked or can't be opened.
// Process-wide, for the main thread.
#pragma once

#include <sys/types.h>

// usePidFile names the file to libdaemon. It comes before all the others.
void usePidFile();

// removeForeignPidFile removes a foreign file, with a WARN record, so that it cannot keep the daemon from starting.
// Returns false, after a FATAL record, if it could not be removed.
bool removeForeignPidFile();

// runningDaemon returns the process that the file names, or 0 for an empty file. It returns -1, with errno, if there is
// no file, it can't be read, or it names no living process. The file is not checked first. One that names a dead
// process, or nothing that can be a process, is removed.
pid_t runningDaemon();

// createPidFile makes the file for this process, readable for its owner alone: who can read it can lock it, and
// libdaemon waits for locks. Returns false, with errno, on failure. This process and the launcher that it forks remove
// the file when they end; the launcher still has the right to. Another daemon's file is left alone.
bool createPidFile();

// stopRunningDaemon ends the process that the file names, and waits up to `seconds` for its end. Returns false, with
// errno, on failure: EPERM for a foreign file. The process may have given up root's rights afterwards.
bool stopRunningDaemon(int seconds);
