// Makes chosen library calls of a test program, or of a whole service, fail on demand. What the
// calls were asked for is noted by CallJournal.h.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A plan is a list of rules, separated by ";", each "CALL[=FILTER]:WHICH:ERROR":
 *
 *   malloc=4096:1:ENOMEM      the first allocation of exactly 4096 bytes from now on
 *   write=7:2-:ENOSPC         every write to descriptor 7 but the first
 *   fopen=/tmp/x:1-3:EACCES   the first three files opened whose names begin with "/tmp/x"
 *   fork:1:11                 the first fork, with the error number 11
 *   malloc>=1024:1:ENOMEM     the first allocation of 1024 bytes or more
 *   send:3/10-200:EPIPE,EIO   the sends 3, 13, 23 and so on to 193, with these errors in turn
 *   stat=/tmp/x:1:HOLD        the first such stat is made, but waits until the plan ends
 *
 * CALL is one of the names in Fault.c. The filter is a size for the allocations, a prefix for calls
 * that take a path or a command, the descriptor for the others. A failing call does nothing, sets
 * errno and returns what the real one returns on failure (the pthread calls return the error).
 *
 * Linked into a test (target kestrel_fault) the plan is set by faultPlan; operator new allocates
 * with malloc, which the rules of "malloc" are for, and throws when that fails. Preloaded into a
 * program (target kestrel_fault_preload) the plan comes from the environment, and the malloc of
 * operator new has the name "new" where the program's C++ library is a shared one. KESTREL_FAULT
 * holds the plan and KESTREL_FAULT_PROGRAM, if set, the only program name that it is for; that
 * program takes the plan out of its environment, so that its children run undisturbed. Also from
 * the environment:
 *
 *   KESTREL_FAULT_EXCEPT  names of libraries, separated by ":", whose own calls no rule sees: for
 *                         another preloaded library. This one comes first in LD_PRELOAD, else calls
 *                         that the other answers itself never get here.
 *   KESTREL_FAULT_REPORT  a file that holds two native unsigned ints for each rule, at any moment
 *                         and after a crash: the calls that matched, and those that failed
 *   KESTREL_FAULT_HURRY   divides the time of every select without descriptors, a mere sleep
 *
 * Under a sanitizer the sanitizer's
 * library is preloaded first; the allocations are then its own and do not fail.
 */

/** Replace the plan and count from zero; "" or null ends it. @return 0, -1 for a bad plan */
int faultPlan(const char* pPlan);

/** Calls that the current plan made fail. */
unsigned faultHits(void);

/** Successful and failed malloc, calloc, realloc and posix_memalign calls of this thread so far. */
unsigned long faultThreadAllocations(void);

#ifdef __cplusplus
}

/** A plan for a scope. */
class FaultScope
{
public:
    explicit FaultScope(const char* pPlan) : m_nResult(faultPlan(pPlan)) {}
    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;
    ~FaultScope()
    {
        (void)faultPlan("");
    }

    /** 0 when the plan was understood. */
    int result() const
    {
        return m_nResult;
    }

private:
    int m_nResult;
};
#endif
