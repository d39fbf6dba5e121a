#include "remote/LogonGuard.h"

#include <algorithm>

namespace {

constexpr u32 window = 60'000;  // ms
constexpr std::size_t mostAddresses = 1000;

}  // namespace

bool LogonGuard::isBlocked(u32 ip, u32 now) const {
    const auto known = refusals_.find(ip);
    if (known == refusals_.end() || known->second.count < mostRefusals) return false;
    const Refusals& refusals = known->second;
    return now - refusals.times[refusals.count % mostRefusals] < window;  // the oldest of the five
}

void LogonGuard::refused(u32 ip, u32 now) {
    if (refusals_.size() >= mostAddresses && !refusals_.contains(ip)) makeRoom(now);
    Refusals& refusals = refusals_[ip];
    refusals.times[refusals.count % mostRefusals] = now;
    ++refusals.count;
}

// Removes outdated addresses, or else the one whose last refusal is oldest.
void LogonGuard::makeRoom(u32 now) {
    std::erase_if(refusals_, [&](const auto& entry) { return now - entry.second.last() >= window; });
    if (refusals_.size() < mostAddresses) return;
    refusals_.erase(std::max_element(refusals_.begin(), refusals_.end(), [&](const auto& a, const auto& b) {
        return now - a.second.last() < now - b.second.last();
    }));
}
