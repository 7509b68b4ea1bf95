// Every process of /proc is an object. Two indexes hold a reference to it each; whoever lets go last frees it.
//
//     by_pid     entry -> entry -> entry ...      (pool "by_pid")
//                  |        |        |
//                Process  Process  Process        (pool "processes")
//                  |        |        |
//     by_memory  entry -> entry -> entry ...      (pool "by_memory")
#pragma once

#include "journal.h"
#include "pool.h"
#include "texts.h"

#include <memmanager/lock.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace processes {

struct Process {
    int pid, parent, group;
    unsigned threads, resident_kb;
    char name[32];
    dynstr *command_line;
};

struct Entry {
    Process *process;  // a reference of its own
    Entry *next;
};

struct Index {
    unsigned pool;
    bool (*is_before)(const Process &, const Process &);
    Entry *first;
};

inline unsigned pool;
inline Index by_pid{0, [](const Process &a, const Process &b) { return a.pid < b.pid; }, nullptr};
inline Index by_memory{0, [](const Process &a, const Process &b) { return a.resident_kb > b.resident_kb; }, nullptr};
inline LOCK indexes;  // guards both

// --- pools ---

inline void print_process(void *object)
{
    const auto *process = static_cast<const Process *>(object);
    dbg_printf(" - %d %s, %u kB", process->pid, process->name, process->resident_kb);
}

// release_cb: the last holder has let go; what the process owns goes with it.
inline int release_process(void *object) { return memm_free_nolock(static_cast<Process *>(object)->command_line); }

inline void print_entry(void *object) { dbg_printf(" -> %d", static_cast<const Entry *>(object)->process->pid); }

// release2_cb is given the call that releases what the object owns, without taking the lock again.
inline int release_entry(void *object, memm_release_fn release)
{
    return release(static_cast<Entry *>(object)->process);
}

inline std::vector<int> list_pids()
{
    std::vector<int> pids;
    if (DIR *proc = opendir("/proc")) {
        while (const dirent *file = readdir(proc)) {
            if (std::isdigit(static_cast<unsigned char>(file->d_name[0])) != 0) {
                pids.push_back(std::atoi(file->d_name));
            }
        }
        closedir(proc);
    }
    return pids;
}

inline void open()
{
    const int room = static_cast<int>(list_pids().size()) + 64;
    memm_pooloptions options{};
    options.print_cb = print_process;
    options.release_cb = release_process;
    pool = make_pool("processes", room, sizeof(Process), &options);
    options = {};
    options.print_cb = print_entry;
    options.release2_cb = release_entry;
    by_pid.pool = make_pool("by_pid", room, sizeof(Entry), &options);
    by_memory.pool = make_pool("by_memory", room, sizeof(Entry), &options);
    lock_initlock(&indexes, "indexes");
}

// --- the picture ---

// False when the process is gone.
inline bool read_status(Process &process)
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/stat", process.pid);
    std::FILE *file = std::fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    char line[1024] = "";
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    std::fclose(file);
    char *name = std::strchr(line, '('), *end = std::strrchr(line, ')');  // a name may hold both
    if (!read || name == nullptr || end == nullptr) {
        return false;
    }
    *end = '\0';
    std::snprintf(process.name, sizeof process.name, "%s", name + 1);
    unsigned long resident_pages = 0;
    const int fields = std::sscanf(end + 1,
                                   " %*c %d %d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %u %*d %*u "
                                   "%*u %lu",
                                   &process.parent, &process.group, &process.threads, &resident_pages);
    process.resident_kb = static_cast<unsigned>(resident_pages * static_cast<unsigned long>(getpagesize()) / 1024);
    return fields == 4;
}

// Takes over the caller's reference.
inline void insert(Index &index, Process *process)
{
    auto *entry = take<Entry>(index.pool);
    if (entry == nullptr) {
        memm_free(process);
        return;
    }
    entry->process = process;
    Entry **place = &index.first;
    while (*place != nullptr && !index.is_before(*process, *(*place)->process)) {
        place = &(*place)->next;
    }
    entry->next = *place;
    *place = entry;
}

inline void add(int pid)
{
    auto *process = take<Process>(pool);
    if (process == nullptr) {
        journal::note_urgently("no room for process %d", pid);
        return;
    }
    process->pid = pid;
    if (!read_status(*process)) {
        journal::note("process %d was gone", pid);
        memm_free(process);
        return;
    }
    process->command_line = texts::read_command_line(pid);
    lock_lock(&indexes, 0, "add");
    insert(by_memory, static_cast<Process *>(memm_refalloc(process)));
    insert(by_pid, process);
    lock_unlock(&indexes);
    journal::note("process %d is %s", pid, process->name);
}

// Two threads share the work.
inline void take_picture()
{
    const std::vector<int> pids = list_pids();
    const auto add_every_second = [&pids](std::size_t from) {
        for (std::size_t i = from; i < pids.size(); i += 2) {
            add(pids[i]);
        }
    };
    std::thread other(add_every_second, 1);
    add_every_second(0);
    other.join();
    journal::note_urgently("picture of %zu processes", pids.size());
}

// --- looking at it ---

inline Process *find(int pid)
{
    const auto has_pid = [](void *object, int wanted) -> int { return static_cast<Process *>(object)->pid == wanted; };
    return static_cast<Process *>(memm_search(pool, pid, has_pid));
}

inline void print_line(const char *title, Process *process)
{
    std::printf("%s", title);
    std::fflush(stdout);
    memm_printobject(process, 1);
    std::printf("\n");
}

inline void show()
{
    unsigned count = 0, threads = 0, resident_kb = 0;
    for (void *object = memm_getfirst(pool); object != nullptr; object = memm_getnext(object)) {
        const auto *process = static_cast<const Process *>(object);
        ++count;
        threads += process->threads;
        resident_kb += process->resident_kb;
    }
    const memm_pool *usage = memm_get_pool_nolock(pool);
    std::printf("%u processes, %u threads, %u kB resident; %u further references\n", count, threads, resident_kb,
                usage->refs);
    print_line("this one: ", find(static_cast<int>(getpid())));
    std::printf("largest:\n");
    int shown = 0;
    for (const Entry *entry = by_memory.first; entry != nullptr && shown < 5; entry = entry->next, ++shown) {
        const Process &process = *entry->process;
        std::printf("  %6d %9u kB  %.60s\n", process.pid, process.resident_kb, dynstr_getstring(process.command_line));
    }
}

// --- a second look ---

inline void remove(Index &index, const Process *process)
{
    for (Entry **place = &index.first; *place != nullptr; place = &(*place)->next) {
        if ((*place)->process == process) {
            Entry *entry = *place;
            *place = entry->next;
            memm_free(entry);
            return;
        }
    }
}

// What was there before is tagged, so a listing of the others shows what has come since: our own child at least.
inline void look_again()
{
    memm_tag_objects("processes", &pool);
    int hold[2];
    if (pipe(hold) != 0) {
        return;
    }
    const int child = fork();
    if (child == 0) {
        close(hold[1]);
        char end;
        _exit(static_cast<int>(read(hold[0], &end, 1)));  // until the parent lets go
    }
    for (const int pid : list_pids()) {
        if (find(pid) == nullptr) {
            add(pid);
        }
    }
    memm_print_objects2("processes", 0);

    if (Process *process = find(child)) {
        print_line("in both indexes:      ", process);
        remove(by_memory, process);
        print_line("in one index:         ", process);
        remove(by_pid, process);
        std::printf("in none: it is %s\n", memm_isvalidobj(process) != 0 ? "still there" : "free");
    }
    close(hold[0]);
    close(hold[1]);
    waitpid(child, nullptr, 0);
    memm_tag_objects("processes", nullptr);
}

// --- the end ---

inline void clear(Index &index)
{
    while (Entry *entry = index.first) {
        index.first = entry->next;
        memm_free(entry);
    }
}

inline void forget()
{
    const memm_pool *usage = memm_get_pool_nolock(pool);
    clear(by_memory);
    std::printf("one index is gone: %d processes, %u further references\n", usage->cur_count, usage->refs);
    clear(by_pid);
    std::printf("both are gone: %d processes\n", usage->cur_count);
}

}  // namespace processes
