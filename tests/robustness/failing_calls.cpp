// A library for LD_PRELOAD that lets a system call or an allocation of a program fail: the Nth of its class,
// once or from then on. The environment says which and how:
//
//   FAILING_CALLS_CLASS    open, read, seek, write, close, stat, truncate, reserve, unlink, rename, mkdir or
//                          alloc
//   FAILING_CALLS_AT       N, from 1; 0 lets nothing fail
//   FAILING_CALLS_HOW      EIO, ENOSPC or EINTR; short: half of the bytes are read or written; nothing: a
//                          read or write of 0 bytes. Several words with commas between them: the Nth call
//                          and those after it fail, each in its own way
//   FAILING_CALLS_ALWAYS   set: all later calls of the class fail too, in the last way
//   FAILING_CALLS_FILE     path: a read of this file that touches FAILING_CALLS_BYTES fails with EIO each
//   time, like
//                          that of a bad sector. It counts among the calls and the failures of the class read
//   FAILING_CALLS_BYTES    the first of these bytes and how many they are, with a blank between them
//   FAILING_CALLS_REPORT   file that gets the number of calls of the class and of failures, as two numbers;
//                          it is not written when the program ends without a return from main()
//   FAILING_CALLS_NO_POOL  set: the C++ library gets no memory at the start to keep for exceptions
//
// Only what main() calls counts, not the loader, and no call on the standard streams. Here are the calls that
// the program makes.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

enum class CallClass {
    none,
    open,
    read,
    seek,
    write,
    close,
    stat,
    truncate,
    reserve,
    unlink,
    rename,
    mkdir,
    alloc
};

constexpr const char* kClassNames[] = {"none",     "open",    "read",   "seek",   "write", "close", "stat",
                                       "truncate", "reserve", "unlink", "rename", "mkdir", "alloc"};

enum class How { error, short_count, nothing };

struct Failure {
    How how = How::error;
    int error = EIO;
};

constexpr long kMostFailuresInARow = 4;

struct Plan {
    bool started = false;  // main() was called
    bool armed = false;
    CallClass call_class = CallClass::none;
    long at = 0;
    Failure ways[kMostFailuresInARow];
    long way_count = 0;
    bool always = false;
    long calls = 0;
    long failures = 0;
    struct stat bad_file {};  // of which some bytes are never read; st_ino is 0: there is none
    off_t bad_from = 0;
    off_t bad_bytes = 0;
};

Plan plan;

// The function of that name that this library's own replaces.
struct Replaced {
    const char* name;

    template <typename Function>
    operator Function*() const {
        return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    }
};

// All are looked up before the plan is armed, because looking up allocates.
struct Next {
    int (*open)(const char*, int, ...) = Replaced{"open"};
    int (*openat)(int, const char*, int, ...) = Replaced{"openat"};
    FILE* (*fopen)(const char*, const char*) = Replaced{"fopen"};
    ssize_t (*read)(int, void*, size_t) = Replaced{"read"};
    ssize_t (*pread)(int, void*, size_t, off_t) = Replaced{"pread"};
    off_t (*lseek)(int, off_t, int) = Replaced{"lseek"};
    ssize_t (*write)(int, const void*, size_t) = Replaced{"write"};
    ssize_t (*pwrite)(int, const void*, size_t, off_t) = Replaced{"pwrite"};
    int (*close)(int) = Replaced{"close"};
    int (*fclose)(FILE*) = Replaced{"fclose"};
    int (*stat)(const char*, struct stat*) = Replaced{"stat"};
    int (*fstat)(int, struct stat*) = Replaced{"fstat"};
    int (*fstatat)(int, const char*, struct stat*, int) = Replaced{"fstatat"};
    int (*ftruncate)(int, off_t) = Replaced{"ftruncate"};
    int (*fallocate)(int, int, off_t, off_t) = Replaced{"fallocate"};
    int (*unlink)(const char*) = Replaced{"unlink"};
    int (*unlinkat)(int, const char*, int) = Replaced{"unlinkat"};
    int (*renameat)(int, const char*, int, const char*) = Replaced{"renameat"};
    int (*mkdir)(const char*, mode_t) = Replaced{"mkdir"};
};

const Next& next() {
    static const Next functions;
    return functions;
}

bool is_standard(int descriptor) {
    return descriptor >= 0 && descriptor <= 2;
}

/// How this call is to fail, errno being set then; null when it is not.
const Failure* fails(CallClass call_class) {
    if (!plan.armed || plan.call_class != call_class)
        return nullptr;
    ++plan.calls;
    const long way = plan.calls - plan.at;
    if (plan.at == 0 || way < 0 || (way >= plan.way_count && !plan.always))
        return nullptr;
    ++plan.failures;
    const Failure* failure = &plan.ways[way < plan.way_count ? way : plan.way_count - 1];
    errno = failure->error;
    return failure;
}

/// Runs the transfer of count bytes, or lets it fail, or hands it half of the bytes or none.
template <typename Transfer>
ssize_t transfer(CallClass call_class, int descriptor, size_t count, Transfer run) {
    const Failure* failure = is_standard(descriptor) ? nullptr : fails(call_class);
    if (failure == nullptr)
        return run(count);
    if (failure->how == How::short_count)
        return run((count + 1) / 2);
    return failure->how == How::nothing ? 0 : -1;
}

/// True, with errno set, when the bytes are some that are never read.
bool is_bad(int descriptor, size_t count, off_t offset) {
    struct stat status {};
    if (!plan.armed || plan.bad_file.st_ino == 0 || offset >= plan.bad_from + plan.bad_bytes ||
        offset + static_cast<off_t>(count) <= plan.bad_from || next().fstat(descriptor, &status) != 0 ||
        status.st_ino != plan.bad_file.st_ino || status.st_dev != plan.bad_file.st_dev)
        return false;
    ++plan.calls;
    ++plan.failures;
    errno = EIO;
    return true;
}

const char* variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// The way that a list of words starts with.
Failure way_of(std::string_view words) {
    Failure failure;
    if (words.starts_with("short"))
        failure.how = How::short_count;
    else if (words.starts_with("nothing"))
        failure.how = How::nothing;
    else if (words.starts_with("ENOSPC"))
        failure.error = ENOSPC;
    else if (words.starts_with("EINTR"))
        failure.error = EINTR;
    if (plan.call_class == CallClass::alloc)
        failure.error = ENOMEM;
    return failure;
}

void read_plan() {
    const char* name = variable("FAILING_CALLS_CLASS");
    for (int i = 0; i < static_cast<int>(std::size(kClassNames)); ++i)
        if (std::strcmp(name, kClassNames[i]) == 0)
            plan.call_class = static_cast<CallClass>(i);
    plan.at = std::atol(variable("FAILING_CALLS_AT"));
    plan.always = *variable("FAILING_CALLS_ALWAYS") != '\0';
    if (next().stat(variable("FAILING_CALLS_FILE"), &plan.bad_file) != 0)
        plan.bad_file.st_ino = 0;
    char* bad_bytes = nullptr;
    plan.bad_from = std::strtol(variable("FAILING_CALLS_BYTES"), &bad_bytes, 10);
    plan.bad_bytes = std::strtol(bad_bytes, nullptr, 10);

    for (const char* how = variable("FAILING_CALLS_HOW"); plan.way_count < kMostFailuresInARow;) {
        plan.ways[plan.way_count++] = way_of(how);
        how = std::strchr(how, ',');
        if (how == nullptr)
            break;
        ++how;
    }
}

void write_report() {
    const char* path = variable("FAILING_CALLS_REPORT");
    if (*path == '\0')
        return;
    const int descriptor = next().open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (descriptor < 0)
        return;
    char line[64];
    const int length = std::snprintf(line, sizeof(line), "%ld %ld\n", plan.calls, plan.failures);
    if (next().write(descriptor, line, static_cast<size_t>(length)) != length)
        std::abort();
    next().close(descriptor);
}

/// Before main() the C++ library takes memory in which it can throw when there is no other: more at once than
/// anything else that early.
[[maybe_unused]] bool is_exception_pool(size_t size) {
    constexpr size_t smallest_pool = 32 * 1024;
    return !plan.started && size >= smallest_pool && *variable("FAILING_CALLS_NO_POOL") != '\0';
}

using Main = int (*)(int, char**, char**);
Main program_main = nullptr;

int main_with_failures(int argc, char** argv, char** environment) {
    next();
    read_plan();
    plan.started = plan.armed = true;
    const int result = program_main(argc, argv, environment);
    plan.armed = false;
    write_report();
    return result;
}

}  // namespace

extern "C" {

// What a program's start code calls with its main.
int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(), void (*loader_fini)(),
                      void* stack_end) {
    using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
    program_main = main;
    const auto start = reinterpret_cast<Start>(::dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(main_with_failures, argc, argv, init, fini, loader_fini, stack_end);
}

// ---- open ----

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(CallClass::open) ? -1 : next().open(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(CallClass::open) ? -1 : next().openat(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    return fails(CallClass::open) ? nullptr : next().fopen(path, mode);
}

// ---- read ----

ssize_t read(int descriptor, void* bytes, size_t count) {
    return transfer(CallClass::read, descriptor, count,
                    [&](size_t allowed) { return next().read(descriptor, bytes, allowed); });
}

ssize_t pread(int descriptor, void* bytes, size_t count, off_t offset) {
    if (is_bad(descriptor, count, offset))
        return -1;
    return transfer(CallClass::read, descriptor, count,
                    [&](size_t allowed) { return next().pread(descriptor, bytes, allowed, offset); });
}

// ---- seek ----

off_t lseek(int descriptor, off_t offset, int origin) noexcept {
    return !is_standard(descriptor) && fails(CallClass::seek) ? -1 : next().lseek(descriptor, offset, origin);
}

// ---- write ----

ssize_t write(int descriptor, const void* bytes, size_t count) {
    return transfer(CallClass::write, descriptor, count,
                    [&](size_t allowed) { return next().write(descriptor, bytes, allowed); });
}

ssize_t pwrite(int descriptor, const void* bytes, size_t count, off_t offset) {
    return transfer(CallClass::write, descriptor, count,
                    [&](size_t allowed) { return next().pwrite(descriptor, bytes, allowed, offset); });
}

// ---- close: the file is closed all the same, as the kernel does it ----

int close(int descriptor) {
    const Failure* failure = is_standard(descriptor) ? nullptr : fails(CallClass::close);
    const int result = next().close(descriptor);
    if (failure == nullptr)
        return result;
    errno = failure->error;
    return -1;
}

int fclose(FILE* file) {
    const bool is_standard_file = file == stdin || file == stdout || file == stderr;
    const Failure* failure = is_standard_file ? nullptr : fails(CallClass::close);
    const int result = next().fclose(file);
    if (failure == nullptr)
        return result;
    errno = failure->error;
    return EOF;
}

// ---- stat, truncate, reserve, unlink, rename, mkdir ----

int stat(const char* path, struct stat* status) noexcept {
    return fails(CallClass::stat) ? -1 : next().stat(path, status);
}

int fstat(int descriptor, struct stat* status) noexcept {
    return !is_standard(descriptor) && fails(CallClass::stat) ? -1 : next().fstat(descriptor, status);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
    return fails(CallClass::stat) ? -1 : next().fstatat(directory, path, status, flags);
}

int ftruncate(int descriptor, off_t length) noexcept {
    return fails(CallClass::truncate) ? -1 : next().ftruncate(descriptor, length);
}

int fallocate(int descriptor, int mode, off_t offset, off_t length) {
    return fails(CallClass::reserve) ? -1 : next().fallocate(descriptor, mode, offset, length);
}

int unlink(const char* path) noexcept {
    return fails(CallClass::unlink) ? -1 : next().unlink(path);
}

int unlinkat(int directory, const char* path, int flags) noexcept {
    return fails(CallClass::unlink) ? -1 : next().unlinkat(directory, path, flags);
}

int renameat(int directory, const char* path, int new_directory, const char* new_path) noexcept {
    return fails(CallClass::rename) ? -1 : next().renameat(directory, path, new_directory, new_path);
}

int mkdir(const char* path, mode_t mode) noexcept {
    return fails(CallClass::mkdir) ? -1 : next().mkdir(path, mode);
}

// ---- the same calls under their names for 64-bit offsets ----

static_assert(sizeof(off_t) == 8, "the two families are one on the machines this is for");

int open64(const char*, int, ...) __attribute__((alias("open")));
int openat64(int, const char*, int, ...) __attribute__((alias("openat")));
FILE* fopen64(const char*, const char*) __attribute__((alias("fopen")));
ssize_t pread64(int, void*, size_t, off_t) __attribute__((alias("pread")));
off_t lseek64(int, off_t, int) noexcept __attribute__((alias("lseek")));
ssize_t pwrite64(int, const void*, size_t, off_t) __attribute__((alias("pwrite")));
int ftruncate64(int, off_t) noexcept __attribute__((alias("ftruncate")));
int fallocate64(int, int, off_t, off_t) __attribute__((alias("fallocate")));
int stat64(const char* path, struct stat64* status) noexcept {
    return stat(path, reinterpret_cast<struct stat*>(status));
}
int fstat64(int descriptor, struct stat64* status) noexcept {
    return fstat(descriptor, reinterpret_cast<struct stat*>(status));
}
int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept {
    return fstatat(directory, path, reinterpret_cast<struct stat*>(status), flags);
}

// ---- allocations; a sanitizer brings its own and would not see these ----

#ifdef FAILING_CALLS_ALLOCATIONS

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) noexcept {
    return is_exception_pool(size) || fails(CallClass::alloc) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
    return fails(CallClass::alloc) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
    return fails(CallClass::alloc) ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return fails(CallClass::alloc) ? nullptr : __libc_memalign(alignment, size);
}

#endif

}  // extern "C"
