// The program's self-tests, which the console's `test` command runs: the containers and the gap lists, on the
// machine that the program runs on.
#pragma once

#include "i4min/memory/LL.h"

// One self-test.
class Test {
  public:
    virtual ~Test() = default;
    virtual bool run() = 0;  // true if it passed
};

// Appends one of each, in the order in which they run; the caller owns them.
void addSelfTests(LL<Test>& tests);
