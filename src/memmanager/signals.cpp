#include "memmanager/signals.h"

#include "memmanager/dump.h"
#include "memmanager/manager_lock.h"

#include <cerrno>
#include <csignal>
#include <pthread.h>

// A handler notes its signal, then answers the notes at once when nobody holds the manager lock. Otherwise whoever
// holds it does, on letting go (see default_lock.h). Signals of one kind that are noted together make one report.
namespace memm {

namespace {

struct Report {
    int signal;
    const char *tag;
    void (*dump)(Held) noexcept;
};

constexpr Report kReports[] = {
    {SIGUSR1, "SIGUSR1", dump_usage},
    {SIGUSR2, "SIGUSR2", dump_on_order},
};

constexpr unsigned note_of(int signal) noexcept { return signal == SIGUSR1 ? 1 : 2; }

class KeepErrno {
    int saved_ = errno;

public:
    ~KeepErrno() { errno = saved_; }
};

// The note goes before the report begins, so that a signal during the report makes another one.
void answer_notes()
{
    const KeepErrno keep;
    for (const Report &report : kReports) {
        if (default_lock.take_note(note_of(report.signal))) {
            const ManagerLock lock(report.tag);
            report.dump(lock.held());
        }
    }
}

extern "C" void memm_on_signal(int signal)
{
    const KeepErrno keep;
    default_lock.note(note_of(signal));
    default_lock.do_noted();
}

void install(int signal) noexcept
{
    struct sigaction action {};
    action.sa_handler = memm_on_signal;
    action.sa_flags = SA_RESTART | SA_ONSTACK;
    for (const Report &report : kReports) {
        sigaddset(&action.sa_mask, report.signal);
    }
    sigaction(signal, &action, nullptr);
}

// fork waits until no other thread is at work on the pools, so that the child's are whole. What was noted is the
// parent's: the child gets its own signals.
extern "C" void memm_before_fork() { ManagerLock::enter("fork"); }

extern "C" void memm_after_fork_in_parent() { ManagerLock::leave(); }

extern "C" void memm_after_fork_in_child()
{
    default_lock.drop_notes();
    ManagerLock::leave();
}

}  // namespace

void install_signal_handlers() noexcept
{
    default_lock.answer_notes_by(answer_notes);
    pthread_atfork(memm_before_fork, memm_after_fork_in_parent, memm_after_fork_in_child);
    for (const Report &report : kReports) {
        install(report.signal);
    }
}

}  // namespace memm
