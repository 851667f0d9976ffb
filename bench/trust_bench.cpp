// Speed of the daemon's trust decisions: verifying a 2 MiB executable the first time, the
// cached check of an executable seen before, and the whole per-message vetting of a peer
// (its goal: well under 50 µs). The peer is this benchmark itself, on a socketpair; the
// build signs it ad hoc as "dev.ostrel.bench" for that.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>

#include "ostrel/peer_identity.h"

namespace {

using namespace ostrel;

// A keyed-signed file of 2 MiB of random bytes in a fresh directory, removed at the end.
class SignedFile {
  public:
    SignedFile() {
        char pattern[] = "/tmp/ostrel-bench-XXXXXX";
        dir_ = ::mkdtemp(pattern);
        path_ = dir_ + "/program";
        std::string content(2 << 20, '\0');
        std::mt19937_64 random(1);
        for (char &c : content) {
            c = static_cast<char>(random());
        }
        SigningKey key = SigningKey::generate();
        platform::realFileAccess().createExclusive(
            path_, content + signatureBlock(content, "dev.ostrel.cli", &key), 0755);
    }
    ~SignedFile() {
        ::unlink(path_.c_str());
        ::rmdir(dir_.c_str());
    }
    const std::string &path() const { return path_; }

  private:
    std::string dir_, path_;
};

void BM_VerifyFirst2MiB(benchmark::State &state) {
    SignedFile file;
    for (auto _ : state) {
        if (!verifyFile(file.path(), platform::realFileAccess()).valid()) {
            state.SkipWithError("the signed file does not verify");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * (2 << 20));
}
BENCHMARK(BM_VerifyFirst2MiB)->Unit(benchmark::kMillisecond);

void BM_CachedCheck2MiB(benchmark::State &state) {
    SignedFile file;
    SignatureCache cache;
    cache.verify(file.path(), platform::realFileAccess());
    for (auto _ : state) {
        benchmark::DoNotOptimize(cache.verify(file.path(), platform::realFileAccess()));
    }
    state.counters["misses"] = static_cast<double>(cache.misses());
}
BENCHMARK(BM_CachedCheck2MiB)->Unit(benchmark::kMicrosecond);

void BM_PeerCheckPerMessage(benchmark::State &state) {
    int pair[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair);
    PeerLookup lookup = identifyPeer(pair[0], platform::realProcessAccess());
    PeerVetting vetting(CodeRequirement{{"dev.ostrel.bench"}, std::nullopt, std::nullopt},
                        platform::realProcessAccess());
    for (auto _ : state) {
        PeerVerdict verdict = vetting.check(*lookup.peer);
        if (!verdict.accepted) {
            state.SkipWithError(verdict.reason.c_str());
            break;
        }
    }
    ::close(pair[0]);
    ::close(pair[1]);
}
BENCHMARK(BM_PeerCheckPerMessage)->Unit(benchmark::kMicrosecond);

}  // namespace
