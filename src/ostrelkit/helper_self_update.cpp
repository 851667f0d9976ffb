#include "ostrel/helper_self_update.h"

#include <algorithm>
#include <array>
#include <span>

#include "ostrel/platform/text.h"

namespace ostrel::HelperSelfUpdate {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Whether `path` begins with `pattern`, where "*" matches one non-empty path component.
bool underLocation(std::string_view path, std::string_view pattern) {
    std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        return path.starts_with(pattern);
    }
    if (!path.starts_with(pattern.substr(0, star))) {
        return false;
    }
    path.remove_prefix(star);
    std::size_t end = path.find('/');
    if (end == 0 || end == std::string_view::npos) {
        return false;
    }
    return underLocation(path.substr(end), pattern.substr(star + 1));
}

// The text without white space, line ends included, at either end.
std::string_view trimmed(std::string_view text) {
    for (std::string_view last; last != text;) {
        last = text;
        text = text::trimBlanks(text);
        while (!text.empty() && (text.front() == '\n' || text.front() == '\r')) {
            text.remove_prefix(1);
        }
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.remove_suffix(1);
        }
    }
    return text;
}

// Whether the two files hold the same bytes; false when either cannot be read.
bool sameContents(const platform::FileAccess &files, const std::string &a, const std::string &b) {
    platform::OpenedFile first = files.open(a), second = files.open(b);
    if (first.error != 0 || second.error != 0 || !first.file->status().regular() ||
        !second.file->status().regular() ||
        first.file->status().size != second.file->status().size) {
        return false;
    }
    std::array<char, 65536> x, y;
    std::uint64_t size = first.file->status().size;
    for (std::uint64_t at = 0; at < size; at += x.size()) {
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(x.size(), size - at));
        if (first.file->readAt(at, std::span(x.data(), n)) != 0 ||
            second.file->readAt(at, std::span(y.data(), n)) != 0 ||
            !std::equal(x.begin(), x.begin() + static_cast<std::ptrdiff_t>(n), y.begin())) {
            return false;
        }
    }
    return true;
}

// Removes the staging file when the attempt ends, whatever its outcome; after a successful
// rename there is nothing left to remove.
class Staging {
  public:
    Staging(const platform::FileAccess &files, std::string path)
        : files_(files), path_(std::move(path)) {
        files_.remove(path_);  // a leftover of an interrupted attempt
    }
    ~Staging() { files_.remove(path_); }
    Staging(const Staging &) = delete;
    Staging &operator=(const Staging &) = delete;
    const std::string &path() const { return path_; }

  private:
    const platform::FileAccess &files_;
    std::string path_;
};

Outcome attempt(const std::string &source, const std::string &destination, const Signer &team,
                std::string_view current, const UpdateServices &services) {
    std::optional<std::string> real = acceptableSource(source, services.paths, services.files);
    if (!real) {
        return Rejected{
            source + " is not usable right now (missing, a link, or not in an install location)"};
    }
    const std::string &src = *real;
    if (sameContents(services.files, src, destination)) {
        return Unchanged{};
    }
    Staging staging(services.files, destination + ".new");
    if (services.files.copyNew(src, staging.path()) != 0 ||
        services.files.changeOwner(staging.path(), services.ownerUid, services.ownerGid) != 0 ||
        services.files.changeMode(staging.path(), 0755) != 0) {
        return Rejected{"could not stage " + src};
    }
    if (!satisfies(staging.path(), requirement(team), services.files)) {
        return Rejected{src + " is not signed by team " + team.team};
    }
    // Executed only now that its signature has been accepted.
    std::optional<std::string> reported = version(staging.path(), services.processes);
    if (!reported) {
        return Rejected{src + " did not report a version"};
    }
    if (compareVersions(*reported, current) <= 0) {
        return Rejected{src + " is version " + *reported + ", not newer than " +
                        std::string(current)};
    }
    if (services.files.rename(staging.path(), destination) != 0) {
        return Rejected{"could not replace " + destination};
    }
    return Updated{*reported};
}

}  // namespace

std::optional<std::string> acceptableSource(const std::string &path, const platform::Paths &paths,
                                            const platform::FileAccess &files) {
    platform::StatusResult own = files.linkStatus(path);
    if (own.error != 0 || !own.status.regular()) {
        return std::nullopt;
    }
    platform::TextResult real = files.realPath(path);
    if (real.error != 0) {
        return std::nullopt;
    }
    // The root may itself lie behind a link (/tmp on some systems); compare real paths.
    std::string root = paths.root();
    if (!root.empty()) {
        platform::TextResult realRoot = files.realPath(root);
        if (realRoot.error != 0) {
            return std::nullopt;
        }
        root = realRoot.text == "/" ? "" : realRoot.text;
    }
    for (std::string_view location : platform::Paths::selfUpdateSources) {
        std::string_view rest = real.text;
        if (rest.starts_with(root) && underLocation(rest.substr(root.size()), location)) {
            return real.text;
        }
    }
    return std::nullopt;
}

std::optional<std::string> version(const std::string &path, platform::Processes &processes) {
    platform::ProcessLaunch launch;
    launch.program = path;
    launch.args = {"--print-version"};
    launch.timeout = versionTimeout;
    launch.captureLimit = 4096;  // a version is a few bytes; a chatty candidate is not ours
    platform::ProcessResult result = processes.run(launch);
    std::string text(trimmed(text::utf8Repaired(result.output)));
    if (!result.succeeded() || text.empty()) {
        return std::nullopt;
    }
    return text;
}

int compareVersions(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Compare the runs by value: without leading zeros, the longer is larger, and
            // runs of one length compare as text. No run is ever converted, so any length
            // works.
            auto run = [](std::string_view s, std::size_t &at) {
                while (at < s.size() && s[at] == '0') {
                    ++at;
                }
                std::size_t start = at;
                while (at < s.size() && isDigit(s[at])) {
                    ++at;
                }
                return s.substr(start, at - start);
            };
            std::string_view x = run(a, i), y = run(b, j);
            if (x.size() != y.size()) {
                return x.size() < y.size() ? -1 : 1;
            }
            if (int order = x.compare(y)) {
                return order < 0 ? -1 : 1;
            }
            continue;
        }
        auto x = static_cast<unsigned char>(a[i++]), y = static_cast<unsigned char>(b[j++]);
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    std::size_t restA = a.size() - i, restB = b.size() - j;
    return restA == restB ? 0 : (restA < restB ? -1 : 1);
}

Outcome update(const std::string &source, const std::string &destination, const Signer &team,
               std::string_view current, const UpdateServices &services) {
    try {
        return attempt(source, destination, team, current, services);
    } catch (const std::exception &) {
        // Out of memory somewhere on the way; the staging file is gone again.
        return Rejected{"could not stage " + source};
    }
}

}  // namespace ostrel::HelperSelfUpdate
