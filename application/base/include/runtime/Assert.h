// Assertions that stay in every build type: they print what failed and where, and abort.
#pragma once

/**
 * Write "file:line: function: Assertion `expression' failed." to standard error and abort.
 * Any thread; allocates nothing.
 */
[[noreturn]] void assertionFailed(const char* pExpression, const char* pFile, int nLine,
                                  const char* pFunction);

/**
 * Abort unless the condition holds, for our own bugs only. The expression's and the function's
 * texts are given, so that both compilers print the same; SOURCE_NAME names the file.
 */
#define ASSERT_AS(condition, expression, function)                                                 \
    ((condition) ? static_cast<void>(0)                                                            \
                 : assertionFailed(expression, SOURCE_NAME, __LINE__, function))

/** The same where the expression's text is the condition as it is written. */
#define ASSERT_IN(function, condition) ASSERT_AS(condition, #condition, function)
