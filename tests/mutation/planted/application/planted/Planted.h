// What the mutation run's own test changes.
#pragma once

/** @return the larger one */
int larger(int nFirst, int nSecond);

/** @return whether a step was made towards zero */
bool step(int& nValue);

/** @return the value, or 9 when it is larger */
int clipped(int nValue);

/** @return 4 */
int slots();

/** @return the bytes between */
long length(const char* pBegin, const char* pEnd);

/** No test does. */
int calledByNobody(int nValue);
