#pragma once

#include <sys/stat.h>

/// Which file a path leads to, however many names and links it has.
struct FileIdentity {
    bool known = false;
    dev_t device = 0;
    ino_t inode = 0;

    FileIdentity() = default;
    explicit FileIdentity(const struct stat& status)
        : known(true), device(status.st_dev), inode(status.st_ino) {}

    /// True when status describes the same file. An unknown identity equals none.
    bool is(const struct stat& status) const {
        return known && device == status.st_dev && inode == status.st_ino;
    }
};
