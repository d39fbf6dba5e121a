#include "sim/SimSocketSet.h"

#include <algorithm>

SimMember::~SimMember() { leave(); }

void SimMember::touched() {
    if (set_) set_->touch(*this);
}

void SimMember::join(SimSocketSet& set, u32 mask, i4_set_owner* owner) {
    set_ = &set;
    mask_ = mask;
    owner_ = owner;
    set_->members_.push_back(this);
    touched();
}

void SimMember::leave() {
    if (!set_) return;
    std::erase(set_->members_, this);
    std::erase(set_->touched_, this);
    isTouched_ = false;
    set_ = nullptr;
    reported_ = 0;
}

void SimMember::watch(u32 mask) {
    mask_ = mask;
    touched();
}

SimSocketSet::~SimSocketSet() {
    for (SimMember* member : members_) member->set_ = nullptr;
}

void SimSocketSet::touch(SimMember& member) {
    if (!member.isTouched_) {
        member.isTouched_ = true;
        touched_.push_back(&member);
    }
    if (sleeper_ && member.wanted() != 0) sleeper_->socketReady();
}

i32 SimSocketSet::poll(i32) {
    ready_.clear();
    for (SimMember* member : members_) member->reported_ = 0;
    std::vector<SimMember*> still;
    for (SimMember* member : touched_) {
        // As with a system's set: a socket that hung up is readable and in error, whatever the mask.
        u32 mask = member->wanted();
        if (mask & I4_SELECT_ERROR) mask |= I4_SELECT_READ;
        member->isTouched_ = mask != 0;
        if (mask == 0) continue;
        member->reported_ = mask;
        ready_.push_back({member->owner_, mask});
        still.push_back(member);
    }
    touched_ = std::move(still);
    return ready();
}

bool SimSocketSet::hasReady() {
    return std::any_of(touched_.begin(), touched_.end(),
                       [](const SimMember* member) { return member->wanted() != 0; });
}
