// The tags under which calls take the manager lock, which an application sees in its own P().
#include "gates/calls.h"

#include <map>

namespace {

// Calls that do not take it once, under their own name, which is dynstr_* for _dynstr_ex_*: what they take instead, in
// front of "<-". Left out are the *_nolock that take none.
const char kOthers[] =
    R"(<- memm_init memm_get_poolname memm_get_poolname2 memm_get_poolid memm_getpoolcookie memm_getpoolcookie_bypoolid
memm_get_currentcount_ptr memm_calloc_nolock_nogc memm_addToAllocateList memm_removeFromAllocateList
memm_instanceof_no_ori memm_isvalidobj memm_getobject_byindex memm_clear_timestats memm_set_trace memm_get_trace
memm_set_fast_trelk_locking lock_initlock lock_lock lock_unlock lock_print_stats lock_print_allstats
lock_clear_allstats lock_settrace lock_gettrace lock_gettracelevel lock_getapplfilter timestat_starttime
timestat_stoptime timestat_elapstime dynstr_pool_set_dellist_threshold dynstr_integrity_check dynstr_isdynstring
dynstr_strlen dynstr_getmaxsize dyndata_isdyndata dyndata_getmaxsize dyndata_setmaxsize dyndata_getdatasize
dyndata_isdyndata_equal dyndata_isdyndata_equal2; , <- memm_lock; dynstr_addstring_size <- dynstr_addstring;
dynstr_frompartialstrlist <- strlist_partialtodynstr; dynstr_fromprintf <- dynstr_fromulong dynstr_fromlong
dynstr_fromipaddr dynstr_frommacaddr dynstr_fromvprintf _dynstr_ex_fromulong _dynstr_ex_fromlong _dynstr_ex_fromipaddr
_dynstr_ex_frommacaddr; dynstr_fromprintf llist_addobject <- strlist_addulong; dynstr_fromstrlist <- strlist_todynstr;
dynstr_fromvprintf <- _dynstr_ex_fromprintf; dynstr_getulong <- dynstr_getlong; dynstr_initpool <- dynstr_initpool2;
dynstr_setstring <- dynstr_setbool; dynstr_setsubstring <- dynstr_setsubdynstr; dynstr_sprintf <- dynstr_setulong
dynstr_setlong dynstr_setipaddr dynstr_setmacaddr dynstr_setutcdatetime; dynstr_strcmp2 dynstr_getutcdatetime <-
dynstr_getutcdatetime; llist_add <- llist_addlist strpairlist_addstringpairlist; llist_addobject <- strlist_adddynstr
strpairlist_addstringpair; llist_addref <- strlist_addref; llist_cut_at <- llist_popobject llist_getandremove_at
llist_getandunlink_at; llist_cut_byobject <- llist_getandunlink_byobject; llist_delete_at <- strlist_delete_at
strpairlist_delete_at; llist_enumcb_bytype llist_enumcb_bytype <- llist_enumcb_bytype; llist_get_at <-
strlist_setstring_at strpair_setfirststring strpair_setsecondstring; llist_getlength <- strlist_getlength
strpairlist_getlength; llist_getobject_at <- strlist_getdynstr_at strlist_getulong_at strpair_getfirst
strpair_getsecond strpairlist_getpair_at; llist_insert_at <- llist_pushobject; llist_refalloc <- llist_clone
strlist_refalloc; llist_remove_at <- strlist_remove_at; llist_remove_byobject <- strlist_remove_byobject;
llist_searchobject <- llist_inlist; llist_setobject_at <- strpairlist_setpair_at; memm_calloc <- dynstr_calloc
dynstr_calloc_maxsize dynstr_calloc_maxlen _dynstr_ex_calloc _dynstr_ex_calloc_maxsize _dynstr_ex_calloc_maxlen
dyndata_calloc dyndata_calloc_maxsize dyndata_calloc_maxlen; memm_free <- memm_ex_free dyndata_free; memm_initpool <-
memm_initpool2 memm_initpool3 dynstr_init llist_initpool dyndata_init; memm_print_objects <- memm_print_objects2;
memm_print_stats <- memm_print_stats2; memm_refalloc <- dynstr_refalloc _dynstr_ex_refalloc dyndata_refalloc;
strlist_fromstringarr <- strlist_clone strpair_clone; strlist_getstring_at <- strpair_getfirststring
strpair_getsecondstring; strlist_getstring_at strlist_getstring_at <- strpairlist_getsecond_byfirststring;
strlist_getstring_at strlist_getstring_at dynstr_getstring <- strpairlist_getsecondstring_byfirststring;
strpair_fromstring <- strpair_fromstrings; strpairlist_add <- strpairlist_addstrings; strpairlist_setfirst_at <-
strpairlist_setfirststring_at; strpairlist_setsecond_at <- strpairlist_setsecondstring_at; unlock <- memm_unlock;)";

TEST(tags, are_the_names_of_the_calls_or_of_what_does_their_work)
{
    gates::World world({});
    std::map<std::string, std::string> others;
    for (const gates::Call &call : gates::calls()) {
        call.run(world);
        const std::string tags = recorder().take_tags();
        const std::string plain = call.name.starts_with("_dynstr_ex_") ? "dynstr_" + call.name.substr(11) : call.name;
        if (tags != plain + " " && !(tags.empty() && call.name.ends_with("_nolock")))
            others[tags] += " " + call.name;
        world.sweep();
    }
    std::string expected = kOthers, is;
    for (const auto &[tags, names] : others)
        is += (is.empty() ? "" : " ") + tags + "<-" + names + ";";
    std::replace(expected.begin(), expected.end(), '\n', ' ');
    EXPECT_EQ(is, expected);
}

}  // namespace
