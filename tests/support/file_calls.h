#pragma once

#include "support/faults.h"

#include <atomic>
#include <string>
#include <unistd.h>

// Stands between the library and the files that it names: /etc/config/*, /tmp/memm_dump_* and /var/tmp/memm_* lead into
// a folder of the test's own while there is one, and calls on them fail on demand. Usable in a handler.
class OwnFolder {
public:
    OwnFolder();
    ~OwnFolder();
    OwnFolder(const OwnFolder &) = delete;
    OwnFolder &operator=(const OwnFolder &) = delete;

    std::string path(const std::string &name) const;  // where the library's file of this name really is
    std::string usage_path() const { return path("/var/tmp/memm_" + std::to_string(getpid())); }
    std::string contents_path() const { return path("/tmp/memm_dump_" + std::to_string(getpid())); }
    void order(const std::string &lines) const;  // writes /etc/config/memm_dump_pools
};

std::string content_of(const std::string &path);  // "-" when there is no such file
void write_file(const std::string &path, const std::string &content);

inline struct FileFaults {
    int open_error = 0;
} file_faults;  // whatever fault() says, and without a folder too

extern std::atomic<unsigned> dumps_opened;  // how often a dump file was opened for writing
