// The newest notes of the program, in a pool that never runs dry: when it is full, the oldest note makes room. Urgent
// notes come from a reserve, at nobody's cost.
#pragma once

#include "pool.h"

#include <cstdarg>
#include <cstdio>

namespace journal {

struct Note {
    unsigned number;
    char text[72];
};

inline unsigned pool;
inline unsigned written;

inline void print_note(void *object)
{
    const auto *note = static_cast<const Note *>(object);
    dbg_printf(" - %u: %s", note->number, note->text);
}

inline Note *oldest()
{
    Note *found = nullptr;
    memm_enum_objects_nolock(
        pool,
        [](void *object, void *argument) {
            auto *note = static_cast<Note *>(object);
            auto **oldest = static_cast<Note **>(argument);
            if (*oldest == nullptr || note->number < (*oldest)->number) {
                *oldest = note;
            }
            return 1;
        },
        &found);
    return found;
}

// gc_cb: an allocation has found no slot. It runs under the manager lock.
inline int drop_oldest(void *, int attempt, int)
{
    Note *note = attempt == 0 ? oldest() : nullptr;
    return note != nullptr && memm_free_nolock(note) == MEMM_OK;
}

inline void open()
{
    memm_pooloptions options{};
    options.print_cb = print_note;
    options.gc_cb = drop_oldest;
    options.spare_count = 2;
    pool = make_pool("journal", 8, sizeof(Note), &options);
}

[[gnu::format(printf, 2, 0)]] inline void write(Note *note, const char *format, va_list arguments)
{
    if (note != nullptr) {
        note->number = ++written;
        std::vsnprintf(note->text, sizeof note->text, format, arguments);
    }
}

[[gnu::format(printf, 1, 2)]] inline void note(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    memm_lock("note");
    write(static_cast<Note *>(memm_calloc_nolock(pool)), format, arguments);
    memm_unlock();
    va_end(arguments);
}

[[gnu::format(printf, 1, 2)]] inline void note_urgently(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    memm_lock("note_urgently");
    write(static_cast<Note *>(memm_calloc_nolock_nogc(pool)), format, arguments);
    memm_unlock();
    va_end(arguments);
}

inline void show() { memm_print_objects("journal"); }

inline void forget()
{
    while (void *note = memm_getfirst(pool)) {
        memm_free(note);
    }
}

}  // namespace journal
