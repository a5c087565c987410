// fd_io.h: reading and writing of a descriptor that survive interrupts and short transfers.
//
// No state: usable from any thread. Meant for blocking descriptors; on one that is not, EAGAIN is a failure as any
// other.
#pragma once

// write_full writes all of the `length` bytes at `data` and returns 0. A signal in between does no harm. Any other
// failure of write gives -1, with `errno` as write left it. The count of bytes written goes to `written`, unless that
// is null, in either case. A length of 0 still makes one call, so that it tells whether the descriptor can be written.
int write_full(int descriptor, const void* data, unsigned long length, unsigned long* written);

// read_full reads `length` bytes to `buffer` and returns 0, also when the file ends before: only the count, which goes
// to `count` unless that is null, tells a short read. Any failure but an interrupt gives -1, with `errno` as read left
// it and the count of what was read by then. A length of 0 still makes one call.
int read_full(int descriptor, void* buffer, unsigned long length, unsigned long* count);
