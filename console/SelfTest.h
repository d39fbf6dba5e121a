// The self-tests that the console's `test` command runs: containers and gap lists.
#pragma once

#include <memory>
#include <vector>

#include "i4min/memory/types.h"

class Engine;
class UIInterface;

// One self-test. Takes its random numbers from the engine's host and prints through its user interface.
// Thread: that of the command. Borrows: the engine.
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

// Makes all self-tests in the order in which they run.
std::vector<std::unique_ptr<Test>> makeSelfTests(Engine& engine);
