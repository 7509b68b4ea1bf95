#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <unistd.h>

// Stands between the library and the files that it names: /etc/config/*, /tmp/memm_dump_* and /var/tmp/memm_* lead into
// a folder of the test's own while there is one, and calls on the dump file fail on demand. Usable in a handler.
class OwnFolder {
public:
    OwnFolder();
    ~OwnFolder();
    OwnFolder(const OwnFolder &) = delete;
    OwnFolder &operator=(const OwnFolder &) = delete;

    std::string path(const std::string &name) const;  // where the library's file of this name really is
    std::string usage_path(int pid = getpid()) const;
    std::string contents_path(int pid = getpid()) const;
    void order(const std::string &lines) const;  // writes /etc/config/memm_dump_pools
};

std::string content_of(const std::string &path);  // "-" when there is no such file
void write_file(const std::string &path, const std::string &content);

// What calls on the dump file that is being written do, and, without a folder too, its opening. Errors are values of errno; 0: none.
struct FileFaults {
    int open_error = 0, fstat_error = 0, ftruncate_error = 0, close_error = 0, write_error = 0;
    std::size_t write_most = static_cast<std::size_t>(-1);  // bytes that one write takes
    std::size_t room = 0;                                   // bytes written before write_error comes
    unsigned interrupt_every = 0;                           // every n-th write is interrupted
};
extern FileFaults file_faults;
extern std::atomic<unsigned> dumps_opened;  // how often a dump file was opened for writing
