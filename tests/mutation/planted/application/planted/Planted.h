// What the mutation run's own test changes.
#pragma once

/** @return the larger one */
int larger(int nFirst, int nSecond);

/** @return whether a step was made towards zero */
bool step(int& nValue);
