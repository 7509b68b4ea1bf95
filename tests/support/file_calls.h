#pragma once

#include "support/pools.h"

#include <atomic>
#include <sys/wait.h>

// Operations of the platform and calls of the C library on the library's own files that fail on demand.
enum class Op { alloc, getmem, retmem, create, take, open, fstat, ftruncate, write, close };

// What the next one is to do: 0 works; else it fails with this code (files: errno), or succeeds oddly.
constexpr int kNullBlock = -1;   // alloc, getmem: success without a block
constexpr int kMisaligned = -2;  // alloc: a block that lies 4 bytes off
constexpr int kShort = -3;       // write: takes a byte
inline std::function<int(Op)> fault;

inline int fault_of(Op op) { return fault ? fault(op) : 0; }
inline void fail_always(Op op, int code)
{
    fault = [=](Op asked) { return asked == op ? code : 0; };
}

// Stands between the library and the files that it names: /etc/config/*, /tmp/memm_dump_* and /var/tmp/memm_* lead into
// a folder of the test's own while there is one, and calls on them fail on demand. Usable in a handler.
class OwnFolder {
public:
    OwnFolder();
    ~OwnFolder();
    OwnFolder(OwnFolder &&) = delete;

    std::string path(const std::string &name) const;  // where the library's file of this name really is
    std::string usage_path() const { return path("/var/tmp/memm_" + std::to_string(getpid())); }
    std::string contents_path() const { return path("/tmp/memm_dump_" + std::to_string(getpid())); }
    void order(const std::string &lines) const;  // writes /etc/config/memm_dump_pools
};

std::string content_of(const std::string &path);  // "-" when there is no such file
void write_file(const std::string &path, const std::string &content);

inline bool complains(const std::string &report)
{
    return report.find("ERROR") != report.npos || report.find("failed") != report.npos;
}
inline bool is_whole_report(const std::string &report)  // of a signal, its last line a percentage
{
    return report.starts_with("\r\n\r\nReason: SIGUSR") && report.ends_with("%)\r\n\r\n") && !complains(report);
}

inline int open_error = 0;  // whatever fault() says, and without a folder too

inline int status_of(pid_t child)  // when it has ended
{
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

inline std::atomic<unsigned> dumps_opened{0};  // how often a dump file was opened for writing
