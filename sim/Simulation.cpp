#include "sim/Simulation.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "i4min/threads/linux/Thread.h"
#include "sim/SimLoop.h"
#include "sim/SimSocketSet.h"

namespace {

constexpr i64 mostAtOneTime = 2'000'000;  // events; stops a simulation that loops forever

}  // namespace

void SimRandom::fill(std::span<u8> out) {
    for (u8& byte : out) byte = static_cast<u8>(next());
}

Simulation::Simulation(u64 seed) : seed_(seed), random_(seed) {}
Simulation::~Simulation() = default;

void Simulation::push(i64 at, u64 loop, u64 ticket, std::shared_ptr<Action> action) {
    events_.push({std::max(at, now_.us), nextNumber_++, loop, ticket, std::move(action)});
}

void Simulation::at(Moment when, Action action) {
    push(when.us, noLoop, 0, std::make_shared<Action>(std::move(action)));
}

void Simulation::note(u64 what) {
    for (const u64 word : {static_cast<u64>(now_.us), what}) digest_ = (digest_ ^ word) * 0x100000001B3;
}

// Returns false if the next event is after `until`.
bool Simulation::step(i64 until) {
    if (events_.empty() || events_.top().at > until) return false;
    const Event event = events_.top();
    events_.pop();
    stillSince_ = event.at == now_.us ? stillSince_ + 1 : 0;
    if (stillSince_ > mostAtOneTime) throw std::runtime_error("the simulation doesn't get on");
    now_.us = event.at;
    if (event.loop == noLoop) {
        (*event.action)();
    } else {
        const auto loop = loops_.find(event.loop);
        if (loop != loops_.end()) loop->second->fire(event.ticket);
    }
    return true;
}

bool Simulation::runUntil(const std::function<bool()>& done, i64 limitMs) {
    const i64 until = now_.us + limitMs * 1000;
    while (!done()) {
        if (!step(until)) {
            now_.us = until;
            return done();
        }
    }
    return true;
}

void Simulation::runFor(i64 ms) {
    runUntil([] { return false; }, ms);
}

std::unique_ptr<Loop> SimScheduler::makeLoop(Thread& thread) {
    return std::make_unique<SimLoop>(*this, thread);
}

SimLoop::SimLoop(SimScheduler& scheduler, Thread& thread)
    : scheduler_(scheduler),
      simulation_(scheduler.simulation),
      thread_(thread),
      number_(simulation_.loopsMade_++) {}

SimLoop::~SimLoop() { stop(); }

SimSocketSet* SimLoop::set() const { return static_cast<SimSocketSet*>(thread_.restingSet()); }

bool SimLoop::start() {
    running_ = true;
    simulation_.loops_.emplace(number_, this);
    notBefore_ = 0;
    wish(simulation_.now().us);
    return true;
}

void SimLoop::stop() {
    if (!running_) return;
    running_ = false;
    simulation_.loops_.erase(number_);
    ++ticket_;
    Rest rest = Rest::none();
    // It was asked to stop: the last turn only confirms that.
    if (thread_.state() == Thread::askedToStop) thread_.turn(rest);
}

void SimLoop::wish(i64 at) {
    wished_ = at;
    if (at == Rest::unlimited) return;
    const i64 late = simulation_.lateness_ * 1000;
    if (late > 0)
        at = std::max(at, simulation_.now().us) + simulation_.random_.below(static_cast<u32>(late) + 1);
    simulation_.push(at, number_, ++ticket_, nullptr);
}

void SimLoop::wake() {
    if (!running_) return;
    woken_ = true;
    const i64 when = std::max(simulation_.now().us, notBefore_);
    if (!inTurn_ && when < wished_) wish(when);
}

void SimLoop::socketReady() {
    const i64 when = std::max(simulation_.now().us, notBefore_);
    if (running_ && !inTurn_ && when < wished_) wish(when);
}

void SimLoop::fire(u64 ticket) {
    if (ticket != ticket_) return;
    simulation_.note(number_);
    ++simulation_.turns_;
    if (SimSocketSet* sockets = set()) sockets->poll(0);
    inTurn_ = true;
    woken_ = false;
    Rest rest = Rest::none();
    const bool goesOn = thread_.turn(rest);
    inTurn_ = false;
    if (scheduler_.afterTurn) scheduler_.afterTurn();
    if (!running_) return;  // it was stopped during its turn
    if (!goesOn) {
        running_ = false;
        simulation_.loops_.erase(number_);
        return;
    }
    const i64 now = simulation_.now().us;
    notBefore_ = now + rest.least;
    i64 due = rest.most == Rest::unlimited ? Rest::unlimited : now + rest.most;
    if (simulation_.pollEvery_ > 0)
        due = std::min(due, std::max(notBefore_, now + simulation_.pollEvery_ * 1000));
    SimSocketSet* const sockets = set();
    if (sockets) sockets->restsFor(*this);
    if (woken_ || (sockets && sockets->hasReady())) due = notBefore_;
    wish(due);
}
