// The program's self-tests, which the console's `test` command runs: the containers and the gap lists, on the
// machine that the program runs on.
#pragma once

#include "i4min/memory/LL.h"
#include "i4min/memory/types.h"

class Engine;
class UIInterface;

// One self-test.
class Test {
  public:
    explicit Test(Engine& engine);
    virtual ~Test() = default;
    virtual bool run() = 0;  // true if it passed

  protected:
    i64 below(i64 limit);

    Engine& engine_;
    UIInterface& log_;
};

// Appends one of each, in the order in which they run; the caller owns them.
void addSelfTests(LL<Test>& tests, Engine& engine);
