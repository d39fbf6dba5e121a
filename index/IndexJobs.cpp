// The part of IndexService that works in slices: taking in lists of files, and searching.
#include <limits>
#include <utility>

#include "index/IndexService.h"

namespace {

constexpr u64 sliceWork = 1'000'000;  // see FileIndex::search
constexpr u32 sliceFiles = 500;
constexpr u32 sliceDatagrams = 10;
constexpr u32 datagramPause = 10;  // ms between two slices of one search

}  // namespace

void IndexService::startJob(IndexSession& session, std::unique_ptr<IndexJob> job) {
    if (job->kind == IndexJob::Kind::search) {
        packetStart_ = job->results.size();
        ByteWriter(job->results).put8(packetMarker).put32(0).put8(OP_SEARCH_RESULTS).put32(0);
    }
    session.job = std::move(job);
    jobs_.push_back(session.number);
    touch(session);
}

// A tree that can't be read finds nothing: the client that sent it on for another keeps its connection.
void IndexService::startSearch(IndexSession& session, ByteSpan tree, u64 now) {
    session.run.reset();
    if (tree.size() <= limits_.searchTree) session.run = SearchRun::read(tree);
    if (!session.run) log_.debug("Client %u searches for what can't be read", session.number);
    auto job = std::make_unique<IndexJob>();
    job->notBefore = session.searches.take(now, limits_.searchBurst, limits_.searchPause);
    startJob(session, std::move(job));
}

void IndexService::startDatagramSearch(const NetAddress& to, ByteSpan tree, u64 now) {
    if (datagramSearches_.size() >= limits_.datagramSearches) return;
    DatagramSearch search{to, SearchRun::read(tree), 0, now};
    if (search.run) datagramSearches_.push_back(std::move(search));
}

u64 IndexService::nextStep() const {
    u64 next = std::numeric_limits<u64>::max();
    for (const ClientNumber number : jobs_) {
        next = std::min(next, sessions_.at(number)->job->notBefore);
    }
    for (const DatagramSearch& search : datagramSearches_) next = std::min(next, search.notBefore);
    return next;
}

bool IndexService::step(u64 now) {
    for (std::size_t tries = datagramSearches_.size(); tries > 0; --tries) {
        DatagramSearch search = std::move(datagramSearches_.front());
        datagramSearches_.pop_front();
        const bool due = search.notBefore <= now;
        if (due) stepDatagramSearch(search, now);
        if (!search.run->atEnd() && search.sent < limits_.datagramResults) {
            datagramSearches_.push_back(std::move(search));
        }
        if (due) break;
    }
    for (std::size_t tries = jobs_.size(); tries > 0; --tries) {
        const ClientNumber number = jobs_.front();
        jobs_.pop_front();
        IndexSession& session = *sessions_.at(number);
        IndexJob& job = *session.job;
        if (job.notBefore > now) {
            jobs_.push_back(number);
            continue;
        }
        const bool done =
            job.kind == IndexJob::Kind::publish ? stepPublish(session, job) : stepSearch(session, job);
        if (done) {
            session.job.reset();
            touch(session);
        } else {
            jobs_.push_back(number);
        }
        return true;
    }
    return false;
}

bool IndexService::stepPublish(IndexSession& session, IndexJob& job) {
    if (session.phase == IndexSession::Phase::closing) return true;
    ByteReader in(ByteSpan(job.body).subspan(job.at));
    if (job.left > 0x7FFFFFFF) job.left = 0;
    for (u32 i = 0; i < sliceFiles && job.left > 0; ++i, --job.left) {
        const MD4Hash hash = in.hash();
        in.take(6);
        FileRecord record;
        if (in.failed() || !record.read(in)) {
            drop(session, "a list of files that can't be read");
            return true;
        }
        if (hash.isZero() || !record.hasName()) continue;
        if (session.files.size() >= limits_.filesPerClient || (index_.isFull() && !index_.sources(hash))) {
            ++job.tooMany;
            continue;
        }
        if (const auto number = index_.publish(session.number, hash, std::move(record))) {
            session.files.push_back(*number);
            ++job.added;
        }
    }
    job.at += in.position();
    if (job.left > 0) return false;
    log_.info("Client %u (%s) has published %u files, %zu in all", session.number, session.name.c_str(),
              job.added, session.files.size());
    if (job.tooMany > 0) {
        log_.info("Client %u: %u files are too many", session.number, job.tooMany);
        if (!session.toldFull) {
            session.toldFull = true;
            begin(session, OP_SERVER_MESSAGE).text("Not all of your files are listed: there are too many.");
            finish(session);
        }
    }
    return true;
}

bool IndexService::stepSearch(IndexSession& session, IndexJob& job) {
    if (session.phase == IndexSession::Phase::closing) return true;
    bool more = false;
    if (session.run) {
        u64 work = sliceWork;
        index_.search(*session.run, work,
                      [&](const FileRecord& record, const MD4Hash& hash, u32 availability) {
                          if (job.found == limits_.resultsAtATime) {
                              more = true;
                              return false;
                          }
                          record.write(job.results, hash, availability);
                          ++job.found;
                          return true;
                      });
        if (!more && !session.run->atEnd()) return false;
    }
    ByteWriter(job.results).put8(more);
    patch32(job.results, 1, static_cast<u32>(job.results.size() - 5));
    patch32(job.results, 6, job.found);
    log_.debug("Client %u: %u results%s", session.number, job.found, more ? " and more" : "");
    packetStart_ = session.output.size();
    ByteWriter(session.output).put(job.results);
    finish(session);
    return true;
}

void IndexService::stepDatagramSearch(DatagramSearch& search, u64 now) {
    search.notBefore = now + datagramPause;
    u64 work = sliceWork;
    u32 sent = 0;
    index_.search(*search.run, work, [&](const FileRecord& record, const MD4Hash& hash, u32 availability) {
        if (sent == sliceDatagrams || search.sent == limits_.datagramResults) return false;
        Bytes answer;
        ByteWriter(answer).put8(packetMarker).put8(OP_EXTENDED_RESULT);
        record.write(answer, hash, availability);
        network_.sendDatagram(search.to, answer);
        ++sent;
        ++search.sent;
        return true;
    });
}
