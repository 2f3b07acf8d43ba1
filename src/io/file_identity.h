#pragma once

#include <sys/stat.h>

/// Tells a file from all others, whatever name or link leads to it.
struct FileIdentity {
    bool known = false;
    dev_t device = 0;
    ino_t inode = 0;

    FileIdentity() = default;
    explicit FileIdentity(const struct stat& status)
        : known(true), device(status.st_dev), inode(status.st_ino) {}

    /// True when status describes this file. An unknown identity is that of no file.
    bool is(const struct stat& status) const {
        return known && device == status.st_dev && inode == status.st_ino;
    }
};
