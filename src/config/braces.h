// String arrays and the steps of {a,b} brace expansion behind expand_braces.
#pragma once

#include <cstddef>

namespace trv {

// A string array is a malloc'ed, null-terminated array of malloc'ed strings.
// Whoever receives one owns it and its strings; free_array releases both, so
// arrays handed across the C API can be released with free() alike. Every
// function below that returns an array returns nullptr when memory runs out.

int array_len(char **array);            // strings before the null; 0 for null
void free_array(char **array);          // accepts null
char **copy_array(char **array);        // fresh copies; null in, null out

// The cross product of two arrays with `second` in the outer loop, so
// {a,b} then {c,d} gives ac, bc, ad, bd. `first` is consumed (freed, or
// handed back as the result when `second` is null); `second` stays the
// caller's. A null `first` gives a copy of `second`.
char **array_concat(char **first, char **second);

// Scans `text` from *position for `wanted` ('{', '}' or ',') at nesting level
// 0, outside quotes and escapes. Returns the character it stopped at
// (`wanted`, or NUL at the end) and leaves *position there.
char brace_gobbler(const char *text, size_t *position, int wanted);

// Every piece of `amble` between level-0 commas, empty pieces included,
// brace-expanded and joined in order.
char **expand_amble(const char *amble);

// Every expansion of `text`; never an empty array (text without braces
// yields a copy of itself). An unmatched "{" is logged and the whole text
// comes back as its one element.
char **brace_expand(const char *text);

}  // namespace trv
