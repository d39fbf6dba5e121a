// The digest tried by hand: for small tools and for a look in a debugger. Nothing else depends on these.
#pragma once

struct MD4Hash;

// Prints MD4 ("TEXT") = DIGITS on standard output.
void md4String(const char* text);
// The MD4 of all the file's bytes as one piece, not in parts: prints MD4 (PATH) = DIGITS on standard output.
void md4File(const char* path);
// The same into `out`. Both say "PATH can't be opened" on standard output where that is so; false then, or
// where the file can't be read to its end.
[[nodiscard]] bool md4File(MD4Hash& out, const char* path);
