// Command lines and mount points as strings. Their texts lie in the buffers of the pool "texts"; released ones stay
// there as garbage until a buffer is compacted. A string never moves, its text does: nobody keeps a text's address.
#pragma once

#include "journal.h"
#include "pool.h"

#include <memmanager/dynstring.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <mntent.h>

namespace texts {

struct Mount {
    dynstr *point, *type;
};

inline unsigned pool;  // strings
inline unsigned mounts;

inline constexpr unsigned kBytes = 512 * 1024;
inline constexpr unsigned kLongest = 256;  // bytes of a command line that are kept, its end included

inline void print_mount(void *object)
{
    const auto *mount = static_cast<const Mount *>(object);
    dbg_printf(" - %s on %s", dynstr_getstring_nolock(mount->type), dynstr_getstring_nolock(mount->point));
}

inline int release_mount(void *object)
{
    const auto *mount = static_cast<const Mount *>(object);
    memm_free_nolock(mount->point);
    return memm_free_nolock(mount->type);
}

inline void open()
{
    pool = static_cast<unsigned>(dynstr_initpool("texts", 8000, kBytes));
    memm_pooloptions options{};
    options.print_cb = print_mount;
    options.release_cb = release_mount;
    mounts = make_pool("mounts", 2000, sizeof(Mount), &options);
}

// Null without a string; a text that finds no room is left empty.
inline dynstr *read_command_line(int pid)
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    char line[kLongest * 2] = "";
    std::size_t length = 0;
    if (std::FILE *file = std::fopen(path, "re")) {
        length = std::fread(line, 1, sizeof line - 1, file);
        std::fclose(file);
    }
    if (length > 0) {
        std::replace(line, line + length - 1, '\0', ' ');  // it ends each argument
    }
    dynstr *string = dynstr_calloc_maxsize(pool, kLongest);
    if (dynstr_setstring(string, length > 0 ? line : "(kernel)") != MEMM_OK) {
        journal::note("no room for the command line of %d", pid);
    }
    return string;
}

inline void remember_mounts()
{
    std::FILE *table = setmntent("/proc/self/mounts", "re");
    if (table == nullptr) {
        return;
    }
    int count = 0;
    for (const mntent *line = getmntent(table); line != nullptr; line = getmntent(table)) {
        auto *mount = take<Mount>(mounts);
        if (mount == nullptr) {
            break;
        }
        mount->point = dynstr_fromstring(pool, line->mnt_dir);
        mount->type = dynstr_fromstring(pool, line->mnt_type);
        ++count;
    }
    endmntent(table);
    std::printf("%d mount points\n", count);
}

// All texts of the pool into one number.
inline std::uint64_t digest()
{
    std::uint64_t hash = 0xcbf29ce484222325;
    memm_enum_objects(
        mounts,
        [](void *object, void *argument) {
            auto &sum = *static_cast<std::uint64_t *>(argument);
            const auto *mount = static_cast<const Mount *>(object);
            for (const dynstr *string : {mount->point, mount->type}) {
                for (const char *text = dynstr_getstring_nolock(string); *text != '\0'; ++text) {
                    sum = (sum ^ static_cast<unsigned char>(*text)) * 0x100000001b3;
                }
            }
            return 1;
        },
        &hash);
    return hash;
}

// Puts a copy in the place of the string, changes it and changes it back.
inline bool replace(dynstr *&string)
{
    dynstr *copy = dynstr_fromdynstr(string);
    if (copy == nullptr) {
        return false;
    }
    memm_free(string);
    string = copy;
    const int length = static_cast<int>(dynstr_strlen(string));
    return dynstr_sprintf(string, "%s, once more", dynstr_getstring(string)) == MEMM_OK &&
           dynstr_setsubdynstr(string, string, 0, length) == MEMM_OK;
}

// Writes the buffers full several times over, which only works because what was released is reclaimed.
inline void replace_all()
{
    const std::uint64_t before = digest();
    unsigned bytes = 0, count = 0;
    while (bytes < 3 * kBytes && memm_getfirst(mounts) != nullptr) {
        for (void *object = memm_getfirst(mounts); object != nullptr; object = memm_getnext(object)) {
            auto *mount = static_cast<Mount *>(object);
            if (!replace(mount->point)) {
                return;
            }
            bytes += 3 * (dynstr_strlen(mount->point) + 1);
            ++count;
        }
    }
    std::printf("%u strings replaced, %u bytes written into %u: texts are %s, buffers are %s\n", count, bytes, kBytes,
                digest() == before ? "unchanged" : "CHANGED",
                dynstr_integrity_check(pool, 0) != 0 ? "sound" : "BROKEN");
    journal::note_urgently("replaced %u strings", count);
}

inline void forget_mounts()
{
    while (void *mount = memm_getfirst(mounts)) {
        memm_free(mount);
    }
}

}  // namespace texts
