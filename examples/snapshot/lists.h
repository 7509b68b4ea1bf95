// /proc/meminfo as a list of pairs, mount options as lists of strings, process groups as lists of shared processes. One
// pool of nodes serves all of them.
#pragma once

#include "journal.h"
#include "pool.h"
#include "processes.h"

#include <memmanager/strpair.h>

#include <cstdio>
#include <cstring>
#include <mntent.h>

namespace lists {

struct Group {
    int id;
    unsigned long resident_kb;
    llist *members;  // processes, by reference
};

inline int nodes, strings;
inline unsigned groups;
inline strpairlist *memory;
inline strlist *options;  // of the mount point that has the longest
inline llist *by_size;    // groups

inline int release_group(void *object)
{
    return static_cast<int>(llist_free_plist(&static_cast<Group *>(object)->members));
}

inline void open(int room)
{
    nodes = llist_initpool("nodes", room, sizeof(llist), nullptr);
    strings = dynstr_initpool("items", room, 64 * 1024);
    memm_pooloptions group_options{};
    group_options.release_cb = release_group;
    groups = make_pool("groups", room, sizeof(Group), &group_options);
}

// --- pairs ---

inline void remember_memory()
{
    std::FILE *file = std::fopen("/proc/meminfo", "re");
    char line[128];
    while (file != nullptr && std::fgets(line, sizeof line, file) != nullptr) {
        strpair *pair = strpair_fromstring(line, ":", nodes, strings);
        if (llist_pushobject(&memory, pair, nodes) != MEMM_OK) {  // pushing does not walk the list
            memm_free(pair);
        }
    }
    if (file != nullptr) {
        std::fclose(file);
    }
    llist_reverse(&memory);
}

inline void show_memory()
{
    std::printf("%d lines about memory\n", strpairlist_getlength(memory));
    for (const char *key : {"MemTotal", "MemAvailable", "NoSuchThing"}) {
        unsigned kilobytes = 0;
        if (dynstr_getulong(strpairlist_getsecond_byfirststring(memory, key), &kilobytes) == MEMM_OK) {
            std::printf("%s is %u kB\n", key, kilobytes);
        } else {
            std::printf("%s is %s\n", key, strpairlist_getsecondstring_byfirststring(memory, key));
        }
    }
}

// --- strings ---

inline int by_text(void *placed, void *ordered)
{
    return dynstr_strcmp(static_cast<dynstr *>(placed), static_cast<dynstr *>(ordered));
}

inline void remember_options()
{
    std::FILE *table = setmntent("/proc/self/mounts", "re");
    std::size_t longest = 0;
    for (const mntent *line; table != nullptr && (line = getmntent(table)) != nullptr;) {
        if (const std::size_t length = std::strlen(line->mnt_opts); length > longest) {
            longest = length;
            llist_free_plist(&options);
            options = strlist_fromstring(line->mnt_opts, ",", nodes, strings);
        }
    }
    llist_sort(&options, by_text);
    if (table != nullptr) {
        endmntent(table);
    }
}

// Joined with a separator that some options hold, and split again. Splitting does not end a text that escapes have made
// shorter, and finds some more items behind: so one that nobody needs comes last.
inline bool survives_escapes()
{
    strlist *copy = strlist_refalloc(options, nodes);
    strlist_addstring(&copy, "", nodes, strings);
    dynstr *joined = dynstr_fromstrlist_escaped(static_cast<unsigned>(strings), copy, "=", '\\');
    char text[2048];
    strlist *again = strlist_fromstring_escaped(dynstr_strncpy(text, joined, sizeof text), '=', '\\', nodes, strings);
    bool same = true;
    for (int i = 0; i < strlist_getlength(options); ++i) {
        same = same && dynstr_strcmp(strlist_getdynstr_at(options, i), strlist_getdynstr_at(again, i)) == 0;
    }
    memm_free(joined);
    llist_free_plist(&again);
    llist_free_plist(&copy);
    return same;
}

inline void show_options()
{
    dynstr *line = strlist_todynstr(options, " ", strings);
    std::printf("%d options of a mount point: %s\nescaped and split again: %s\n", strlist_getlength(options),
                dynstr_getstring(line), survives_escapes() ? "the same" : "OTHERS");
    memm_free(line);
}

// --- shared objects ---

inline int has_id(void *group, void *id) { return static_cast<Group *>(group)->id == *static_cast<int *>(id) ? 1 : 0; }

inline int has_less(void *placed, void *ordered)
{
    return static_cast<Group *>(placed)->resident_kb < static_cast<Group *>(ordered)->resident_kb ? 1 : 0;
}

inline int join_group(void *object, void *)
{
    auto *process = static_cast<processes::Process *>(object);
    auto *group = static_cast<Group *>(llist_searchobject(by_size, &process->group, has_id));
    if (group == nullptr && (group = take<Group>(groups)) != nullptr) {
        group->id = process->group;
        if (llist_pushobject(&by_size, group, nodes) != MEMM_OK) {
            memm_free(group);
            group = nullptr;
        }
    }
    if (group == nullptr || llist_addref(&group->members, process, nodes) != MEMM_OK) {
        journal::note("process %d is in no group", process->pid);
        return 0;
    }
    group->resident_kb += process->resident_kb;
    return 1;
}

inline void group_processes()
{
    memm_enum_objects(processes::pool, join_group, nullptr);
    llist_sort(&by_size, has_less);
}

inline void show_groups()
{
    const auto *largest = static_cast<Group *>(llist_getobject_at(by_size, 0));
    if (largest != nullptr) {
        std::printf("%d process groups; the largest is %d: %d processes, %lu kB\n", llist_getlength(by_size),
                    largest->id, llist_getlength(largest->members), largest->resident_kb);
    }
}

inline void forget()
{
    llist_free_plist(&by_size);  // groups, and with them their lists of processes
    llist_free_plist(&options);
    llist_free_plist(&memory);
}

}  // namespace lists
