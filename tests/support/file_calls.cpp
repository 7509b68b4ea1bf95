#include "support/file_calls.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

char folder[64];  // empty: paths are left alone
std::atomic<bool> own_files[1024];

std::atomic<bool> &is_own(int file) { return own_files[static_cast<unsigned>(file) % std::size(own_files)]; }

struct RealPath {
    char text[256] = "";
    bool is_own = false;

    explicit RealPath(const char *name)
    {
        for (const char *prefix : {"/etc/config/", "/tmp/memm_dump_", "/var/tmp/memm_"})
            is_own = is_own || std::strncmp(name, prefix, std::strlen(prefix)) == 0;
        std::strcpy(text, is_own ? folder : "");
        std::strncat(text, name, sizeof text - sizeof folder - 1);
    }
};

int fault_on(bool own, Op op)
{
    const int code = !own ? 0 : op == Op::open && open_error != 0 ? open_error : fault_of(op);
    errno = code > 0 ? code : errno;
    return code;
}

}  // namespace

OwnFolder::OwnFolder()
{
    // In memory where that can be: a disk may take milliseconds for a file.
    std::strcpy(folder, access("/dev/shm", W_OK) == 0 ? "/dev/shm/memm_test_XXXXXX" : "/tmp/memm_test_XXXXXX");
    if (mkdtemp(folder) == nullptr)
        std::abort();
    for (const char *part : {"/etc/config", "/tmp", "/var/tmp"})
        std::filesystem::create_directories(path(part));
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

OwnFolder::~OwnFolder()
{
    std::filesystem::remove_all(folder);
    *folder = '\0';
}

std::string OwnFolder::path(const std::string &name) const { return folder + name; }
void OwnFolder::order(const std::string &lines) const { write_file(path("/etc/config/memm_dump_pools"), lines); }

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "-";
}

void write_file(const std::string &path, const std::string &content) { std::ofstream(path) << content; }

// --- the calls; each does its work by another one that the library does not use ---

extern "C" {

int open(const char *name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const RealPath path(name);
    const int file = fault_on(path.is_own, Op::open) != 0 ? -1 : openat(AT_FDCWD, path.text, flags, mode);
    is_own(file) = path.is_own && file >= 0;
    if (is_own(file) && (flags & O_ACCMODE) == O_WRONLY)
        ++dumps_opened;
    return file;
}

int unlink(const char *name) noexcept { return unlinkat(AT_FDCWD, RealPath(name).text, 0); }

int fstat(int file, struct stat *status) noexcept
{
    return fault_on(is_own(file), Op::fstat) != 0 ? -1 : fstatat(file, "", status, AT_EMPTY_PATH);
}

int ftruncate(int file, off_t length) noexcept
{
    const int code = fault_on(is_own(file), Op::ftruncate);
    return code != 0 ? -1 : static_cast<int>(syscall(SYS_ftruncate, file, static_cast<long>(length)));
}

ssize_t write(int file, const void *bytes, size_t count)
{
    const int code = fault_on(is_own(file), Op::write);
    return code > 0 ? -1 : syscall(SYS_write, file, bytes, code == kShort ? size_t{1} : count);
}

int close(int file)
{
    const int code = fault_on(is_own(file), Op::close);
    is_own(file) = false;
    return syscall(SYS_close, file) != 0 || code != 0 ? -1 : 0;
}
}
