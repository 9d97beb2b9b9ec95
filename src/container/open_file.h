// Opening files that somebody else has named.
#pragma once

#include <sys/types.h>

namespace zel {

// As open(2) with O_NONBLOCK, O_NOCTTY and O_CLOEXEC: whatever the path leads to is opened at once, so that
// neither the other end of a FIFO nor a device is waited for; -1 for what cannot be. The caller owns the
// descriptor.
//
// Only a regular file on which another process has a lease (fcntl(2); file servers take them) is waited for,
// a minute at most. The first attempt asks the holder to give it up, and Linux takes it away after
// /proc/sys/fs/lease-break-time seconds, 45 unless somebody sets another time.
[[nodiscard]] int openFile(const char* path, int flags, mode_t mode = 0) noexcept;

}  // namespace zel
