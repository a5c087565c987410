// fd_io.h: reading and writing of a descriptor that survive interrupts and short transfers.
//
// No state: usable from any thread. Meant for blocking descriptors; on any other, EAGAIN is a failure.
#pragma once

// write_full writes all of the `length` bytes at `data` and returns 0. On any failure of write but an interrupt it
// returns -1, with `errno` as write left it. In either case the count of bytes written goes to `written`, unless that
// is null. A length of 0 still makes one call, which shows whether the descriptor can be written.
int write_full(int descriptor, const void* data, unsigned long length, unsigned long* written);

// read_full reads `length` bytes to `buffer` and returns 0, even if the file ends before: only the count of bytes read,
// which goes to `count` unless that is null, shows a short read. On any failure of read but an interrupt it returns -1,
// with `errno` as read left it and the count so far. A length of 0 still makes one call.
int read_full(int descriptor, void* buffer, unsigned long length, unsigned long* count);
