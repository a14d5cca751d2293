// What the guard answers, as the problem that it is for whoever asked.
#pragma once

#include "GuardLink.h"

/** Throws an ApiProblem unless it was done. */
void demandDone(const GuardLink::Answer& answer);
