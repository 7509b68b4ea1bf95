// Facts about the machine, kept as texts and read back as the values that they were made from.
#pragma once

#include "journal.h"
#include "pool.h"
#include "texts.h"

#include <memmanager/dynstring.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

namespace values {

struct Fact {
    dynstr *name, *text;
};

inline unsigned facts;
inline unsigned differing;

inline void print_fact(void *object)
{
    const auto *fact = static_cast<const Fact *>(object);
    dbg_printf(" - %s: %s", dynstr_getstring_nolock(fact->name), dynstr_getstring_nolock(fact->text));
}

inline int release_fact(void *object)
{
    const auto *fact = static_cast<const Fact *>(object);
    memm_free_nolock(fact->name);
    return memm_free_nolock(fact->text);
}

inline void open()
{
    memm_pooloptions options{};
    options.print_cb = print_fact;
    options.release_cb = release_fact;
    facts = make_pool("facts", 300, sizeof(Fact), &options);
}

// Takes over the text. `same`: it reads back as what it was made from.
inline void add(const char *name, dynstr *text, bool same)
{
    differing += same ? 0 : 1;
    if (auto *fact = take<Fact>(facts)) {
        fact->name = dynstr_fromstring(texts::pool, name);
        fact->text = text;
    } else {
        memm_free(text);
    }
}

inline void add_number(const char *name, unsigned number)
{
    unsigned back = ~number;
    dynstr *text = dynstr_fromulong(texts::pool, number);
    add(name, text, dynstr_getulong(text, &back) == MEMM_OK && back == number);
}

inline void add_ip(const char *name, unsigned address)
{
    unsigned back = ~address;
    dynstr *text = dynstr_fromipaddr(texts::pool, address);
    add(name, text, dynstr_getipaddr(text, &back) == MEMM_OK && back == address);
}

inline void add_mac(const char *name, const unsigned char *mac)
{
    unsigned char back[6] = {};
    dynstr *text = dynstr_frommacaddr(texts::pool, mac);
    add(name, text, dynstr_getmacaddr(text, back) == MEMM_OK && std::memcmp(back, mac, sizeof back) == 0);
}

inline void add_time(const char *name, unsigned seconds)
{
    unsigned back = ~seconds;
    dynstr *text = dynstr_calloc(texts::pool);
    dynstr_setutcdatetime(text, seconds);
    add(name, text, dynstr_getutcdatetime(text, &back) == MEMM_OK && back == seconds);
}

inline void add_bytes(const char *name, const unsigned char *bytes, int count)
{
    unsigned char back[16] = {};
    dynstr *text = dynstr_hexstringfromdata(texts::pool, bytes, count);
    add(name, text,
        dynstr_gethexstring(text, back, sizeof back) == MEMM_OK &&
            std::memcmp(back, bytes, static_cast<std::size_t>(count)) == 0);
}

inline void remember_addresses()
{
    ifaddrs *interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) {
        return;
    }
    for (const ifaddrs *one = interfaces; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr == nullptr) {
            continue;
        }
        if (one->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address;
            std::memcpy(&address, one->ifa_addr, sizeof address);
            add_ip(one->ifa_name, address.sin_addr.s_addr);
        } else if (one->ifa_addr->sa_family == AF_PACKET) {
            sockaddr_ll address;
            std::memcpy(&address, one->ifa_addr, sizeof address);
            if (address.sll_halen == 6) {
                add_mac(one->ifa_name, address.sll_addr);
            }
        }
    }
    freeifaddrs(interfaces);
}

inline void remember_memory()
{
    std::FILE *file = std::fopen("/proc/meminfo", "re");
    if (file == nullptr) {
        return;
    }
    char line[128], name[64];
    unsigned kilobytes;
    for (int i = 0; i < 8 && std::fgets(line, sizeof line, file) != nullptr; ++i) {
        if (std::sscanf(line, "%63[^:]: %u kB", name, &kilobytes) == 2) {
            add_number(name, kilobytes);
        }
    }
    std::fclose(file);
}

inline void remember()
{
    remember_addresses();
    remember_memory();
    add_time("time", static_cast<unsigned>(std::time(nullptr)));
    const std::uint64_t digest = texts::digest();
    unsigned char bytes[sizeof digest];
    std::memcpy(bytes, &digest, sizeof digest);
    add_bytes("digest", bytes, sizeof bytes);
}

inline void show()
{
    memm_print_objects("facts");
    std::printf("%d facts, %u differ from what they were made from\n", memm_get_pool_nolock(facts)->cur_count,
                differing);
}

inline void forget()
{
    while (void *fact = memm_getfirst(facts)) {
        memm_free(fact);
    }
}

}  // namespace values
