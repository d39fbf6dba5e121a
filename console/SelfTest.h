// The program's self-tests, which the console's `test` command runs: the containers and the gap lists, on the
// machine that the program runs on.
#pragma once

#include <memory>
#include <vector>

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

// One of each, in the order in which they run.
std::vector<std::unique_ptr<Test>> makeSelfTests(Engine& engine);
