// Who is at the other end of the daemon's socket, and whether the daemon serves it.
//
// The kernel names the peer (SO_PEERCRED, with a pidfd so that a recycled pid is never
// taken for it); its executable (/proc/PID/exe) must carry a signature that satisfies a
// CodeRequirement, and nothing else may run inside it: a traced peer, or one with an
// executable mapping of any file but its own executable and root-owned files that group
// and others cannot write (LD_PRELOAD of a user's library, say), is unverifiable and
// refused. docs/security.md has the threat model.
//
// Verdicts on executables are cached by device, inode, size, modification and change time,
// so a repeated check of the same program costs a stat rather than a hash.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ostrel/code_signature.h"
#include "ostrel/platform/process_access.h"

namespace ostrel {

struct PeerCredentials {
    int pid = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
};

// The peer process of one connection, as identified when the connection was accepted.
// Holds its pidfd; movable, not copyable.
struct Peer {
    PeerCredentials credentials;
    platform::UniqueFd pidfd;
};

struct PeerLookup {
    std::optional<Peer> peer;
    std::string problem;  // why there is no peer, for the log
};

// Identifies the process that connected `socketFd`. Call it right after accept(2), once
// per connection. Any thread.
PeerLookup identifyPeer(int socketFd, const platform::ProcessAccess &access);

struct PeerVerdict {
    bool accepted = false;
    PeerCredentials credentials;
    // Why the peer was refused, for the daemon's log ("process 4242 (uid 1000,
    // /usr/bin/python3): not signed"); empty when accepted.
    std::string reason;
};

// An executable mapping, as /proc/PID/maps lists it.
struct ExecutableMapping {
    std::uint64_t device = 0;  // as in st_dev
    std::uint64_t inode = 0;
    std::string path;
};

// The file-backed executable mappings listed in the text of /proc/PID/maps (anonymous
// ones and the kernel's [vdso] and the like are left out); nothing when a line does not
// read as the kernel writes them.
std::optional<std::vector<ExecutableMapping>> executableMappings(std::string_view maps);

// The TracerPid of the text of /proc/PID/status; nothing when it has none.
std::optional<long> tracerPid(std::string_view status);

// What makes a cached verdict stale: any change to the file moves its change time, which
// (unlike the modification time) no one can set back.
struct ExecutableKey {
    std::uint64_t device = 0, inode = 0, size = 0;
    std::int64_t modifiedNs = 0, changedNs = 0;
    bool operator==(const ExecutableKey &) const = default;
};

// Signatures of executables by ExecutableKey, at most `capacity` of them (the least
// recently used goes first). Thread-safe.
class SignatureCache {
  public:
    explicit SignatureCache(std::size_t capacity = 64) : capacity_(capacity) {}

    struct Result {
        int error = 0;                // errno of the stat or open, 0 otherwise
        platform::FileStatus status;  // of the file that was checked
        SignatureInfo info;           // when error is 0
    };
    // The signature of the file at `path`: stat, and a hash only when the cache has no
    // verdict for that file as it is now.
    Result verify(const std::string &path, const platform::FileAccess &files);

    std::size_t hits() const;
    std::size_t misses() const;

  private:
    struct KeyHash {
        std::size_t operator()(const ExecutableKey &key) const noexcept;
    };
    using Order = std::list<std::pair<ExecutableKey, SignatureInfo>>;

    std::size_t capacity_;
    mutable std::mutex mutex_;
    Order order_;  // most recently used first
    std::unordered_map<ExecutableKey, Order::iterator, KeyHash> index_;
    std::size_t hits_ = 0, misses_ = 0;
};

// Checks peers against one requirement. `access` must outlive the object. Thread-safe.
class PeerVetting {
  public:
    // Notes which trusted files this process itself runs (/proc/self/maps): they stay
    // mapped, and so stay the same files, for as long as it lives, and a peer mapping them
    // needs no further look at them.
    PeerVetting(CodeRequirement requirement, const platform::ProcessAccess &access,
                std::size_t cacheCapacity = 64);

    // The verdict on `peer` as it is now. The daemon asks before serving each message: a
    // process can exec another program or get a debugger between two messages.
    PeerVerdict check(const Peer &peer);
    // identifyPeer and check in one, for a connection that sends one message.
    PeerVerdict check(int socketFd);

    const CodeRequirement &requirement() const { return requirement_; }
    const SignatureCache &cache() const { return cache_; }

  private:
    // Why the peer is unverifiable or falls short, or nothing.
    std::optional<std::string> problem(int pid);
    std::optional<std::string> foreignMapping(const std::string &proc,
                                              const platform::FileStatus &exe);

    using FileId = std::pair<std::uint64_t, std::uint64_t>;  // device, inode
    CodeRequirement requirement_;
    const platform::ProcessAccess &access_;
    SignatureCache cache_;
    std::vector<FileId> pinned_;  // trusted files mapped by this process
};

}  // namespace ostrel
