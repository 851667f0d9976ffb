#include "ostrel/peer_identity.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>

#include "ostrel/hash.h"

namespace ostrel {

namespace {

// Bounds on what a peer's /proc files may make us read; a client of ours has a few dozen
// mappings, and a peer too big to examine is unverifiable.
constexpr std::size_t kMaxStatus = 64 << 10;
constexpr std::size_t kMaxMaps = 1 << 20;

// The text up to the next blank, and `rest` past it and the blanks after it.
std::string_view token(std::string_view &rest) {
    std::size_t end = std::min(rest.find(' '), rest.size());
    std::string_view result = rest.substr(0, end);
    rest.remove_prefix(end);
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    return result;
}

// `text` as a whole number in `base`.
template <typename T>
bool number(std::string_view text, T &out, int base) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out, base);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

ExecutableKey keyOf(const platform::FileStatus &st) {
    return {st.device, st.inode, st.size, st.modifiedNs, st.changedNs};
}

// Why the code mapped in `m` is foreign, or nothing when its path still names that very
// file and only root can change it.
std::optional<std::string> foreignCode(const ExecutableMapping &m,
                                       const platform::FileAccess &files) {
    // Otherwise what the path names now says nothing about the code that runs.
    platform::StatusResult st = files.stat(m.path);
    if (st.error != 0 || st.status.device != m.device || st.status.inode != m.inode) {
        return "it runs code from " + m.path + ", which is no longer that file on disk";
    }
    if (!st.status.regular() || st.status.uid != 0 || (st.status.mode & 022) != 0) {
        return "it runs code from " + m.path +
               ", which is not a root-owned file closed to writes by group and others";
    }
    return std::nullopt;
}

// The executable mappings in `proc`/maps, or why they cannot be read.
std::optional<std::vector<ExecutableMapping>> readMappings(const std::string &proc,
                                                           const platform::FileAccess &files,
                                                           std::string &problem) {
    platform::TextResult maps = files.readText(proc + "/maps", kMaxMaps);
    std::optional<std::vector<ExecutableMapping>> mappings = executableMappings(maps.text);
    if (maps.error != 0 || !mappings) {
        problem = "cannot read its mappings: " +
                  (maps.error != 0 ? platform::errorText(maps.error) : "unexpected format");
        return std::nullopt;
    }
    return mappings;
}

}  // namespace

std::optional<std::vector<ExecutableMapping>> executableMappings(std::string_view maps) {
    std::vector<ExecutableMapping> result;
    while (!maps.empty()) {
        std::size_t end = std::min(maps.find('\n'), maps.size());
        std::string_view rest = maps.substr(0, end);
        maps.remove_prefix(std::min(end + 1, maps.size()));
        // start-end perms offset major:minor inode [path]
        std::string_view range = token(rest), perms = token(rest), offset = token(rest),
                         device = token(rest), inodeText = token(rest);
        std::size_t dash = range.find('-'), colon = device.find(':');
        std::uint64_t ignored = 0, inode = 0;
        unsigned major = 0, minor = 0;
        if (dash == std::string_view::npos || !number(range.substr(0, dash), ignored, 16) ||
            !number(range.substr(dash + 1), ignored, 16) || perms.size() != 4 ||
            !number(offset, ignored, 16) || colon == std::string_view::npos ||
            !number(device.substr(0, colon), major, 16) ||
            !number(device.substr(colon + 1), minor, 16) || !number(inodeText, inode, 10)) {
            return std::nullopt;
        }
        if (perms[2] == 'x' && inode != 0) {
            result.push_back({makedev(major, minor), inode, std::string(rest)});
        }
    }
    return result;
}

std::optional<long> tracerPid(std::string_view status) {
    constexpr std::string_view kField = "TracerPid:";
    while (!status.empty()) {
        std::size_t end = std::min(status.find('\n'), status.size());
        std::string_view line = status.substr(0, end);
        status.remove_prefix(std::min(end + 1, status.size()));
        if (line.starts_with(kField)) {
            line.remove_prefix(kField.size());
            line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
            long pid = 0;
            return number(line, pid, 10) ? std::optional(pid) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::size_t SignatureCache::KeyHash::operator()(const ExecutableKey &key) const noexcept {
    std::size_t seed = 0;
    for (std::uint64_t part :
         {key.device, key.inode, key.size, static_cast<std::uint64_t>(key.modifiedNs),
          static_cast<std::uint64_t>(key.changedNs)}) {
        hashCombine(seed, std::hash<std::uint64_t>{}(part));
    }
    return seed;
}

SignatureCache::Result SignatureCache::verify(const std::string &path,
                                              const platform::FileAccess &files) {
    Result result;
    platform::StatusResult st = files.stat(path);
    if (st.error != 0) {
        result.error = st.error;
        return result;
    }
    {
        std::lock_guard lock(mutex_);
        auto found = index_.find(keyOf(st.status));
        if (found != index_.end()) {
            ++hits_;
            order_.splice(order_.begin(), order_, found->second);
            result.status = st.status;
            result.info = found->second->second;
            return result;
        }
    }
    // Hash outside the lock: a large file must not hold up checks of other peers.
    platform::OpenedFile opened = files.open(path);
    if (opened.error != 0) {
        result.error = opened.error;
        return result;
    }
    result.status = opened.file->status();
    result.info = verifySignature(*opened.file);

    std::lock_guard lock(mutex_);
    ++misses_;
    // A read that failed says nothing lasting about the file.
    if (result.info.status == SignatureStatus::unreadable) {
        return result;
    }
    ExecutableKey key = keyOf(result.status);
    if (auto found = index_.find(key); found != index_.end()) {
        order_.erase(found->second);
    }
    order_.emplace_front(key, result.info);
    index_[key] = order_.begin();
    while (order_.size() > capacity_) {
        index_.erase(order_.back().first);
        order_.pop_back();
    }
    return result;
}

std::size_t SignatureCache::hits() const {
    std::lock_guard lock(mutex_);
    return hits_;
}

std::size_t SignatureCache::misses() const {
    std::lock_guard lock(mutex_);
    return misses_;
}

PeerLookup identifyPeer(int socketFd, const platform::ProcessAccess &access) {
    platform::SocketPeer peer = access.socketPeer(socketFd);
    if (peer.error != 0) {
        return {std::nullopt, "cannot identify the peer: " + platform::errorText(peer.error)};
    }
    return {Peer{{peer.pid, peer.uid, peer.gid}, std::move(peer.pidfd)}, {}};
}

PeerVetting::PeerVetting(CodeRequirement requirement, const platform::ProcessAccess &access,
                         std::size_t cacheCapacity)
    : requirement_(std::move(requirement)), access_(access), cache_(cacheCapacity) {
    std::string ignored;
    for (const ExecutableMapping &m : readMappings("/proc/self", access.files(), ignored)
                                          .value_or(std::vector<ExecutableMapping>{})) {
        if (!foreignCode(m, access.files())) {
            pinned_.emplace_back(m.device, m.inode);
        }
    }
}

PeerVerdict PeerVetting::check(const Peer &peer) {
    PeerVerdict verdict{false, peer.credentials, {}};
    std::optional<std::string> why = problem(peer.credentials.pid);
    // Only while the process still lives do the /proc files just read belong to it and
    // not to a newer process with the same pid.
    if (!why && access_.exited(peer.pidfd)) {
        why = "it has exited";
    }
    if (!why) {
        verdict.accepted = true;
        return verdict;
    }
    platform::TextResult exe =
        access_.files().readLink(fmt::format("/proc/{}/exe", peer.credentials.pid));
    verdict.reason = fmt::format("process {} (uid {}{}{}): {}", peer.credentials.pid,
                                 peer.credentials.uid, exe.error == 0 ? ", " : "", exe.text, *why);
    return verdict;
}

PeerVerdict PeerVetting::check(int socketFd) {
    PeerLookup lookup = identifyPeer(socketFd, access_);
    if (!lookup.peer) {
        return {false, {}, lookup.problem};
    }
    return check(*lookup.peer);
}

std::optional<std::string> PeerVetting::problem(int pid) {
    const platform::FileAccess &files = access_.files();
    std::string proc = fmt::format("/proc/{}", pid);
    SignatureCache::Result exe = cache_.verify(proc + "/exe", files);
    if (exe.error != 0) {
        return "cannot examine its executable: " + platform::errorText(exe.error);
    }
    if (std::optional<std::string> unmet = requirement_.unmetBy(exe.info)) {
        return unmet;
    }
    platform::TextResult status = files.readText(proc + "/status", kMaxStatus);
    std::optional<long> tracer = tracerPid(status.text);
    if (status.error != 0 || !tracer) {
        return "cannot read its status: " +
               (status.error != 0 ? platform::errorText(status.error) : "no TracerPid");
    }
    if (*tracer != 0) {
        return fmt::format("it is being traced by process {}", *tracer);
    }
    return foreignMapping(proc, exe.status);
}

std::optional<std::string> PeerVetting::foreignMapping(const std::string &proc,
                                                       const platform::FileStatus &exe) {
    std::string problem;
    std::optional<std::vector<ExecutableMapping>> mappings =
        readMappings(proc, access_.files(), problem);
    if (!mappings) {
        return problem;
    }
    bool runsExecutable = false;
    std::vector<FileId> trusted = pinned_;
    for (const ExecutableMapping &m : *mappings) {
        FileId id{m.device, m.inode};
        if (id == FileId{exe.device, exe.inode}) {
            runsExecutable = true;
        } else if (std::find(trusted.begin(), trusted.end(), id) == trusted.end()) {
            if (std::optional<std::string> foreign = foreignCode(m, access_.files())) {
                return foreign;
            }
            trusted.push_back(id);
        }
    }
    if (!runsExecutable) {
        return std::string("its executable is not mapped: it is running something else");
    }
    return std::nullopt;
}

}  // namespace ostrel
