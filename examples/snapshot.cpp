// Takes a picture of the machine that it runs on into pools, looks at it from several sides and gives everything back.
// A section a header:
//
//     snapshot/journal.h    notes in a pool that makes room for itself, with a reserve for urgent ones
//     snapshot/processes.h  every process as an object, shared by reference between two indexes
//     snapshot/texts.h      command lines and mount points as strings; buffers that are compacted
//     snapshot/values.h     addresses, numbers, a date and a digest as strings, read back as values
//     snapshot/bytes.h      raw files and link-layer addresses as data buffers in one packed area
//     snapshot/lists.h      memory as pairs, mount options as strings, process groups as lists of shared processes
//
// With --serve it stays alive between picture and end: SIGUSR1 and SIGUSR2 from another terminal then have the library
// write its files, SIGINT or SIGTERM end it.
#include "snapshot/bytes.h"
#include "snapshot/journal.h"
#include "snapshot/lists.h"
#include "snapshot/processes.h"
#include "snapshot/texts.h"
#include "snapshot/values.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

void title(const char *text) { std::printf("\n== %s ==\n", text); }

void serve()
{
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGINT);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    const int pid = static_cast<int>(getpid());
    std::printf("serving as process %d; from another terminal:\n"
                "  kill -USR1 %d && cat /var/tmp/memm_%d\n"
                "  echo all >/etc/config/memm_dump_pools; kill -USR2 %d && cat /tmp/memm_dump_%d\n",
                pid, pid, pid, pid, pid);
    int signal = 0;
    sigwait(&end, &signal);
}

int objects_left()
{
    int left = 0;
    for (const unsigned pool :
         {bytes::pool, journal::pool, processes::pool, processes::by_pid.pool, processes::by_memory.pool, texts::mounts,
          values::facts, lists::groups, static_cast<unsigned>(lists::nodes)}) {
        left += memm_get_pool_nolock(pool)->cur_count;
    }
    return left;
}

}  // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // the library writes its reports past stdio
    if (memm_init(24, 8) != MEMM_OK) {
        return 1;
    }
    journal::open();
    texts::open();
    processes::open();
    values::open();
    bytes::open();
    lists::open(20'000);

    title("processes");
    processes::take_picture();
    processes::show();

    title("what is new since");
    processes::look_again();

    title("texts");
    texts::remember_mounts();
    texts::replace_all();

    title("values");
    values::remember();
    values::show();

    title("bytes");
    bytes::remember();
    bytes::look_again();

    title("lists");
    lists::remember_memory();
    lists::show_memory();
    lists::remember_options();
    lists::show_options();
    lists::group_processes();
    lists::show_groups();

    title("journal");
    journal::show();

    title("usage of the pools");
    memm_print_stats(nullptr);

    if (argc > 1 && std::strcmp(argv[1], "--serve") == 0) {
        title("service");
        serve();
    }

    title("everything is given back");
    lists::forget();
    bytes::forget();
    values::forget();
    texts::forget_mounts();
    processes::forget();
    journal::forget();
    std::printf("objects left: %d\n", objects_left());

    title("allocations and releases");
    memm_print_timestats(nullptr);

    title("locks");
    lock_print_allstats();
    return objects_left();
}
