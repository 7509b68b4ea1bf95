// Raw files and link-layer addresses as data buffers. The bytes of all buffers lie packed in one area: a buffer that is
// released leaves no gap, and one that grows moves to the end. Nobody keeps the address of bytes.
#pragma once

#include "pool.h"

#include <memmanager/dyndata.h>

#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <netpacket/packet.h>

namespace bytes {

inline unsigned pool;
inline dyndata *addresses, *auxv, *cpuinfo;
inline unsigned cut;

inline constexpr unsigned kArea = 256 * 1024;

inline void open()
{
    const int id = dyndata_init(1) == MEMM_OK ? dyndata_initpool("bytes", 12, kArea) : -1;
    if (id < 0) {
        std::fprintf(stderr, "no pool 'bytes'\n");
        std::exit(1);
    }
    pool = static_cast<unsigned>(id);
}

inline void append(dyndata *buffer, const void *bytes, std::size_t count)
{
    cut += dyndata_adddata(buffer, bytes, static_cast<unsigned>(count)) == MEMM_OK ? 0 : 1;
}

// Null without a buffer.
inline dyndata *read_file(const char *path)
{
    dyndata *buffer = dyndata_calloc(pool);
    if (std::FILE *file = std::fopen(path, "re")) {
        char piece[1000];
        while (const std::size_t count = std::fread(piece, 1, sizeof piece, file)) {
            append(buffer, piece, count);
        }
        std::fclose(file);
    }
    return buffer;
}

inline void append_addresses(dyndata *buffer)
{
    ifaddrs *interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) {
        return;
    }
    for (const ifaddrs *one = interfaces; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_PACKET) {
            sockaddr_ll address;
            std::memcpy(&address, one->ifa_addr, sizeof address);
            append(buffer, address.sll_addr, address.sll_halen < 8 ? address.sll_halen : 8U);
        }
    }
    freeifaddrs(interfaces);
}

inline void remember()
{
    addresses = dyndata_calloc(pool);
    append_addresses(addresses);
    auxv = read_file("/proc/self/auxv");
    cpuinfo = read_file("/proc/cpuinfo");
}

inline void compare(const char *name, const dyndata *first, dyndata *again)
{
    std::printf("%s: %u bytes, %s\n", name, dyndata_getdatasize(first),
                dyndata_isdyndata_equal(first, again) != 0 ? "the same again" : "others now");
    dyndata_free(again);
}

inline void look_again()
{
    memm_print_objects("bytes");
    compare("auxv", auxv, read_file("/proc/self/auxv"));
    compare("cpuinfo", cpuinfo, read_file("/proc/cpuinfo"));

    // The first addresses lie before the files: to grow they move behind them. The bytes to append are their own.
    const unsigned size = dyndata_getdatasize(addresses);
    append(addresses, dyndata_getdata(addresses), size);
    dyndata *again = dyndata_fromdata(pool, dyndata_getdata(addresses) + size, size);
    append(again, dyndata_getdata(again), size);
    compare("addresses twice", addresses, again);
    std::printf("%u appends found no room\n", cut);
}

inline void forget()
{
    dyndata_free(addresses);
    dyndata_free(auxv);
    dyndata_free(cpuinfo);
}

}  // namespace bytes
