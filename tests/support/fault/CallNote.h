// Between the intercepted calls and the journal that notes them.
#pragma once

/** The journal's lines go to this file from now on, which is made when missing. @return 0, -1 */
int journalTo(const char* pPath, const char* pCalls);

/** Whether calls of this name are noted; cheap while no journal is kept. */
int journalWants(const char* pCall);

/** Add a line: the name and, unless the text is empty, a blank and the text. Keeps errno. */
__attribute__((format(printf, 2, 3))) void journalNote(const char* pCall, const char* pFormat, ...);
