// Assertions that stay in every build type.
#include "Assert.h"

#include <cstdio>
#include <cstdlib>

void assertionFailed(const char* pExpression, const char* pFile, int nLine, const char* pFunction)
{
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", pFile, nLine, pFunction, pExpression);
    abort();
}
