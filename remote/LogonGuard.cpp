#include "remote/LogonGuard.h"

namespace {

constexpr u32 mostRefusals = 5;
constexpr u32 window = 60'000;  // ms
constexpr std::size_t mostAddresses = 1000;

}  // namespace

bool LogonGuard::isBlocked(u32 ip, u32 now) {
    const auto known = attempts_.find(ip);
    return known != attempts_.end() && now - known->second.since < window &&
           known->second.count >= mostRefusals;
}

void LogonGuard::refused(u32 ip, u32 now) {
    if (attempts_.size() >= mostAddresses) forgetOld(now);
    Attempts& attempts = attempts_[ip];
    if (attempts.count == 0 || now - attempts.since >= window) attempts = {0, now};
    ++attempts.count;
}

void LogonGuard::forgetOld(u32 now) {
    std::erase_if(attempts_, [&](const auto& entry) { return now - entry.second.since >= window; });
    if (attempts_.size() >= mostAddresses) attempts_.clear();
}
