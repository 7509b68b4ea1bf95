#include "support/file_calls.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

FileFaults file_faults;
std::atomic<unsigned> dumps_opened{0};

namespace {

char folder[64];  // empty: paths are left alone
std::atomic<int> dump_file{-1};
unsigned writes;
std::size_t written_bytes;

struct RealPath {
    char text[256] = "";
    bool is_dump = false, is_diverted = false;

    explicit RealPath(const char *name)
    {
        for (const char *prefix : {"/etc/config/", "/tmp/memm_dump_", "/var/tmp/memm_"})
            is_dump = is_dump || std::strncmp(name, prefix, std::strlen(prefix)) == 0;
        is_diverted = is_dump && *folder != '\0';
        const std::size_t lead = is_diverted ? std::strlen(folder) : 0;
        std::memcpy(text, folder, lead);
        std::strncpy(text + lead, name, sizeof text - lead - 1);
    }
};

bool fails(int file, int error)
{
    if (file != dump_file || error == 0)
        return false;
    errno = error;
    return true;
}

}  // namespace

OwnFolder::OwnFolder()
{
    // In memory where that can be: a disk may take milliseconds for a file.
    std::string name = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/memm_test_XXXXXX");
    if (mkdtemp(name.data()) == nullptr)
        std::abort();
    for (const char *part : {"/etc/config", "/tmp", "/var/tmp"})
        std::filesystem::create_directories(name + part);
    std::filesystem::permissions(name, std::filesystem::perms(0755));
    std::strcpy(folder, name.c_str());
}

OwnFolder::~OwnFolder()
{
    const std::string name = folder;
    *folder = '\0';
    std::filesystem::remove_all(name);
}

std::string OwnFolder::path(const std::string &name) const { return folder + name; }
std::string OwnFolder::usage_path(int pid) const { return path("/var/tmp/memm_" + std::to_string(pid)); }
std::string OwnFolder::contents_path(int pid) const { return path("/tmp/memm_dump_" + std::to_string(pid)); }
void OwnFolder::order(const std::string &lines) const { write_file(path("/etc/config/memm_dump_pools"), lines); }

std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "-";
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

// --- the calls; each does its work by another one that the library does not use ---

extern "C" {

int open(const char *name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const RealPath path(name);
    if (path.is_dump && file_faults.open_error != 0) {
        errno = file_faults.open_error;
        return -1;
    }
    const int file = openat(AT_FDCWD, path.text, flags, mode);
    if (file >= 0 && path.is_diverted && (flags & O_ACCMODE) == O_WRONLY) {
        dump_file = file;
        writes = 0;
        written_bytes = 0;
        ++dumps_opened;
    }
    return file;
}

int unlink(const char *name) noexcept { return unlinkat(AT_FDCWD, RealPath(name).text, 0); }

int fstat(int file, struct stat *status) noexcept
{
    return fails(file, file_faults.fstat_error) ? -1 : fstatat(file, "", status, AT_EMPTY_PATH);
}

int ftruncate(int file, off_t length) noexcept
{
    char name[32] = "/proc/self/fd/";
    *std::to_chars(name + std::strlen(name), name + sizeof name, file).ptr = '\0';
    return fails(file, file_faults.ftruncate_error) ? -1 : truncate(name, length);
}

ssize_t write(int file, const void *bytes, size_t count)
{
    if (file == dump_file) {
        if (file_faults.interrupt_every != 0 && ++writes % file_faults.interrupt_every == 0)
            return fails(file, EINTR), -1;
        if (written_bytes >= file_faults.room && fails(file, file_faults.write_error))
            return -1;
        if (file_faults.write_error != 0)
            count = std::min(count, file_faults.room - written_bytes);
        count = std::min(count, file_faults.write_most);
        written_bytes += count;
    }
    return syscall(SYS_write, file, bytes, count);
}

int close(int file)
{
    const bool failing = fails(file, file_faults.close_error);
    int expected = file;
    dump_file.compare_exchange_strong(expected, -1);
    const auto result = static_cast<int>(syscall(SYS_close, file));
    return failing ? -1 : result;
}
}
