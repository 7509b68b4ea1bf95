// Creation with caller information: the record goes to the caller's variable, and that variable with the caller's file
// and line to the hook for tools that track allocations. Without a variable nothing is created.
#include <memmanager/dynstring.h>

namespace {

template <typename Create> void create_for(dynstr **slot, const char *file, int line, Create create) noexcept
{
    if (slot != nullptr) {
        *slot = create();
        memm_addToAllocateList(slot, file, line);
    }
}

}  // namespace

extern "C" {

void _dynstr_ex_calloc(unsigned poolid, dynstr **slot, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_calloc(poolid); });
}

void _dynstr_ex_calloc_maxsize(unsigned poolid, dynstr **slot, unsigned max, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_calloc_maxsize(poolid, max); });
}

void _dynstr_ex_calloc_maxlen(unsigned poolid, dynstr **slot, unsigned max, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_calloc_maxlen(poolid, max); });
}

void _dynstr_ex_refalloc(dynstr *d, dynstr **slot, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_refalloc(d); });
}

void _dynstr_ex_fromstring(unsigned poolid, dynstr **slot, const char *text, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromstring(poolid, text); });
}

void _dynstr_ex_fromliteral(unsigned poolid, dynstr **slot, const char *text, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromliteral(poolid, text); });
}

void _dynstr_ex_fromulong(unsigned poolid, dynstr **slot, unsigned value, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromulong(poolid, value); });
}

void _dynstr_ex_fromlong(unsigned poolid, dynstr **slot, int value, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromlong(poolid, value); });
}

void _dynstr_ex_fromipaddr(unsigned poolid, dynstr **slot, unsigned address, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromipaddr(poolid, address); });
}

void _dynstr_ex_frommacaddr(unsigned poolid, dynstr **slot, const unsigned char *mac, const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_frommacaddr(poolid, mac); });
}

void _dynstr_ex_fromprintf(unsigned poolid, dynstr **slot, const char *format, const char *file, int line, ...)
{
    va_list arguments;
    va_start(arguments, line);
    create_for(slot, file, line, [&] { return dynstr_fromvprintf(poolid, format, arguments); });
    va_end(arguments);
}

void _dynstr_ex_fromvprintf(unsigned poolid, dynstr **slot, const char *format, va_list arguments, const char *file,
                            int line)
{
    create_for(slot, file, line, [&] { return dynstr_fromvprintf(poolid, format, arguments); });
}

void _dynstr_ex_fromsubstring(unsigned poolid, dynstr **slot, const char *text, int offset, int length,
                              const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_fromsubstring(poolid, text, offset, length); });
}

void _dynstr_ex_hexstringfromdata(unsigned poolid, dynstr **slot, const unsigned char *bytes, int count,
                                  const char *file, int line)
{
    create_for(slot, file, line, [=] { return dynstr_hexstringfromdata(poolid, bytes, count); });
}
}
